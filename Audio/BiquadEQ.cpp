#include "Audio/BiquadEQ.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <thread>

#if defined(__SSE2__)
#include <emmintrin.h>
#define SORVA_STEREO_KERNEL 1
#endif

namespace sorva {

namespace {

// Clamp to ±ceiling; a NaN compares false both ways and becomes +ceiling.
inline float clampSample(float v, float ceiling)
{
    return v >= -ceiling ? (v <= ceiling ? v : ceiling) : (v < -ceiling ? -ceiling : ceiling);
}

// The running peak of a frame: NaN samples do not count, so one NaN cannot
// poison the envelope for good (the clamp still turns it into +ceiling).
inline float peakWith(float peak, float sample)
{
    const float magnitude = std::abs(sample);
    return magnitude > peak ? magnitude : peak;
}

} // namespace

BiquadEQ::BiquadEQ(int64_t bandCount, int64_t channels)
    : bandCount(std::max<int64_t>(bandCount, 0))
    , channelCount(std::max<int64_t>(channels, 0))
    , coefficients(new AtomicSection[static_cast<size_t>(2 * this->bandCount)])
    , state(new float[static_cast<size_t>(2 * this->channelCount * this->bandCount)]())
    , blockBank(new Section[static_cast<size_t>(this->bandCount)])
{
}

BiquadEQ::Section BiquadEQ::section(int64_t bank, int64_t band) const
{
    const AtomicSection& s = coefficients[static_cast<size_t>(bank * bandCount + band)];
    return { s.b0.load(std::memory_order_relaxed), s.b1.load(std::memory_order_relaxed),
             s.b2.load(std::memory_order_relaxed), s.a1.load(std::memory_order_relaxed),
             s.a2.load(std::memory_order_relaxed) };
}

void BiquadEQ::update(const std::vector<EQBand>& bands, double outputGainDB, double sampleRate)
{
    outputGain.store(static_cast<float>(std::pow(10.0, outputGainDB / 20.0)), std::memory_order_relaxed);

    const int64_t target = 1 - activeBank.load(std::memory_order_relaxed);
    // Two updates in quick succession: the second one writes the bank the
    // first just published. Wait while the audio thread is copying it (a
    // handful of loads); paired with the seq_cst store/load in
    // loadPublishedBank, one of the two sides always sees the other.
    while (bankInUse.load(std::memory_order_seq_cst) == target)
        std::this_thread::yield();

    AtomicSection* bank = &coefficients[static_cast<size_t>(target * bandCount)];
    const int64_t given = static_cast<int64_t>(bands.size());
    for (int64_t i = 0; i < bandCount; ++i) {
        Section s;
        if (i < given && bands[static_cast<size_t>(i)].gain != 0.0) {
            const double g = bands[static_cast<size_t>(i)].gain;
            const double A = std::pow(10.0, g / 40.0);
            const double f = std::min(bands[static_cast<size_t>(i)].frequency, 0.45 * sampleRate);
            const double w0 = 2.0 * std::numbers::pi * f / sampleRate;
            const double alpha = std::sin(w0) / 2.8; // Q = 1.4 for every band
            const double a0 = 1.0 + alpha / A;
            s.b0 = static_cast<float>((1.0 + alpha * A) / a0);
            s.b1 = static_cast<float>((-2.0 * std::cos(w0)) / a0);
            s.b2 = static_cast<float>((1.0 - alpha * A) / a0);
            s.a1 = static_cast<float>((-2.0 * std::cos(w0)) / a0);
            s.a2 = static_cast<float>((1.0 - alpha / A) / a0);
        }
        bank[i].b0.store(s.b0, std::memory_order_relaxed);
        bank[i].b1.store(s.b1, std::memory_order_relaxed);
        bank[i].b2.store(s.b2, std::memory_order_relaxed);
        bank[i].a1.store(s.a1, std::memory_order_relaxed);
        bank[i].a2.store(s.a2, std::memory_order_relaxed);
    }

    // Cuts never raise the level: only the largest boost lowers it, by 12 % of
    // that boost in dB. Bands beyond bandCount have no filter and do not count.
    const int64_t counted = std::min(bandCount, given);
    double makeup = 1.0;
    if (counted > 0) {
        double largest = bands[0].gain;
        for (int64_t i = 1; i < counted; ++i)
            largest = std::max(largest, bands[static_cast<size_t>(i)].gain);
        if (largest > 0)
            makeup = std::pow(10.0, (-0.12 * largest) / 20.0);
    }
    makeupGain.store(static_cast<float>(makeup), std::memory_order_relaxed);

    limiterAttack.store(static_cast<float>(std::exp(-1.0 / (sampleRate * 0.015))), std::memory_order_relaxed);
    limiterRelease.store(static_cast<float>(std::exp(-1.0 / (sampleRate * 0.15))), std::memory_order_relaxed);

    // Last, after every section of the bank: publishes it. seq_cst (not just
    // release) so that the next update's bankInUse check cannot be ordered
    // before it.
    activeBank.store(target, std::memory_order_seq_cst);
}

// A single infinite or NaN input sample would otherwise stay in the filter
// memory (every later output of that channel +0.995) or in the envelope
// (every later frame scaled to 0) until the next reset. The block that
// carried it comes out as computed; the next block starts from zero.
void BiquadEQ::clearNonFinite() noexcept
{
    for (int64_t pair = 0; pair < channelCount * bandCount; ++pair) {
        float* z = &state[static_cast<size_t>(2 * pair)];
        if (!std::isfinite(z[0]) || !std::isfinite(z[1]))
            z[0] = z[1] = 0.0f;
    }
    if (!std::isfinite(limiterEnvelope))
        limiterEnvelope = 0.0f;
}

void BiquadEQ::reset() noexcept
{
    limiterEnvelope = 0.0f;
    std::fill(state.get(), state.get() + 2 * channelCount * bandCount, 0.0f);
}

void BiquadEQ::loadPublishedBank() noexcept
{
    int64_t bank = activeBank.load(std::memory_order_acquire);
    for (;;) {
        bankInUse.store(bank, std::memory_order_seq_cst);
        const int64_t again = activeBank.load(std::memory_order_seq_cst);
        if (again == bank)
            break;
        bank = again; // republished meanwhile: take the newer bank
    }
    const AtomicSection* published = &coefficients[static_cast<size_t>(bank * bandCount)];
    for (int64_t b = 0; b < bandCount; ++b) {
        blockBank[b] = { published[b].b0.load(std::memory_order_relaxed),
                         published[b].b1.load(std::memory_order_relaxed),
                         published[b].b2.load(std::memory_order_relaxed),
                         published[b].a1.load(std::memory_order_relaxed),
                         published[b].a2.load(std::memory_order_relaxed) };
    }
    bankInUse.store(-1, std::memory_order_release);
}

BiquadEQ::BlockGains BiquadEQ::loadGains() const noexcept
{
    return { makeupGain.load(std::memory_order_relaxed) * outputGain.load(std::memory_order_relaxed),
             limiterAttack.load(std::memory_order_relaxed), limiterRelease.load(std::memory_order_relaxed) };
}

// --- Plain loops ----------------------------------------------------------

void BiquadEQ::filterChannel(float* samples, int64_t frames, int64_t stride, float* channelState) noexcept
{
    for (int64_t b = 0; b < bandCount; ++b) {
        const Section s = blockBank[b];
        if (s.isIdentity())
            continue;
        float z1 = channelState[2 * b];
        float z2 = channelState[2 * b + 1];
        float* x = samples;
        for (int64_t n = 0; n < frames; ++n, x += stride) {
            const float in = *x;
            const float y = z1 + s.b0 * in;
            z1 = z2 + (s.b1 * in - s.a1 * y);
            z2 = s.b2 * in - s.a2 * y;
            *x = y;
        }
        channelState[2 * b] = z1;
        channelState[2 * b + 1] = z2;
    }
}

void BiquadEQ::filterInterleavedScalar(float* buffer, int64_t frames, int64_t channels) noexcept
{
    const int64_t filtered = std::min(channelCount, channels);
    for (int64_t c = 0; c < filtered; ++c)
        filterChannel(buffer + c, frames, channels, &state[static_cast<size_t>(2 * c * bandCount)]);
}

void BiquadEQ::processInterleavedScalar(float* buffer, int64_t frames, int64_t channels) noexcept
{
    if (frames <= 0)
        return;
    loadPublishedBank();
    filterInterleavedScalar(buffer, frames, channels);
    limitInterleaved(buffer, frames, channels);
    clearNonFinite();
}

void BiquadEQ::limitInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept
{
    const BlockGains k = loadGains();
    float e = limiterEnvelope;
    for (int64_t n = 0; n < frames; ++n) {
        float* frame = buffer + n * channels;
        float peak = 0.0f;
        for (int64_t c = 0; c < channels; ++c) {
            frame[c] *= k.gain;
            peak = peakWith(peak, frame[c]);
        }
        const float coef = e < peak ? k.attack : k.release;
        e = e * coef + (1.0f - coef) * peak;
        if (e > limiterCeiling) {
            const float scale = limiterCeiling / e;
            for (int64_t c = 0; c < channels; ++c)
                frame[c] *= scale;
        }
        for (int64_t c = 0; c < channels; ++c)
            frame[c] = clampSample(frame[c], hardCeiling);
    }
    limiterEnvelope = e;
}

void BiquadEQ::processPlanarScalar(float* left, float* right, int64_t frames) noexcept
{
    if (frames <= 0)
        return;
    loadPublishedBank();
    planarScalar(left, right, frames);
}

void BiquadEQ::planarScalar(float* left, float* right, int64_t frames) noexcept
{
    if (channelCount >= 1)
        filterChannel(left, frames, 1, &state[0]);
    if (channelCount >= 2)
        filterChannel(right, frames, 1, &state[static_cast<size_t>(2 * bandCount)]);

    const BlockGains k = loadGains();
    float e = limiterEnvelope;
    for (int64_t n = 0; n < frames; ++n) {
        float l = left[n] * k.gain;
        float r = right[n] * k.gain;
        const float peak = peakWith(peakWith(0.0f, l), r);
        const float coef = e < peak ? k.attack : k.release;
        e = e * coef + (1.0f - coef) * peak;
        if (e > limiterCeiling) {
            const float scale = limiterCeiling / e;
            l *= scale;
            r *= scale;
        }
        left[n] = clampSample(l, hardCeiling);
        right[n] = clampSample(r, hardCeiling);
    }
    limiterEnvelope = e;
    clearNonFinite();
}

// --- Stereo kernel ----------------------------------------------------------
//
// The cascade is a chain of recurrences, each of which waits on its own
// previous output, so one band at a time leaves the processor idle. Here the
// bands run overlapped in time: at step t, active band k works on frame t - k,
// taking band k-1's output of the previous step. Two bands share one register
// as (band 2j: left, right | band 2j+1: left, right), so five bands need three
// registers per operation (the unused half has zero coefficients and is
// never stored). The limiter runs in the same loop on the frame leaving the
// last band. Every lane does exactly the scalar operations in the scalar
// order, so results are bit-identical. With K active bands a block takes
// frames + K - 1 steps; in the first and last K - 1 of them, bands that have
// no frame yet (or any more) keep their state. Frame t is read at step t,
// before frame t - K + 1 is written back, so processing in place is safe.

#if SORVA_STEREO_KERNEL
namespace {

constexpr int maxKernelBands = 8;

struct InterleavedStereo {
    float* frames;
    __m128 load(int64_t n) const
    {
        return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(frames + 2 * n)));
    }
    void store(int64_t n, __m128 v) const
    {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(frames + 2 * n), _mm_castps_si128(v));
    }
};

struct PlanarStereo {
    float* left;
    float* right;
    __m128 load(int64_t n) const { return _mm_unpacklo_ps(_mm_load_ss(left + n), _mm_load_ss(right + n)); }
    void store(int64_t n, __m128 v) const
    {
        _mm_store_ss(left + n, v);
        _mm_store_ss(right + n, _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1)));
    }
};

struct KernelJob {
    const BiquadEQ::Section* sections[maxKernelBands]; // active sections in band order
    float* leftState[maxKernelBands]; // (z1, z2) of each active band
    float* rightState[maxKernelBands];
    float gain, attack, release;
    float* envelope;
    float limiterCeiling, hardCeiling;
};

inline __m128 select(__m128 mask, __m128 ifTrue, __m128 ifFalse)
{
    return _mm_or_ps(_mm_and_ps(mask, ifTrue), _mm_andnot_ps(mask, ifFalse));
}

template <int K, typename IO>
void runStereoKernel(const KernelJob& job, IO io, int64_t frames) noexcept
{
    constexpr int R = (K + 1) / 2; // registers per quantity
    constexpr int lag = K > 0 ? K - 1 : 0; // steps from a frame's entry to its exit
    constexpr int R1 = R > 0 ? R : 1; // array sizes must be positive

    __m128 b0[R1], b1[R1], b2[R1], a1[R1], a2[R1], z1[R1], z2[R1], y[R1];
    auto lane = [&](int k, auto field) { return k < K ? field(k) : 0.0f; };
#pragma GCC unroll 4
    for (int j = 0; j < R; ++j) {
        const int lo = 2 * j, hi = 2 * j + 1;
        auto coefficient = [&](float BiquadEQ::Section::*member) {
            const float l = lane(lo, [&](int k) { return job.sections[k]->*member; });
            const float h = lane(hi, [&](int k) { return job.sections[k]->*member; });
            return _mm_setr_ps(l, l, h, h);
        };
        b0[j] = coefficient(&BiquadEQ::Section::b0);
        b1[j] = coefficient(&BiquadEQ::Section::b1);
        b2[j] = coefficient(&BiquadEQ::Section::b2);
        a1[j] = coefficient(&BiquadEQ::Section::a1);
        a2[j] = coefficient(&BiquadEQ::Section::a2);
        auto stateOf = [&](int i) {
            return _mm_setr_ps(lane(lo, [&](int k) { return job.leftState[k][i]; }),
                               lane(lo, [&](int k) { return job.rightState[k][i]; }),
                               lane(hi, [&](int k) { return job.leftState[k][i]; }),
                               lane(hi, [&](int k) { return job.rightState[k][i]; }));
        };
        z1[j] = stateOf(0);
        z2[j] = stateOf(1);
        y[j] = _mm_setzero_ps();
    }

    const __m128 gain = _mm_set1_ps(job.gain);
    // The envelope is carried in lanes 0 and 1 (the same value in both, see
    // below) so that the scale needs no broadcast; lanes 2 and 3 stay 0.
    const __m128 attack = _mm_set1_ps(job.attack);
    const __m128 release = _mm_set1_ps(job.release);
    // (1 - coef) is the same float whichever way it is obtained, so it is
    // computed once per block.
    const __m128 attackRest = _mm_set1_ps(1.0f - job.attack);
    const __m128 releaseRest = _mm_set1_ps(1.0f - job.release);
    const __m128 ceiling = _mm_set1_ps(job.limiterCeiling);
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 clipHigh = _mm_set1_ps(job.hardCeiling);
    const __m128 clipLow = _mm_set1_ps(-job.hardCeiling);
    const __m128 magnitudeMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    const __m128 zero = _mm_setzero_ps();
    __m128 e = _mm_setr_ps(*job.envelope, *job.envelope, 0.0f, 0.0f);

    // Both steps are inlined into the loops below: as calls, the state
    // registers would live in memory and every step would load and store them.
    auto limitAndStore = [&](int64_t n, __m128 v) __attribute__((always_inline)) {
        v = _mm_mul_ps(v, gain);
        const __m128 magnitude = _mm_and_ps(v, magnitudeMask);
        // The scalar peak: 0, then for each channel |s| > peak ? |s| : peak,
        // which is maxps(|s|, peak) (maxps returns its second operand when
        // either is NaN). Lane 0 gets max(|R|, max(|L|, 0)); lane 1 gets
        // max(|L|, max(|R|, 0)), the same value in every case, NaN included.
        const __m128 firstPeak = _mm_max_ps(magnitude, zero);
        const __m128 peak = _mm_max_ps(_mm_shuffle_ps(magnitude, magnitude, _MM_SHUFFLE(2, 3, 0, 1)), firstPeak);
        // Both candidate envelopes, then the one the comparison picks: keeps
        // the comparison off the envelope's dependency chain.
        const __m128 rising = _mm_cmplt_ps(e, peak);
        const __m128 up = _mm_add_ps(_mm_mul_ps(e, attack), _mm_mul_ps(attackRest, peak));
        const __m128 down = _mm_add_ps(_mm_mul_ps(e, release), _mm_mul_ps(releaseRest, peak));
        e = select(rising, up, down);
        // The scalar loop scales by 0.99 / e only when e > 0.99. Here every
        // frame is scaled by min(0.99 / e, 1): for e > 0.99 the quotient is at
        // most 1 (exactly 1 only if rounding made it so, and then both scale by
        // 1); otherwise it is at least 1, and a NaN envelope yields the second
        // operand, 1. Scaling by exactly 1 leaves every value (NaN, -0,
        // denormals) as it is.
        v = _mm_mul_ps(v, _mm_min_ps(_mm_div_ps(ceiling, e), one));
        // min first: a NaN sample yields the second operand, +ceiling.
        v = _mm_max_ps(_mm_min_ps(v, clipHigh), clipLow);
        io.store(n, v);
    };

    auto step = [&](int64_t t, bool edge, bool leaving) __attribute__((always_inline)) {
        // In the steady part every step has a frame to load.
        const __m128 in = !edge || t < frames ? io.load(t) : zero;
        if constexpr (K == 0) {
            limitAndStore(t, in);
        } else {
            __m128 x[R];
            x[0] = _mm_shuffle_ps(in, y[0], _MM_SHUFFLE(1, 0, 1, 0));
#pragma GCC unroll 4
            for (int j = 1; j < R; ++j)
                x[j] = _mm_shuffle_ps(y[j - 1], y[j], _MM_SHUFFLE(1, 0, 3, 2));
#pragma GCC unroll 4
            for (int j = 0; j < R; ++j) {
                const __m128 out = _mm_add_ps(z1[j], _mm_mul_ps(b0[j], x[j]));
                const __m128 nextZ1 = _mm_add_ps(z2[j], _mm_sub_ps(_mm_mul_ps(b1[j], x[j]), _mm_mul_ps(a1[j], out)));
                const __m128 nextZ2 = _mm_sub_ps(_mm_mul_ps(b2[j], x[j]), _mm_mul_ps(a2[j], out));
                if (edge) {
                    // Band k has a frame at step t only if 0 <= t - k < frames.
                    auto active = [&](int k) { return k < K && t - k >= 0 && t - k < frames ? -1 : 0; };
                    const int lo = active(2 * j), hi = active(2 * j + 1);
                    const __m128 mask = _mm_castsi128_ps(_mm_setr_epi32(lo, lo, hi, hi));
                    z1[j] = select(mask, nextZ1, z1[j]);
                    z2[j] = select(mask, nextZ2, z2[j]);
                } else {
                    z1[j] = nextZ1;
                    z2[j] = nextZ2;
                }
                y[j] = out;
            }
            if (leaving) {
                constexpr int last = (K - 1) / 2;
                const __m128 out = (K - 1) % 2 == 0 ? y[last] : _mm_movehl_ps(y[last], y[last]);
                limitAndStore(t - lag, out);
            }
        }
    };

    const int64_t steps = frames + lag;
    const int64_t steadyBegin = std::min<int64_t>(lag, frames);
    const int64_t steadyEnd = std::max<int64_t>(frames, steadyBegin);
    int64_t t = 0;
    // `leaving`: a frame leaves the last band at this step.
    for (; t < steadyBegin; ++t)
        step(t, true, t >= lag);
    for (; t < steadyEnd; ++t)
        step(t, false, true);
    for (; t < steps; ++t)
        step(t, true, t >= lag);

    *job.envelope = _mm_cvtss_f32(e);
#pragma GCC unroll 4
    for (int j = 0; j < R; ++j) {
        alignas(16) float first[4], second[4];
        _mm_store_ps(first, z1[j]);
        _mm_store_ps(second, z2[j]);
        for (int half = 0; half < 2; ++half) {
            const int k = 2 * j + half;
            if (k >= K)
                break;
            job.leftState[k][0] = first[2 * half];
            job.rightState[k][0] = first[2 * half + 1];
            job.leftState[k][1] = second[2 * half];
            job.rightState[k][1] = second[2 * half + 1];
        }
    }
}

template <typename IO>
void dispatchStereoKernel(int count, const KernelJob& job, IO io, int64_t frames) noexcept
{
    switch (count) {
    case 0: runStereoKernel<0>(job, io, frames); break;
    case 1: runStereoKernel<1>(job, io, frames); break;
    case 2: runStereoKernel<2>(job, io, frames); break;
    case 3: runStereoKernel<3>(job, io, frames); break;
    case 4: runStereoKernel<4>(job, io, frames); break;
    case 5: runStereoKernel<5>(job, io, frames); break;
    case 6: runStereoKernel<6>(job, io, frames); break;
    case 7: runStereoKernel<7>(job, io, frames); break;
    case 8: runStereoKernel<8>(job, io, frames); break;
    default: break;
    }
}

} // namespace
#endif

// Runs the stereo kernel if it applies (two filtered channels, at most
// maxKernelBands active sections); false means the caller takes the plain
// loops. Expects blockBank to be loaded.
bool BiquadEQ::processStereoFast([[maybe_unused]] float* left, [[maybe_unused]] float* right,
                                 [[maybe_unused]] int64_t stride, [[maybe_unused]] int64_t frames) noexcept
{
#if SORVA_STEREO_KERNEL
    if (channelCount < 2)
        return false;
    KernelJob job {};
    int count = 0;
    for (int64_t b = 0; b < bandCount; ++b) {
        if (blockBank[b].isIdentity())
            continue;
        if (count == maxKernelBands)
            return false;
        job.sections[count] = &blockBank[b];
        job.leftState[count] = &state[static_cast<size_t>(2 * b)];
        job.rightState[count] = &state[static_cast<size_t>(2 * (bandCount + b))];
        ++count;
    }
    const BlockGains k = loadGains();
    job.gain = k.gain;
    job.attack = k.attack;
    job.release = k.release;
    job.envelope = &limiterEnvelope;
    job.limiterCeiling = limiterCeiling;
    job.hardCeiling = hardCeiling;
    if (stride == 2 && right == left + 1)
        dispatchStereoKernel(count, job, InterleavedStereo { left }, frames);
    else
        dispatchStereoKernel(count, job, PlanarStereo { left, right }, frames);
    clearNonFinite();
    return true;
#else
    return false;
#endif
}

void BiquadEQ::processInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept
{
    if (frames <= 0)
        return;
    loadPublishedBank();
    if (channels == 2 && processStereoFast(buffer, buffer + 1, 2, frames))
        return;
    filterInterleavedScalar(buffer, frames, channels);
    limitInterleaved(buffer, frames, channels);
    clearNonFinite();
}

void BiquadEQ::processPlanar(float* left, float* right, int64_t frames) noexcept
{
    if (frames <= 0)
        return;
    loadPublishedBank();
    if (processStereoFast(left, right, 1, frames))
        return;
    planarScalar(left, right, frames);
}

} // namespace sorva
