#include "Audio/SpectrumAnalyzer.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

using namespace sorva;

namespace {

constexpr int N = 1024;

std::vector<float> sineOnBin(double bin, double amplitude)
{
    std::vector<float> samples(N);
    for (int n = 0; n < N; ++n)
        samples[size_t(n)] = float(amplitude * std::sin(2.0 * std::numbers::pi * bin * n / N));
    return samples;
}

// Bar level of a plain-transform peak of this height: twice it / 256 in dB,
// -50 … +10 dB mapped onto 0 … 1.
double barLevel(double peak)
{
    return std::clamp((20.0 * std::log10(std::max(2.0 * peak / 256.0, 1e-7)) + 50.0) / 60.0, 0.0, 1.0);
}

// A bin-centred sine peaks at amplitude × Σw / 2; Σw of the normalised Hann window is √(2/3) N.
double sineLevel(double amplitude) { return barLevel(amplitude * std::sqrt(2.0 / 3.0) * N / 2.0); }

} // namespace

TEST(SpectrumAnalyzer, BinCentredSineLightsBand11RisingQuicklyAndFallingSlowly)
{
    SpectrumAnalyzer loud;
    // Full scale reads about +10.3 dB, clamped to 1; the bar rises 60 % of the way per call.
    const std::vector<float> full = sineOnBin(100, 1.0);
    loud.push(full.data(), N, 1);
    for (float expected : { 0.6f, 0.84f, 0.936f })
        EXPECT_NEAR(loud.levels()[11], expected, 1e-6);
    SpectrumAnalyzer::Levels levels {};
    for (int call = 0; call < 40; ++call)
        levels = loud.levels();
    for (size_t band = 0; band < 16; ++band)
        EXPECT_FLOAT_EQ(levels[band], band == 11 ? 1.0f : 0.0f) << "band " << band;
    // Silence reads level 0: every bar keeps 82 % per call.
    float expected = 1.0f;
    const std::vector<float> silence(N, 0.0f);
    loud.push(silence.data(), N, 1);
    for (int call = 0; call < 5; ++call)
        EXPECT_NEAR(loud.levels()[11], expected *= 0.82f, 1e-6) << "call " << call;
}

TEST(SpectrumAnalyzer, MixesChannelsToMonoAndAllocatesNothing)
{
    const std::vector<float> sine = sineOnBin(100, 0.1);
    std::vector<float> leftOnly(2 * N, 0.0f), three(3 * N), inverted(N);
    for (size_t n = 0; n < N; ++n) {
        leftOnly[2 * n] = three[3 * n] = three[3 * n + 1] = three[3 * n + 2] = sine[n];
        inverted[n] = -sine[n];
    }
    SpectrumAnalyzer interleaved, threeChannels, planar;
    EXPECT_EQ(test::allocationsDuring([&] {
                  interleaved.push(leftOnly.data(), N, 2); // half the left channel
                  threeChannels.push(three.data(), N, 3);
                  planar.pushPlanar(sine.data(), sine.data(), N);
              }),
              0u);
    SpectrumAnalyzer::Levels levels {};
    EXPECT_EQ(test::allocationsDuring([&] { levels = interleaved.levels(); }), 0u);
    EXPECT_NEAR(levels[11], 0.6 * sineLevel(0.05), 1e-4);
    EXPECT_NEAR(threeChannels.levels()[11], 0.6 * sineLevel(0.1), 1e-4);
    EXPECT_NEAR(planar.levels()[11], 0.6 * sineLevel(0.1), 1e-4);
    planar.pushPlanar(sine.data(), inverted.data(), N); // cancels
    EXPECT_NEAR(planar.levels()[11], 0.6 * sineLevel(0.1) * 0.82, 1e-4);
}
