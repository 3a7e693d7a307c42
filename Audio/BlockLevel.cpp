#include "Audio/BlockLevel.h"

#include <cmath>
#include <functional>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace sorva {

namespace {

template <bool copy>
SORVA_HOT void scanSamples(const float* from, float* to, int64_t count, float& peak, bool& silent) noexcept
{
    int64_t i = 0;
    float blockPeak = peak;
    bool blockSilent = silent;
#if defined(__SSE2__)
    // Two accumulators so that consecutive maxima do not wait on each other.
    // maxps(m, acc) keeps acc where m is NaN, exactly as the scalar tail's
    // comparison does, and the maximum does not depend on the order.
    const __m128 magnitudeMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    const __m128 zero = _mm_setzero_ps();
    __m128 peakA = _mm_set1_ps(blockPeak), peakB = peakA;
    __m128 nonZero = zero; // lanes that saw a sample != 0 (unordered counts)
    for (; i + 8 <= count; i += 8) {
        const __m128 a = _mm_loadu_ps(from + i);
        const __m128 b = _mm_loadu_ps(from + i + 4);
        if constexpr (copy) {
            _mm_storeu_ps(to + i, a);
            _mm_storeu_ps(to + i + 4, b);
        }
        peakA = _mm_max_ps(_mm_and_ps(a, magnitudeMask), peakA);
        peakB = _mm_max_ps(_mm_and_ps(b, magnitudeMask), peakB);
        nonZero = _mm_or_ps(nonZero, _mm_or_ps(_mm_cmpneq_ps(a, zero), _mm_cmpneq_ps(b, zero)));
    }
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, _mm_max_ps(peakA, peakB));
    for (const float lane : lanes)
        blockPeak = lane > blockPeak ? lane : blockPeak;
    blockSilent = blockSilent && _mm_movemask_ps(nonZero) == 0;
#endif
    for (; i < count; ++i) {
        const float sample = from[i];
        if constexpr (copy)
            to[i] = sample;
        const float magnitude = std::abs(sample);
        blockPeak = magnitude > blockPeak ? magnitude : blockPeak;
        blockSilent = blockSilent && sample == 0.0f;
    }
    peak = blockPeak;
    silent = blockSilent;
}

} // namespace

void BlockLevel::scan(const float* from, float* to, int64_t count) noexcept
{
    if (count <= 0)
        return;
    if (to == nullptr || to == from)
        scanSamples<false>(from, nullptr, count, peak, silent);
    else
        scanSamples<true>(from, to, count, peak, silent);
}

bool BlockLevel::disjoint(const float* a, const float* b, int64_t count) noexcept
{
    // std::less gives a total order even for pointers into different blocks.
    const std::less<const float*> before;
    return !before(a, b + count) || !before(b, a + count);
}

} // namespace sorva
