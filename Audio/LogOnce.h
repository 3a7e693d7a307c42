// A "first time only" latch: log() traces its message the first time it is
// called on this object and never again, from any thread. The message is
// evaluated only when it is logged. Claiming is one atomic flag, so the audio
// thread may ask every cycle: after the first claim it costs one load.
#pragma once

#include "Audio/EQLog.h"

#include <atomic>
#include <utility>

namespace sorva {

class LogOnce {
public:
    // True for exactly one caller: the first.
    bool claim() noexcept
    {
        // The load keeps the common case (already fired) free of a locked
        // read-modify-write; exchange decides between racing first callers.
        return !fired.load(std::memory_order_relaxed) && !fired.exchange(true, std::memory_order_relaxed);
    }

    template <typename F>
    void log(F&& message)
    {
        if (claim())
            EQLog::trace(std::forward<F>(message));
    }

    bool hasFired() const noexcept { return fired.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> fired { false };
};

} // namespace sorva
