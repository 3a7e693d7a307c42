// Counts the frames and the peak level of the audio that passed, so that the
// controller's once-a-second poll can tell whether audio is flowing.
//
// Threads: record() on the audio thread, snapshot() on the main thread. The
// two fields are guarded by lock, held for a few loads and stores; the peak
// search runs outside it.
#pragma once

#include "Platform/UnfairLock.h"

#include <cstdint>

namespace sorva {

class StreamStats {
public:
    struct Snapshot {
        int64_t frames = 0;
        float peak = 0.0f;
    };

    // count samples representing `frames` frames. NaN samples do not count
    // towards the peak.
    void record(const float* samples, int64_t count, int64_t frames) noexcept;
    // The same for `frames` planar stereo frames.
    void recordPlanar(const float* left, const float* right, int64_t frames) noexcept;

    // The counts since the previous snapshot; both start again from 0.
    Snapshot snapshot() noexcept;

private:
    UnfairLock lock;
    int64_t frames = 0; // frames recorded since the last snapshot
    float peak = 0.0f; // largest |sample| since the last snapshot
};

} // namespace sorva
