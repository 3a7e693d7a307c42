#include "Audio/RenderTiming.h"

#include <algorithm>
#include <mutex>

namespace sorva {

RenderTiming::RenderTiming()
    : timebase(hostTimebase())
{
}

double RenderTiming::milliseconds(uint64_t from, uint64_t to) const noexcept
{
    const uint64_t ticks = to > from ? to - from : 0;
    return static_cast<double>(ticks) * timebase.numer / timebase.denom / 1'000'000.0;
}

void RenderTiming::record(uint64_t began, uint64_t ended, int64_t frames, bool sounding) noexcept
{
    std::lock_guard guard(lock);
    maxWorkMs = std::max(maxWorkMs, milliseconds(began, ended));
    if (lastCallbackEnd != 0) {
        const double gap = milliseconds(lastCallbackEnd, began);
        maxGapMs = std::max(maxGapMs, gap);
        // The expected period is always reckoned at 48 frames per millisecond.
        if (static_cast<double>(frames) / 48.0 * 1.5 < gap)
            ++lateCallbacks;
    }
    if (sounding && firstSound == 0)
        firstSound = ended;
    lastCallbackEnd = ended;
    ++callbacks;
}

void RenderTiming::forgetLastCallback() noexcept
{
    std::lock_guard guard(lock);
    lastCallbackEnd = 0;
}

uint64_t RenderTiming::firstSoundEnd() noexcept
{
    std::lock_guard guard(lock);
    return firstSound;
}

RenderTiming::Snapshot RenderTiming::snapshot() noexcept
{
    std::lock_guard guard(lock);
    Snapshot result { callbacks, lateCallbacks, maxGapMs, maxWorkMs };
    callbacks = 0;
    lateCallbacks = 0;
    maxGapMs = 0.0;
    maxWorkMs = 0.0;
    return result;
}

} // namespace sorva
