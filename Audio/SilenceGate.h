// Counts how long the input has been exactly silent and, after a limit of
// consecutive silent frames (one second in the render path), tells the render
// path to skip the equalizer and output silence until any sound returns.
// Shorter silences are processed normally so that filter tails ring out.
//
// Threads: only the audio thread touches it after construction; no lock.
#pragma once

#include "Platform/HotPath.h"

#include <cstdint>

namespace sorva {

class SilenceGate {
public:
    // blockIsSilent: every sample of the block is exactly 0.0. Returns whether
    // the block is gated.
    SORVA_HOT bool observe(bool blockIsSilent, int64_t frames, int64_t limitFrames) noexcept;

    bool isGated() const noexcept { return gated; }

private:
    int64_t silentFrames = 0; // consecutive silent frames, capped at the limit
    bool gated = false;
};

} // namespace sorva
