#include "Audio/StereoRingBuffer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>

namespace sorva {

namespace {

// How strongly the buffered amount's distance from the target pulls the rate,
// and how far the rate moves towards its target on each read. Both are small
// so that the correction is a slow pitch change nobody hears.
constexpr double errorGain = 0.05;
constexpr double rateSmoothing = 0.05;

// Each read needs two frames beyond the request for the interpolation.
constexpr int64_t lookAheadSamples = 4;

int64_t positiveModulo(int64_t value, int64_t modulus)
{
    return ((value % modulus) + modulus) % modulus;
}

} // namespace

StereoRingBuffer::StereoRingBuffer(int64_t capacityFrames, int64_t primeFrames, int64_t maxReadFrames)
    : capacity(capacityFrames * 2)
    , scratchCapacity(maxReadFrames * 2)
    , primeSamples(primeFrames * 2)
{
    if (capacityFrames < 1 || primeFrames < 0 || maxReadFrames < 0)
        throw std::invalid_argument("StereoRingBuffer needs capacityFrames >= 1, primeFrames >= 0 and "
                                    "maxReadFrames >= 0 (got "
                                    + std::to_string(capacityFrames) + ", " + std::to_string(primeFrames) + ", "
                                    + std::to_string(maxReadFrames) + ")");
    storage.assign(static_cast<size_t>(capacity), 0.0f);
}

void StereoRingBuffer::write(const float* samples, int64_t count) noexcept
{
    if (!samples || count < 1 || count > capacity)
        return;

    float blockPeak = 0.0f;
    for (int64_t i = 0; i < count; ++i)
        blockPeak = std::max(blockPeak, std::fabs(samples[i]));

    std::lock_guard guard(lock);
    const int64_t firstPart = std::min(count, capacity - writeIndex);
    std::memcpy(storage.data() + writeIndex, samples, static_cast<size_t>(firstPart) * sizeof(float));
    if (firstPart < count)
        std::memcpy(storage.data(), samples + firstPart, static_cast<size_t>(count - firstPart) * sizeof(float));
    writeIndex = (writeIndex + count) % capacity;

    const int64_t total = available + count;
    if (total > capacity)
        readIndex = (readIndex + total - capacity) % capacity; // the oldest audio was overwritten
    available = std::min(total, capacity);

    peak = std::max(peak, blockPeak);
    framesWritten += count / 2;
}

void StereoRingBuffer::read(float* left, float* right, int64_t frames) noexcept
{
    if (frames < 1 || !left || !right)
        return;
    const auto silence = [&] {
        std::fill_n(left, frames, 0.0f);
        std::fill_n(right, frames, 0.0f);
    };
    if (2 * frames > scratchCapacity) {
        silence();
        return;
    }

    int64_t ramp = 0;
    const bool audible = [&] {
        std::lock_guard guard(lock);

        if (!primed) {
            if (available < primeSamples)
                return false;
            primed = true;
            rampRemaining = rampFrames;
            readRate = 1.0;
            readFraction = 0.0;
        }

        if (available < 2 * frames + lookAheadSamples) {
            primed = false;
            ++underruns;
            return false; // the buffer primes again before it plays
        }

        if (available > 3 * primeSamples || available > capacity - capacity / 8) {
            readIndex = positiveModulo(writeIndex - primeSamples, capacity);
            readFraction = 0.0;
            available = primeSamples;
            readRate = 1.0;
            rampRemaining = rampFrames;
            ++resyncs;
        }

        const int64_t targetFrames = primeSamples / 2;
        const int64_t availableFrames = available / 2;
        const double error = static_cast<double>(availableFrames - targetFrames)
            / static_cast<double>(std::max<int64_t>(targetFrames, 1)) * errorGain;
        const double targetRate = std::clamp(1.0 + error, 1.0 - maxRateDeviation, 1.0 + maxRateDeviation);
        readRate += (targetRate - readRate) * rateSmoothing;

        const int64_t ringFrames = capacity / 2;
        const float* ringSamples = storage.data();
        double position = static_cast<double>(readIndex / 2) + readFraction;
        for (int64_t i = 0; i < frames; ++i) {
            const double whole = std::floor(position);
            const auto k = static_cast<int64_t>(whole);
            const auto x = static_cast<float>(position - whole);
            const int64_t j0 = k % ringFrames;
            const int64_t j1 = (k + 1) % ringFrames;
            const float l0 = ringSamples[2 * j0];
            const float r0 = ringSamples[2 * j0 + 1];
            left[i] = l0 + (ringSamples[2 * j1] - l0) * x;
            right[i] = r0 + (ringSamples[2 * j1 + 1] - r0) * x;
            position += readRate;
        }

        const double whole = std::floor(position);
        const int64_t consumed = static_cast<int64_t>(whole) - readIndex / 2;
        readIndex = ((readIndex / 2 + consumed) % ringFrames) * 2;
        readFraction = position - whole;
        available = std::max<int64_t>(available - 2 * consumed, 0);
        framesRead += frames;

        ramp = rampRemaining;
        rampRemaining = std::max<int64_t>(ramp - frames, 0);
        return true;
    }();
    if (!audible) {
        silence();
        return;
    }

    // The fade-in continues across reads: gain rises by 1/480 per frame from
    // wherever the previous read left it.
    if (ramp >= 1) {
        const int64_t count = std::min(ramp, frames);
        const float step = 1.0f / static_cast<float>(rampFrames);
        const float start = static_cast<float>(rampFrames - ramp) / static_cast<float>(rampFrames);
        for (int64_t i = 0; i < count; ++i) {
            const float gain = start + static_cast<float>(i) * step;
            left[i] *= gain;
            right[i] *= gain;
        }
    }
}

StereoRingBuffer::Snapshot StereoRingBuffer::snapshot() noexcept
{
    std::lock_guard guard(lock);
    Snapshot result { framesWritten, framesRead, available / 2, peak, underruns + resyncs };
    peak = 0.0f;
    underruns = 0;
    resyncs = 0;
    return result;
}

} // namespace sorva
