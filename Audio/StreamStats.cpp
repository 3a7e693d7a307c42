#include "Audio/StreamStats.h"

#include <cmath>
#include <mutex>

namespace sorva {

namespace {

float peakOf(const float* samples, int64_t count, float blockPeak) noexcept
{
    for (int64_t i = 0; i < count; ++i) {
        const float magnitude = std::abs(samples[i]);
        blockPeak = magnitude > blockPeak ? magnitude : blockPeak;
    }
    return blockPeak;
}

} // namespace

void StreamStats::record(const float* samples, int64_t count, int64_t recordedFrames) noexcept
{
    const float blockPeak = peakOf(samples, count, 0.0f);
    std::lock_guard guard(lock);
    frames += recordedFrames;
    peak = blockPeak > peak ? blockPeak : peak;
}

void StreamStats::recordPlanar(const float* left, const float* right, int64_t recordedFrames) noexcept
{
    const float blockPeak = peakOf(right, recordedFrames, peakOf(left, recordedFrames, 0.0f));
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
