// A "first time only" latch: log() traces its message the first time it is
// called on this object and never again, from any thread. The message is
// evaluated only when it is logged, and trace runs after the lock is released.
#pragma once

#include "Audio/EQLog.h"

#include <mutex>

namespace sorva {

class LogOnce {
public:
    // True for exactly one caller: the first.
    bool claim();

    template <typename F>
    void log(F&& message)
    {
        if (claim())
            EQLog::trace(std::forward<F>(message));
    }

    bool hasFired();

    bool fired = false;
    std::mutex lock;
};

} // namespace sorva
