#include "Audio/BiquadEQ.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace sorva {

BiquadEQ::BiquadEQ(int64_t bandCount, int64_t channels)
    : bandCount(std::max<int64_t>(bandCount, 0))
    , channelCount(std::max<int64_t>(channels, 0))
    , coefficients(new AtomicSection[static_cast<size_t>(2 * this->bandCount)])
    , state(new float[static_cast<size_t>(2 * this->channelCount * this->bandCount)]())
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

    int64_t target = 1 - activeBank.load(std::memory_order_relaxed);
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
    // that boost in dB.
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

    activeBank.store(target, std::memory_order_release);
}

void BiquadEQ::reset() noexcept
{
    limiterEnvelope = 0.0f;
    std::fill(state.get(), state.get() + 2 * channelCount * bandCount, 0.0f);
}

void BiquadEQ::filterChannel(float* samples, int64_t frames, int64_t stride, const AtomicSection* bank,
                             float* channelState) noexcept
{
    for (int64_t b = 0; b < bandCount; ++b) {
        const float b0 = bank[b].b0.load(std::memory_order_relaxed);
        const float b1 = bank[b].b1.load(std::memory_order_relaxed);
        const float b2 = bank[b].b2.load(std::memory_order_relaxed);
        if (b0 == 1.0f && b1 == 0.0f && b2 == 0.0f)
            continue;
        const float a1 = bank[b].a1.load(std::memory_order_relaxed);
        const float a2 = bank[b].a2.load(std::memory_order_relaxed);
        float z1 = channelState[2 * b];
        float z2 = channelState[2 * b + 1];
        float* x = samples;
        for (int64_t n = 0; n < frames; ++n, x += stride) {
            const float in = *x;
            const float y = z1 + b0 * in;
            z1 = z2 + (b1 * in - a1 * y);
            z2 = b2 * in - a2 * y;
            *x = y;
        }
        channelState[2 * b] = z1;
        channelState[2 * b + 1] = z2;
    }
}

void BiquadEQ::processInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept
{
    if (frames <= 0)
        return;
    const AtomicSection* bank = &coefficients[static_cast<size_t>(activeBank.load(std::memory_order_acquire) * bandCount)];
    const int64_t filtered = std::min(channelCount, channels);
    for (int64_t c = 0; c < filtered; ++c)
        filterChannel(buffer + c, frames, channels, bank, &state[static_cast<size_t>(2 * c * bandCount)]);
    limitInterleaved(buffer, frames, channels);
}

void BiquadEQ::limitInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept
{
    const float g = makeupGain.load(std::memory_order_relaxed) * outputGain.load(std::memory_order_relaxed);
    const float attack = limiterAttack.load(std::memory_order_relaxed);
    const float release = limiterRelease.load(std::memory_order_relaxed);
    float e = limiterEnvelope;
    for (int64_t n = 0; n < frames; ++n) {
        float* frame = buffer + n * channels;
        float peak = 0.0f;
        for (int64_t c = 0; c < channels; ++c) {
            frame[c] *= g;
            peak = std::max(peak, std::abs(frame[c]));
        }
        const float coef = e < peak ? attack : release;
        e = e * coef + (1.0f - coef) * peak;
        if (e > limiterCeiling) {
            const float scale = limiterCeiling / e;
            for (int64_t c = 0; c < channels; ++c)
                frame[c] *= scale;
        }
        for (int64_t c = 0; c < channels; ++c) {
            const float v = frame[c];
            // A NaN compares false both ways and becomes +hardCeiling.
            frame[c] = v >= -hardCeiling ? (v <= hardCeiling ? v : hardCeiling) : (v < -hardCeiling ? -hardCeiling : hardCeiling);
        }
    }
    limiterEnvelope = e;
}

void BiquadEQ::processPlanar(float* left, float* right, int64_t frames) noexcept
{
    if (frames <= 0)
        return;
    const AtomicSection* bank = &coefficients[static_cast<size_t>(activeBank.load(std::memory_order_acquire) * bandCount)];
    if (channelCount >= 1)
        filterChannel(left, frames, 1, bank, &state[0]);
    if (channelCount >= 2)
        filterChannel(right, frames, 1, bank, &state[static_cast<size_t>(2 * bandCount)]);

    const float g = makeupGain.load(std::memory_order_relaxed) * outputGain.load(std::memory_order_relaxed);
    const float attack = limiterAttack.load(std::memory_order_relaxed);
    const float release = limiterRelease.load(std::memory_order_relaxed);
    float e = limiterEnvelope;
    for (int64_t n = 0; n < frames; ++n) {
        float l = left[n] * g;
        float r = right[n] * g;
        const float peak = std::max(std::abs(l), std::abs(r));
        const float coef = e < peak ? attack : release;
        e = e * coef + (1.0f - coef) * peak;
        if (e > limiterCeiling) {
            const float scale = limiterCeiling / e;
            l *= scale;
            r *= scale;
        }
        left[n] = l >= -hardCeiling ? (l <= hardCeiling ? l : hardCeiling) : (l < -hardCeiling ? -hardCeiling : hardCeiling);
        right[n] = r >= -hardCeiling ? (r <= hardCeiling ? r : hardCeiling) : (r < -hardCeiling ? -hardCeiling : hardCeiling);
    }
    limiterEnvelope = e;
}

} // namespace sorva
