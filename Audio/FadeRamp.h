// A linear gain ramp that fades processed audio in when an engine starts and
// out before it stops, so that neither clicks. The ramp's progress is shared
// across blocks: each block takes its share of the remaining frames.
//
// Threads: start() on the engine's control thread, apply()/applyPlanar() on
// the audio thread. The three fields are guarded by lock, held only for a
// few loads and stores; the sample loops run outside it. Nothing allocates.
#pragma once

#include "Platform/HotPath.h"
#include "Platform/UnfairLock.h"

#include <cstdint>

namespace sorva {

class FadeRamp {
public:
    // direction +1 fades in, -1 fades out, over `frames` frames. A negative
    // length counts as 0: a fade-in then leaves audio untouched, a fade-out
    // silences from the next block on.
    void start(int64_t frames, float direction) noexcept;

    // In place, on `frames` frames of `channels` interleaved samples. After a
    // finished fade-out every block comes out silent until a new ramp starts.
    SORVA_HOT void apply(float* buffer, int64_t frames, int64_t channels) noexcept;
    SORVA_HOT void applyPlanar(float* left, float* right, int64_t frames) noexcept;

private:
    struct Progress {
        float direction;
        int64_t remaining; // before this block
        int64_t total;
    };
    // Takes this block's frames off the ramp; direction 0 means no ramp.
    SORVA_HOT Progress advance(int64_t frames) noexcept;

    UnfairLock lock;
    int64_t remaining = 0; // frames of the ramp not yet played
    int64_t total = 0; // ramp length, at least 1 once a ramp was started
    float direction = 0.0f; // +1 in, -1 out, 0 never started
};

} // namespace sorva
