#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local uint64_t allocationCount = 0;

void* countedMalloc(std::size_t size) noexcept
{
    ++allocationCount;
    return std::malloc(size == 0 ? 1 : size);
}

void* allocate(std::size_t size)
{
    if (void* memory = countedMalloc(size))
        return memory;
    throw std::bad_alloc();
}

} // namespace

uint64_t sorva::test::allocationsOnThisThread() { return allocationCount; }

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return countedMalloc(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return countedMalloc(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
