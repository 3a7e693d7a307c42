// StereoRingBuffer: carries captured stereo audio from the tap's IO thread to
// the output render thread of the buffered engine. The reader resamples by a
// fractional rate nudged towards keeping primeFrames buffered; it primes
// before it plays, recovers from underruns, jumps back to the target when too
// much piles up (a resync) and fades in over 480 frames after each prime or
// resync.
//
// Threading: write() on the tap's IO thread, read() on the render thread,
// snapshot() on the main thread. Every field below is guarded by `lock`,
// which write() holds for the block copy and read() for its bookkeeping and
// interpolation loop. Nothing allocates after construction.
#pragma once

#include "Platform/HotPath.h"
#include "Platform/UnfairLock.h"

#include <cstdint>
#include <vector>

namespace sorva {

class StereoRingBuffer {
public:
    struct Snapshot {
        int64_t framesWritten = 0;
        int64_t framesRead = 0;
        int64_t buffered = 0; // frames
        float peak = 0;
        int64_t underruns = 0; // underruns plus resyncs since the last snapshot
    };

    // Allocates and clears the ring. Throws std::invalid_argument for a
    // capacity below one frame or a negative prime or read size.
    StereoRingBuffer(int64_t capacityFrames, int64_t primeFrames, int64_t maxReadFrames);
    StereoRingBuffer(const StereoRingBuffer&) = delete;
    StereoRingBuffer& operator=(const StereoRingBuffer&) = delete;

    // Appends an interleaved stereo block; count is in samples. Blocks of
    // fewer than 1 or more than `capacity` samples are ignored.
    SORVA_HOT void write(const float* samples, int64_t count) noexcept;

    // Fills left[0 … frames) and right[0 … frames), with silence where there
    // is no audio.
    SORVA_HOT void read(float* left, float* right, int64_t frames) noexcept;

    // Resets peak, underruns and resyncs; the frame counters keep running.
    Snapshot snapshot() noexcept;

    static constexpr double maxRateDeviation = 0.002;
    static constexpr int64_t rampFrames = 480;

private:
    std::vector<float> storage;
    const int64_t capacity;
    const int64_t scratchCapacity;
    const int64_t primeSamples;
    int64_t readIndex = 0;
    double readFraction = 0;
    int64_t writeIndex = 0;
    double readRate = 1.0;
    int64_t available = 0;
    bool primed = false;
    int64_t rampRemaining = 0;
    UnfairLock lock;
    int64_t framesWritten = 0;
    int64_t framesRead = 0;
    float peak = 0;
    int64_t underruns = 0;
    int64_t resyncs = 0;
};

} // namespace sorva
