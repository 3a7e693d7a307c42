// Small owners for PipeWire objects: a unique_ptr deleter for any
// pw_*_destroy-style function, the loop lock for one scope, and a bound
// registry proxy with its event hook.
//
// Private to Platform/PipeWire: it includes PipeWire headers, so only the
// backend's .cpp files include it. Threads: the loop lock is taken by any
// non-real-time thread; BoundProxy is reset only with the loop lock held.
#pragma once

#include <pipewire/pipewire.h>

#include <memory>

namespace sorva {

template <typename T, void (*destroy)(T*)>
struct PipeWireDeleter {
    void operator()(T* object) const
    {
        if (object)
            destroy(object);
    }
};

template <typename T, void (*destroy)(T*)>
using PipeWirePtr = std::unique_ptr<T, PipeWireDeleter<T, destroy>>;

// The thread loop's lock for the scope of one operation.
class LoopLock {
public:
    explicit LoopLock(pw_thread_loop* loop)
        : loop(loop)
    {
        pw_thread_loop_lock(loop);
    }
    ~LoopLock() { pw_thread_loop_unlock(loop); }
    LoopLock(const LoopLock&) = delete;
    LoopLock& operator=(const LoopLock&) = delete;

private:
    pw_thread_loop* loop;
};

// A registry object we bound, with its event hook. Removing the hook before
// destroying the proxy keeps PipeWire from calling into freed memory.
struct BoundProxy {
    pw_proxy* proxy = nullptr;
    spa_hook listener {};

    BoundProxy() = default;
    BoundProxy(const BoundProxy&) = delete;
    BoundProxy& operator=(const BoundProxy&) = delete;
    ~BoundProxy() { reset(); }
    void reset()
    {
        if (!proxy)
            return;
        if (listener.link.next)
            spa_hook_remove(&listener);
        pw_proxy_destroy(proxy);
        proxy = nullptr;
        listener = {};
    }
};

} // namespace sorva
