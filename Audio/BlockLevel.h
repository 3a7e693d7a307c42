// What the render path learns about a block in the one pass that brings it
// from the device's input to its output: the peak magnitude and whether
// every sample is exact digital silence. One read of the input and, where
// the output lies elsewhere, one write, rather than separate passes for the
// copy, the statistics' peak and the silence gate's test.
//
// Real-time safe: no allocation, no locks, no system calls.
#pragma once

#include "Platform/HotPath.h"

#include <cstdint>

namespace sorva {

struct BlockLevel {
    // Largest |sample| scanned; NaN does not count.
    float peak = 0.0f;
    // Every sample scanned was +0 or -0 (a NaN is no silence).
    bool silent = true;

    // Scans count samples of from and copies them to to, unless to is null
    // or from itself. The two ranges must not overlap otherwise.
    SORVA_HOT void scan(const float* from, float* to, int64_t count) noexcept;

    // True when count samples at a and at b share no byte.
    SORVA_HOT static bool disjoint(const float* a, const float* b, int64_t count) noexcept;
};

} // namespace sorva
