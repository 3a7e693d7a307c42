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
    bool claim() noexcept;

    template <typename F>
    void log(F&& message)
    {
        if (claim())
            EQLog::trace(std::forward<F>(message));
    }

    bool hasFired() const noexcept;

private:
    std::atomic<bool> fired { false };
};

} // namespace sorva
