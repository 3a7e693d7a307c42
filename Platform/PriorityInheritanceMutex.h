// A mutex with priority inheritance, for a lock that the real-time audio
// thread shares with an ordinary thread that holds it for a bounded copy.
// With a spinning lock, a real-time waiter keeps its core while the holder,
// preempted by any ordinary work, waits for one: the audio thread stalls for
// as long as the machine is busy. Here the kernel lends the waiter's priority
// to the holder until it unlocks.
//
// It is the kernel's priority-inheritance futex used directly, as the C
// library's PTHREAD_PRIO_INHERIT mutex uses it: the word holds the owner's
// thread ID, uncontended lock and unlock are one compare-and-swap each in
// this program's own code, and only a contended lock or an unlock with
// waiters enters the kernel. Going through the C library instead cost the
// audio thread three more code pages per cycle (its lock and unlock
// functions), each cold again after every sleep between cycles.
#pragma once

#include "Platform/HotPath.h"

#include <atomic>
#include <cstdint>

namespace sorva {

class PriorityInheritanceMutex {
public:
    PriorityInheritanceMutex() = default;
    PriorityInheritanceMutex(const PriorityInheritanceMutex&) = delete;
    PriorityInheritanceMutex& operator=(const PriorityInheritanceMutex&) = delete;

    SORVA_HOT void lock() noexcept;
    SORVA_HOT bool try_lock() noexcept;
    SORVA_HOT void unlock() noexcept;

    // The calling thread's kernel thread ID, cached per thread: the first
    // call on a thread is a system call, so a real-time thread should make
    // it before its first cycle.
    static uint32_t currentThreadID() noexcept;

private:
    void lockContended() noexcept;
    void unlockWithWaiters() noexcept;

    // 0 when free, else the owner's thread ID; the kernel adds its waiters bit.
    std::atomic<uint32_t> word { 0 };
};

} // namespace sorva
