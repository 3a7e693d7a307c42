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

} // namespace

TEST(SpectrumAnalyzer, BinCentredSineLightsBand11RisingQuicklyAndFallingSlowly)
{
    SpectrumAnalyzer loud;
    loud.setActive(true);
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

// Stereo is mixed to mono by averaging: compared with a mono analyzer on the same mix.
TEST(SpectrumAnalyzer, MixesChannelsToMonoAndAllocatesNothing)
{
    const std::vector<float> sine = sineOnBin(100, 0.1), half = sineOnBin(100, 0.05);
    std::vector<float> leftOnly(2 * N, 0.0f), inverted(N);
    for (size_t n = 0; n < N; ++n) {
        leftOnly[2 * n] = sine[n];
        inverted[n] = -sine[n];
    }
    SpectrumAnalyzer mono, interleaved, planar, cancelled;
    for (SpectrumAnalyzer* analyzer : { &mono, &interleaved, &planar, &cancelled })
        analyzer->setActive(true);
    mono.push(half.data(), N, 1);
    SpectrumAnalyzer::Levels levels[3] {};
    EXPECT_EQ(test::allocationsDuring([&] {
                  interleaved.push(leftOnly.data(), N, 2);
                  planar.pushPlanar(half.data(), half.data(), N);
                  cancelled.pushPlanar(sine.data(), inverted.data(), N);
                  levels[0] = interleaved.levels(), levels[1] = planar.levels(), levels[2] = cancelled.levels();
              }),
              0u);
    const auto expected = mono.levels();
    EXPECT_GT(expected[11], 0.3f);
    EXPECT_EQ(levels[0], expected);
    EXPECT_EQ(levels[1], expected);
    EXPECT_EQ(levels[2], SpectrumAnalyzer::Levels {});
}

// Nothing is kept while no display is active, and switching off forgets the
// history and the bars at once: on again, it never shows the old sound.
TEST(SpectrumAnalyzer, KeepsNothingWhileInactiveAndForgetsEverythingWhenSwitchedOff)
{
    const std::vector<float> full = sineOnBin(100, 1.0);
    SpectrumAnalyzer analyzer;
    analyzer.push(full.data(), N, 1);
    analyzer.pushPlanar(full.data(), full.data(), N);
    EXPECT_EQ(analyzer.levels(), SpectrumAnalyzer::Levels {}) << "inactive from the start";
    analyzer.setActive(true);
    analyzer.pushPlanar(full.data(), full.data(), N);
    EXPECT_NEAR(analyzer.levels()[11], 0.6f, 1e-6);
    analyzer.setActive(false);
    EXPECT_EQ(analyzer.levels(), SpectrumAnalyzer::Levels {});
    analyzer.push(full.data(), N, 1);
    analyzer.setActive(true);
    EXPECT_EQ(analyzer.levels(), SpectrumAnalyzer::Levels {});
}
