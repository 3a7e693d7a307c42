#include "Audio/SpectrumAnalyzer.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <numbers>

namespace sorva {

namespace {

// FFTW's planner and plan destruction share global state and are not
// thread-safe; every analyzer in the process plans under this one mutex.
std::mutex& planningMutex()
{
    static std::mutex mutex;
    return mutex;
}

constexpr int64_t ringSize = 1024;
constexpr int64_t binCount = ringSize / 2;

// The bars map -50 … +10 dB onto 0 … 1.
constexpr double floorDecibels = -50.0;
constexpr double rangeDecibels = 60.0;
constexpr float minimumMagnitude = 1e-7f;
constexpr float riseFactor = 0.6f;
constexpr float fallFactor = 0.18f;

} // namespace

SpectrumAnalyzer::SpectrumAnalyzer()
    : ring(ringSize, 0.0f)
    , window(ringSize)
    , real(binCount, 0.0f)
    , imaginary(binCount, 0.0f)
    , magnitudes(binCount, 0.0f)
{
    // Normalised Hann window: √(2/3) × (1 − cos(2πn/N)), whose mean square is
    // 1, so windowing keeps a broadband signal's power.
    const double scale = std::sqrt(2.0 / 3.0);
    for (int64_t n = 0; n < ringSize; ++n)
        window[static_cast<size_t>(n)] = static_cast<float>(
            scale * (1.0 - std::cos(2.0 * std::numbers::pi * static_cast<double>(n) / static_cast<double>(ringSize))));

    samples = static_cast<float*>(fftwf_malloc(sizeof(float) * ringSize));
    spectrum = static_cast<float*>(fftwf_malloc(sizeof(fftwf_complex) * (binCount + 1)));
    std::fill_n(samples, ringSize, 0.0f);
    std::fill_n(spectrum, 2 * (binCount + 1), 0.0f);

    std::lock_guard guard(planningMutex());
    setup = fftwf_plan_dft_r2c_1d(static_cast<int>(ringSize), samples, reinterpret_cast<fftwf_complex*>(spectrum),
                                  FFTW_ESTIMATE);
}

SpectrumAnalyzer::~SpectrumAnalyzer()
{
    {
        std::lock_guard guard(planningMutex());
        if (setup)
            fftwf_destroy_plan(setup);
    }
    fftwf_free(spectrum);
    fftwf_free(samples);
}

void SpectrumAnalyzer::push(const float* interleaved, int64_t frames, int64_t channels) noexcept
{
    if (!interleaved || frames < 1 || channels < 1 || !isActive())
        return;
    const float divisor = static_cast<float>(channels);
    std::lock_guard guard(lock);
    if (!isActive())
        return;
    // In runs up to the ring's end (only the last ringSize frames survive).
    for (int64_t frame = 0; frame < frames;) {
        const int64_t run = std::min(frames - frame, ringSize - writeIndex);
        float* slot = ring.data() + writeIndex;
        for (int64_t i = 0; i < run; ++i) {
            const float* first = interleaved + (frame + i) * channels;
            float sum = 0.0f;
            for (int64_t channel = 0; channel < channels; ++channel)
                sum += first[channel];
            slot[i] = sum / divisor;
        }
        frame += run;
        writeIndex = (writeIndex + run) % ringSize;
    }
}

void SpectrumAnalyzer::pushPlanar(const float* left, const float* right, int64_t frames) noexcept
{
    if (!left || !right || frames < 1 || !isActive())
        return;
    std::lock_guard guard(lock);
    if (!isActive())
        return;
    for (int64_t frame = 0; frame < frames;) {
        const int64_t run = std::min(frames - frame, ringSize - writeIndex);
        float* slot = ring.data() + writeIndex;
        for (int64_t i = 0; i < run; ++i)
            slot[i] = (left[frame + i] + right[frame + i]) * 0.5f;
        frame += run;
        writeIndex = (writeIndex + run) % ringSize;
    }
}

void SpectrumAnalyzer::setActive(bool on) noexcept
{
    if (on == isActive())
        return;
    std::lock_guard guard(lock);
    active.store(on, std::memory_order_relaxed);
    if (!on) {
        std::fill(ring.begin(), ring.end(), 0.0f);
        writeIndex = 0;
        smoothed.fill(0.0f);
    }
}

int64_t SpectrumAnalyzer::bandLowBin(int64_t band) noexcept
{
    const double edge = std::floor(std::pow(511.0, static_cast<double>(band) / 16.0));
    return std::max(static_cast<int64_t>(edge), int64_t { 1 });
}

int64_t SpectrumAnalyzer::bandHighBin(int64_t band) noexcept
{
    const double edge = std::floor(std::pow(511.0, static_cast<double>(band + 1) / 16.0));
    return std::max(bandLowBin(band) + 1, std::min(static_cast<int64_t>(edge), binCount));
}

SpectrumAnalyzer::Levels SpectrumAnalyzer::levels() noexcept
{
    {
        std::lock_guard guard(lock);
        const auto oldest = static_cast<size_t>(writeIndex);
        std::copy(ring.begin() + static_cast<ptrdiff_t>(oldest), ring.end(), samples);
        std::copy(ring.begin(), ring.begin() + static_cast<ptrdiff_t>(oldest), samples + (ringSize - writeIndex));
    }

    for (int64_t n = 0; n < ringSize; ++n)
        samples[n] *= window[static_cast<size_t>(n)];

    if (!setup)
        return smoothed;
    fftwf_execute(setup);

    // Rearrange into the packed layout the bar mapping was designed for:
    // element 0 holds DC (real) and Nyquist (imaginary), elements 1 … 511 the
    // bins, every value twice the plain transform.
    real[0] = 2.0f * spectrum[0];
    imaginary[0] = 2.0f * spectrum[2 * binCount];
    for (int64_t k = 1; k < binCount; ++k) {
        real[static_cast<size_t>(k)] = 2.0f * spectrum[2 * k];
        imaginary[static_cast<size_t>(k)] = 2.0f * spectrum[2 * k + 1];
    }

    // A full-scale sine centred on a bin reads about +10 dB after this scale.
    constexpr float magnitudeScale = 1.0f / 256.0f;
    for (size_t k = 0; k < static_cast<size_t>(binCount); ++k)
        magnitudes[k] = std::sqrt(real[k] * real[k] + imaginary[k] * imaginary[k]) * magnitudeScale;

    for (int64_t band = 0; band < bandCount; ++band) {
        const int64_t lo = bandLowBin(band);
        const int64_t hi = bandHighBin(band);
        const float peak = *std::max_element(magnitudes.begin() + lo, magnitudes.begin() + hi);
        const float decibels = 20.0f * std::log10(std::max(peak, minimumMagnitude));
        double level = (static_cast<double>(decibels) - floorDecibels) / rangeDecibels;
        if (level <= 0.0)
            level = 0.0;
        else if (level > 1.0)
            level = 1.0;
        const auto target = static_cast<float>(level);
        float& bar = smoothed[static_cast<size_t>(band)];
        const float factor = target > bar ? riseFactor : fallFactor;
        bar += (target - bar) * factor;
    }
    return smoothed;
}

} // namespace sorva
