// The equalizer core: one peaking biquad per band (transposed direct form II,
// 32-bit floats), then the gain stage (makeup gain x output gain) and a peak
// limiter with a hard clip at 0.995.
//
// Threads: update() runs on the main thread (calls never overlap); the process
// operations and reset() run on the audio thread (reset also before the IO
// callback is installed). The audio thread never waits: update() writes the
// inactive coefficient bank and publishes it by storing activeBank last; each
// block copies the published bank once at its start. update() itself waits
// (for the few nanoseconds of that copy) rather than overwrite a bank the
// audio thread is copying, so a block never mixes two configurations. The
// process operations allocate nothing and make no system calls.
//
// Stereo (interleaved with two channels, or planar) with up to eight
// non-flat bands runs in a kernel that keeps both channels in one SSE
// register and overlaps the bands in time; every band does exactly the
// scalar arithmetic, so its output is bit-identical to the plain loops
// (processInterleavedScalar / processPlanarScalar), which handle every other
// case and are kept callable so tests and benchmarks can compare the two.
#pragma once

#include "Models/EQBand.h"
#include "Platform/HotPath.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace sorva {

class BiquadEQ {
public:
    struct Section {
        float b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
        // Identity sections are skipped at run time (their state is left as is).
        bool isIdentity() const { return b0 == 1.0f && b1 == 0.0f && b2 == 0.0f; }
    };

    BiquadEQ(int64_t bandCount, int64_t channels);
    BiquadEQ(const BiquadEQ&) = delete;
    BiquadEQ& operator=(const BiquadEQ&) = delete;

    // Main thread. sampleRate must be positive.
    void update(const std::vector<EQBand>& bands, double outputGainDB, double sampleRate);

    // Audio thread: filters in place, then the gain stage and limiter.
    SORVA_HOT void processInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept;
    SORVA_HOT void processPlanar(float* left, float* right, int64_t frames) noexcept;

    // The same operations always through the plain per-band loops, in the
    // order the filter is defined by. Same contract as above.
    void processInterleavedScalar(float* buffer, int64_t frames, int64_t channels) noexcept;
    void processPlanarScalar(float* left, float* right, int64_t frames) noexcept;

    // Infinite or NaN input: the block that carries it is processed as usual
    // (a NaN sample comes out as +0.995), then any filter memory or envelope
    // left non-finite is cleared so that the next block plays normally.

    // Clears the filter memory and the limiter envelope; coefficients, gains
    // and the bank index stay.
    SORVA_HOT void reset() noexcept;

    // Read-only views for tests and diagnostics.
    int64_t bands() const { return bandCount; }
    int64_t channels() const { return channelCount; }
    Section section(int64_t bank, int64_t band) const;
    int64_t publishedBank() const { return activeBank.load(std::memory_order_acquire); }
    float currentMakeupGain() const { return makeupGain.load(std::memory_order_relaxed); }
    float currentOutputGain() const { return outputGain.load(std::memory_order_relaxed); }
    float currentLimiterAttack() const { return limiterAttack.load(std::memory_order_relaxed); }
    float currentLimiterRelease() const { return limiterRelease.load(std::memory_order_relaxed); }
    // Audio thread (or when it is not running).
    float envelope() const { return limiterEnvelope; }

private:
    // One coefficient word, readable by the audio thread while the main thread
    // writes the other bank. Relaxed: the activeBank publication orders the
    // bank's contents.
    struct AtomicSection {
        std::atomic<float> b0 { 1 }, b1 { 0 }, b2 { 0 }, a1 { 0 }, a2 { 0 };
    };

    struct BlockGains {
        float gain; // makeupGain x outputGain
        float attack;
        float release;
    };

    // Copies the published bank into blockBank (audio thread).
    SORVA_HOT void loadPublishedBank() noexcept;
    SORVA_HOT BlockGains loadGains() const noexcept;
    SORVA_HOT bool processStereoFast(float* left, float* right, int64_t stride, int64_t frames) noexcept;
    void filterInterleavedScalar(float* buffer, int64_t frames, int64_t channels) noexcept;
    SORVA_HOT void clearNonFinite() noexcept;
    void planarScalar(float* left, float* right, int64_t frames) noexcept;
    void limitInterleaved(float* buffer, int64_t frames, int64_t channels) noexcept;
    void filterChannel(float* samples, int64_t frames, int64_t stride, float* channelState) noexcept;

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

    // The bank the audio thread is copying right now, or -1.
    std::atomic<int64_t> bankInUse { -1 };
    // The current block's coefficients (audio thread only), bandCount sections.
    std::unique_ptr<Section[]> blockBank;
};

} // namespace sorva
