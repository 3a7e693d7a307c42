// Counts the frames and the peak level of the audio that passed, so that the
// controller's once-a-second poll can tell whether audio is flowing.
//
// Threads: add() on the audio thread, snapshot() on the main thread. The
// two fields are guarded by lock, held for a few loads and stores; the
// render path measures the block's peak before (BlockLevel).
#pragma once

#include "Platform/HotPath.h"
#include "Platform/UnfairLock.h"

#include <cstdint>

namespace sorva {

class StreamStats {
public:
    struct Snapshot {
        int64_t frames = 0;
        float peak = 0.0f;
    };

    // A block of `frames` frames whose largest |sample| is blockPeak.
    SORVA_HOT void add(int64_t frames, float blockPeak) noexcept;

    // The counts since the previous snapshot; both start again from 0.
    Snapshot snapshot() noexcept;

private:
    UnfairLock lock;
    int64_t frames = 0; // frames recorded since the last snapshot
    float peak = 0.0f; // largest |sample| since the last snapshot
};

} // namespace sorva
