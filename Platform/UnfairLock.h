// A tiny non-recursive lock for the real-time blocks: spins briefly, then
// yields. It is held only for a handful of loads and stores (or a bounded
// copy), so contention is short; the audio thread never sleeps on it in a
// system call while the holder is running.
#pragma once

#include <atomic>
#include <thread>

namespace sorva {

class UnfairLock {
public:
    UnfairLock() = default;
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    void lock() noexcept
    {
        for (;;) {
            if (!held.exchange(true, std::memory_order_acquire))
                return;
            for (int spin = 0; held.load(std::memory_order_relaxed); ++spin) {
                if (spin < 64)
                    pause();
                else
                    std::this_thread::yield();
            }
        }
    }

    bool try_lock() noexcept
    {
        return !held.load(std::memory_order_relaxed) && !held.exchange(true, std::memory_order_acquire);
    }

    void unlock() noexcept { held.store(false, std::memory_order_release); }

private:
    static void pause() noexcept
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    std::atomic<bool> held { false };
};

} // namespace sorva
