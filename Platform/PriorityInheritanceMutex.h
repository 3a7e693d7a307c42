// A mutex with priority inheritance, for a lock that the real-time audio
// thread shares with an ordinary thread that holds it for a bounded copy.
// With a spinning lock, a real-time waiter keeps its core while the holder,
// preempted by any ordinary work, waits for one: the audio thread stalls for
// as long as the machine is busy. Here the kernel lends the waiter's priority
// to the holder until it unlocks. Uncontended lock and unlock stay in user
// space (no system call); only a contended lock sleeps in the kernel.
#pragma once

#include <pthread.h>

namespace sorva {

class PriorityInheritanceMutex {
public:
    PriorityInheritanceMutex();
    ~PriorityInheritanceMutex();
    PriorityInheritanceMutex(const PriorityInheritanceMutex&) = delete;
    PriorityInheritanceMutex& operator=(const PriorityInheritanceMutex&) = delete;

    void lock() noexcept;
    bool try_lock() noexcept;
    void unlock() noexcept;

private:
    pthread_mutex_t mutex;
};

} // namespace sorva
