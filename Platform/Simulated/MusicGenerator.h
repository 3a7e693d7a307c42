// A deterministic, music-like stereo signal for demos of the simulated audio
// system: a four-chord progression of soft saw-ish pads, a bass line, a kick
// on every beat and a hi-hat on the off-beats, at 120 beats per minute, peaking
// around -6 dBFS. Enough spectral movement for the spectrum display and enough
// level for the statistics; no randomness, so runs are repeatable.
//
// Threads: one owner; render() allocates nothing (safe on an IO thread).
#pragma once

#include <array>
#include <cstdint>

namespace sorva {

class MusicGenerator {
public:
    explicit MusicGenerator(double sampleRate);

    // Writes frames interleaved stereo frames and advances.
    void render(float* interleaved, int64_t frames) noexcept;

    int64_t position() const { return framePosition; }

private:
    // One cycle of the pad's waveform, looked up instead of summing harmonics.
    double sawAt(double cycles) const noexcept;

    double sampleRate;
    int64_t framePosition = 0;
    uint32_t noiseState = 0x9E3779B9u;
    double chordFrequencies[4][3] {};
    double bassFrequencies[4] {};
    std::array<float, 2048> sawTable {};
};

} // namespace sorva
