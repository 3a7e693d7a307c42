#include "Audio/StreamStats.h"

#include <cmath>
#include <mutex>

namespace sorva {

void StreamStats::record(const float* samples, int64_t count, int64_t recordedFrames) noexcept
{
    float blockPeak = 0.0f;
    for (int64_t i = 0; i < count; ++i) {
        const float magnitude = std::abs(samples[i]);
        blockPeak = magnitude > blockPeak ? magnitude : blockPeak;
    }
    std::lock_guard guard(lock);
    frames += recordedFrames;
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
