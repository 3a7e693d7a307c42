#include "Platform/Simulated/MusicGenerator.h"

#include <cmath>

namespace sorva {

namespace {

constexpr double twoPi = 6.283185307179586;
constexpr double beatsPerSecond = 2.0; // 120 BPM

// Am - F - C - G, one chord per bar of four beats; MIDI note numbers.
constexpr int chords[4][3] = { { 57, 60, 64 }, { 53, 57, 60 }, { 48, 52, 55 }, { 55, 59, 62 } };
constexpr int bassRoots[4] = { 33, 29, 36, 31 };

double noteFrequency(int note) { return 440.0 * std::pow(2.0, (note - 69) / 12.0); }

// A band-limited-enough saw: the first four harmonics.
double softSaw(double phase)
{
    double value = 0.0;
    for (int harmonic = 1; harmonic <= 4; ++harmonic)
        value += std::sin(twoPi * harmonic * phase) / harmonic;
    return value * 0.55;
}

} // namespace

MusicGenerator::MusicGenerator(double rate)
    : sampleRate(rate > 0.0 ? rate : 48000.0)
{
    for (size_t i = 0; i < sawTable.size(); ++i)
        sawTable[i] = static_cast<float>(softSaw(static_cast<double>(i) / static_cast<double>(sawTable.size())));
    for (int bar = 0; bar < 4; ++bar) {
        for (int voice = 0; voice < 3; ++voice)
            chordFrequencies[bar][voice] = noteFrequency(chords[bar][voice]);
        bassFrequencies[bar] = noteFrequency(bassRoots[bar]);
    }
}

double MusicGenerator::sawAt(double cycles) const noexcept
{
    const double phase = (cycles - std::floor(cycles)) * static_cast<double>(sawTable.size());
    const auto index = static_cast<size_t>(phase);
    const double fraction = phase - static_cast<double>(index);
    const double a = sawTable[index % sawTable.size()];
    const double b = sawTable[(index + 1) % sawTable.size()];
    return a + (b - a) * fraction;
}

void MusicGenerator::render(float* interleaved, int64_t frames) noexcept
{
    for (int64_t i = 0; i < frames; ++i, ++framePosition) {
        const double t = static_cast<double>(framePosition) / sampleRate;
        const double beats = t * beatsPerSecond;
        const int bar = static_cast<int>(beats / 4.0) % 4;
        const double beatPhase = beats - std::floor(beats); // 0 … 1 within the beat
        const double secondsIntoBeat = beatPhase / beatsPerSecond;

        // Pad: three detuned voices, slow swell at each bar.
        double pad = 0.0;
        for (int voice = 0; voice < 3; ++voice) {
            const double f = chordFrequencies[bar][voice];
            pad += sawAt(t * f * 1.002) + sawAt(t * f * 0.998);
        }
        const double barPhase = beats / 4.0 - std::floor(beats / 4.0);
        pad *= 0.035 * (0.6 + 0.4 * std::sin(twoPi * barPhase * 0.5));

        // Bass: root note, plucked on every beat.
        const double bassFrequency = bassFrequencies[bar];
        const double bass = 0.22 * std::sin(twoPi * std::fmod(t * bassFrequency, 1.0)) * std::exp(-3.0 * secondsIntoBeat);

        // Kick: a falling sine at the start of each beat.
        const double kickFrequency = 50.0 + 90.0 * std::exp(-30.0 * secondsIntoBeat);
        const double kick = 0.35 * std::sin(twoPi * kickFrequency * secondsIntoBeat) * std::exp(-9.0 * secondsIntoBeat);

        // Hi-hat: short noise bursts on the off-beats.
        noiseState = noiseState * 1664525u + 1013904223u;
        const double noise = static_cast<double>(noiseState >> 8) / 8388608.0 - 1.0;
        const double offBeat = beatPhase >= 0.5 ? (beatPhase - 0.5) / beatsPerSecond : 1.0;
        const double hat = 0.08 * noise * std::exp(-60.0 * offBeat);

        const double left = pad * 1.1 + bass + kick + hat * 0.7;
        const double right = pad * 0.9 + bass + kick + hat * 1.3;
        interleaved[2 * i] = static_cast<float>(left);
        interleaved[2 * i + 1] = static_cast<float>(right);
    }
}

} // namespace sorva
