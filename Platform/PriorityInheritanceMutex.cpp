#include "Platform/PriorityInheritanceMutex.h"

namespace sorva {

PriorityInheritanceMutex::PriorityInheritanceMutex()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    // Where the protocol is not supported the mutex still works, without
    // the boost.
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

PriorityInheritanceMutex::~PriorityInheritanceMutex() { pthread_mutex_destroy(&mutex); }

void PriorityInheritanceMutex::lock() noexcept { pthread_mutex_lock(&mutex); }

bool PriorityInheritanceMutex::try_lock() noexcept { return pthread_mutex_trylock(&mutex) == 0; }

void PriorityInheritanceMutex::unlock() noexcept { pthread_mutex_unlock(&mutex); }

} // namespace sorva
