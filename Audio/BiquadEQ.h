// The equalizer core: one peaking biquad per band (transposed direct form II,
// 32-bit floats), then the gain stage (makeup gain x output gain) and a peak
// limiter with a hard clip at 0.995.
//
// Threads: update() runs on the main thread (calls never overlap); the process
// operations and reset() run on the audio thread (reset also before the IO
// callback is installed). Nothing is locked: update() writes the inactive
// coefficient bank and publishes it by storing activeBank last (release); the
// audio thread reads activeBank once per block (acquire). The process
// operations allocate nothing and make no system calls.
#pragma once

#include "Models/EQBand.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace sorva {

class BiquadEQ {
public:
    struct Section {
        float b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
        bool isIdentity() const { return b0 == 1.0f && b1 == 0.0f && b2 == 0.0f; }
    };

    BiquadEQ(int64_t bandCount, int64_t channels);
    BiquadEQ(const BiquadEQ&) = delete;
    BiquadEQ& operator=(const BiquadEQ&) = delete;

    // Main thread. sampleRate must be positive.
    void update(const std::vector<EQBand>& bands, double outputGainDB, double sampleRate);

    // Audio thread: filters in place, then the gain stage and limiter.
    void processInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept;
    void processPlanar(float* left, float* right, int64_t frames) noexcept;

    // Clears the filter memory and the limiter envelope; coefficients, gains
    // and the bank index stay.
    void reset() noexcept;

    // Read-only views for tests and diagnostics.
    int64_t bands() const { return bandCount; }
    int64_t channels() const { return channelCount; }
    Section section(int64_t bank, int64_t band) const;
    int64_t publishedBank() const { return activeBank.load(std::memory_order_acquire); }
    float currentMakeupGain() const { return makeupGain.load(std::memory_order_relaxed); }
    float currentOutputGain() const { return outputGain.load(std::memory_order_relaxed); }
    float currentLimiterAttack() const { return limiterAttack.load(std::memory_order_relaxed); }
    float currentLimiterRelease() const { return limiterRelease.load(std::memory_order_relaxed); }
    float envelope() const { return limiterEnvelope; }

private:
    // One coefficient word, readable by the audio thread while the main thread
    // writes the other bank. Relaxed: the activeBank release/acquire pair orders
    // the bank's contents.
    struct AtomicSection {
        std::atomic<float> b0 { 1 }, b1 { 0 }, b2 { 0 }, a1 { 0 }, a2 { 0 };
    };

    void limitInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept;
    void filterChannel(float* samples, int64_t frames, int64_t stride, const AtomicSection* bank,
                       float* channelState) noexcept;

    const int64_t bandCount;
    const int64_t channelCount;
    std::unique_ptr<AtomicSection[]> coefficients; // 2 x bandCount: bank k, band b at k*bandCount+b
    std::atomic<int64_t> activeBank { 0 };
    std::unique_ptr<float[]> state; // (z1, z2) pairs: channel c, band b at pair c*bandCount+b
    std::atomic<float> makeupGain { 1.0f };
    std::atomic<float> outputGain { 1.0f };
    float limiterEnvelope = 0.0f;
    std::atomic<float> limiterAttack { 0.0f };
    std::atomic<float> limiterRelease { 0.0f };
    static constexpr float limiterCeiling = 0.99f;
    static constexpr float hardCeiling = 0.995f;
};

} // namespace sorva
