#include "Platform/PriorityInheritanceMutex.h"

#include <cerrno>
#include <cstdlib>

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sorva {

namespace {

thread_local uint32_t cachedThreadID = 0;

// A forked child's only thread has an ID of its own. Registered when the
// program loads, so that no thread's first lock allocates.
const int forkHandler = pthread_atfork(nullptr, nullptr, [] { cachedThreadID = 0; });

long futex(std::atomic<uint32_t>& word, int operation) noexcept
{
    return ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), operation, 0, nullptr, nullptr, 0);
}

} // namespace

uint32_t PriorityInheritanceMutex::currentThreadID() noexcept
{
    if (cachedThreadID == 0) {
        (void)forkHandler;
        cachedThreadID = static_cast<uint32_t>(::gettid());
    }
    return cachedThreadID;
}

bool PriorityInheritanceMutex::try_lock() noexcept
{
    uint32_t expected = 0;
    return word.compare_exchange_strong(expected, currentThreadID(), std::memory_order_acquire,
                                        std::memory_order_relaxed);
}

void PriorityInheritanceMutex::lock() noexcept
{
    if (!try_lock())
        lockContended();
}

void PriorityInheritanceMutex::unlock() noexcept
{
    uint32_t expected = currentThreadID();
    if (!word.compare_exchange_strong(expected, 0, std::memory_order_release, std::memory_order_relaxed))
        unlockWithWaiters();
}

// The kernel queues this thread by priority, boosts the owner to it, and
// hands the lock over with the word already naming this thread.
void PriorityInheritanceMutex::lockContended() noexcept
{
    for (;;) {
        if (futex(word, FUTEX_LOCK_PI_PRIVATE) == 0)
            break;
        if (errno == EDEADLK)
            std::abort(); // this thread holds it already: a bug, never a wait
        if (errno == EAGAIN || errno == EINTR)
            continue; // the owner is exiting: ask again
        // Any other answer (ENOSYS: a kernel without priority-inheritance
        // futexes): take turns without the kernel.
        if (try_lock())
            break;
        sched_yield();
    }
    // Pairs with the release in unlockWithWaiters: the hand-over happened in
    // the kernel, which the memory model (and the thread sanitizer) cannot see.
    (void)word.load(std::memory_order_acquire);
}

void PriorityInheritanceMutex::unlockWithWaiters() noexcept
{
    // The value stays as it is; the release orders this thread's writes
    // before the waiter's acquire above.
    word.fetch_add(0, std::memory_order_release);
    futex(word, FUTEX_UNLOCK_PI_PRIVATE);
}

} // namespace sorva
