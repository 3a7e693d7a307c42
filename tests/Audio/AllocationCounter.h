// Test support: counts heap allocations made through operator new on the
// calling thread, so tests can show that a real-time path allocates nothing.
// The program's replacement operator new/delete (AllocationCounter.cpp) pass
// everything on to malloc/free and only bump a thread-local counter.
#pragma once

#include <cstdint>

namespace sorva::test {

uint64_t allocationsOnThisThread();

template <typename F>
uint64_t allocationsDuring(F&& body)
{
    const uint64_t before = allocationsOnThisThread();
    body();
    return allocationsOnThisThread() - before;
}

} // namespace sorva::test
