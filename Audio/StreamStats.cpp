#include "Audio/StreamStats.h"

#include <mutex>

namespace sorva {

void StreamStats::add(int64_t addedFrames, float blockPeak) noexcept
{
    std::lock_guard guard(lock);
    frames += addedFrames;
    peak = blockPeak > peak ? blockPeak : peak;
}

StreamStats::Snapshot StreamStats::snapshot() noexcept
{
    std::lock_guard guard(lock);
    Snapshot result { frames, peak };
    frames = 0;
    peak = 0.0f;
    return result;
}

} // namespace sorva
