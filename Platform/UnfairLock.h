// A tiny non-recursive lock for the real-time blocks, held only for a handful
// of loads and stores (or a bounded copy). It spins briefly, then sleeps on a
// priority-inheritance mutex. Spinning alone is not enough: the audio thread
// runs at real-time priority and shares these locks with ordinary threads
// (the supervision's statistics reads, the spectrum timer); an ordinary holder
// preempted by other work on a busy machine would keep a spinning audio thread
// waiting for a whole scheduler slice. With priority inheritance the kernel
// lends the waiter's priority to the holder until it unlocks. Uncontended
// lock and unlock stay in user space.
#pragma once

#include "Platform/PriorityInheritanceMutex.h"

#include <atomic>

namespace sorva {

class UnfairLock {
public:
    UnfairLock() = default;
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    void lock() noexcept
    {
        for (int spin = 0; spin < 64; ++spin) {
            if (mutex.try_lock())
                return;
            pause();
        }
        mutex.lock();
    }

    bool try_lock() noexcept { return mutex.try_lock(); }

    void unlock() noexcept { mutex.unlock(); }

private:
    static void pause() noexcept
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    PriorityInheritanceMutex mutex;
};

} // namespace sorva
