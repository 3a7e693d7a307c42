// SpectrumAnalyzer: sixteen bar heights (0 … 1) of the processed output for
// the panel's spectrum display.
//
// It is fed only while something shows its levels (setActive): while the
// panel's spectrum is hidden, which is most of the time, pushes return at
// once and the render path pays nothing for it.
//
// Threading: push()/pushPlanar() run on the audio thread and take `lock` only
// to append to the 1024-sample ring (no allocation). levels() runs on the main
// thread; it takes `lock` only to copy the ring, and everything else it touches
// (window, transform, work buffers, `smoothed`) belongs to the main thread
// alone, so levels() must never run on two threads at once. The transform plan
// is made once, in the constructor.
#pragma once

#include "Platform/HotPath.h"
#include "Platform/UnfairLock.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

struct fftwf_plan_s;

namespace sorva {

class SpectrumAnalyzer {
public:
    static constexpr int64_t bandCount = 16;
    using Levels = std::array<float, bandCount>;

    SpectrumAnalyzer();
    ~SpectrumAnalyzer();
    SpectrumAnalyzer(const SpectrumAnalyzer&) = delete;
    SpectrumAnalyzer& operator=(const SpectrumAnalyzer&) = delete;

    // Appends the mono mix (mean of the channels) of `frames` interleaved
    // frames. Audio thread.
    SORVA_HOT void push(const float* samples, int64_t frames, int64_t channels) noexcept;
    // Appends (left + right) × 0.5 of `frames` planar frames. Audio thread.
    SORVA_HOT void pushPlanar(const float* left, const float* right, int64_t frames) noexcept;

    // The smoothed bar heights, lowest band first, each 0 … 1. Main thread.
    Levels levels() noexcept;

    // Whether pushes are kept (initially not). Switching off forgets the
    // history and the smoothing, so that switching on again never shows the
    // sound of back then. Main thread.
    void setActive(bool active) noexcept;
    bool isActive() const noexcept { return active.load(std::memory_order_relaxed); }

    // First and one-past-last transform bin read by band b (b = 0 … 15).
    static int64_t bandLowBin(int64_t band) noexcept;
    static int64_t bandHighBin(int64_t band) noexcept;

    const int64_t fftSize = 1024;
    const uint64_t log2n = 10;

private:
    fftwf_plan_s* setup = nullptr;
    std::vector<float> ring;
    int64_t writeIndex = 0;
    // Read without the lock first (the audio thread's fast way out), and
    // again under it, so that no push lands after setActive(false) cleared
    // the ring.
    std::atomic<bool> active { false };
    UnfairLock lock;
    std::vector<float> window;
    float* samples = nullptr;  // transform input, aligned for FFTW
    float* spectrum = nullptr; // transform output: 513 interleaved complex values
    std::vector<float> real;
    std::vector<float> imaginary;
    std::vector<float> magnitudes;
    Levels smoothed {};
};

} // namespace sorva
