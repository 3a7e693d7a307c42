#include "Audio/SpectrumAnalyzer.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>
#include <vector>

using namespace sorva;

namespace {

constexpr int N = 1024;

std::vector<float> sineOnBin(double bin, double amplitude, int length = N)
{
    std::vector<float> samples(static_cast<size_t>(length));
    for (int n = 0; n < length; ++n)
        samples[static_cast<size_t>(n)] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * bin * n / N));
    return samples;
}

void pushMono(SpectrumAnalyzer& analyzer, const std::vector<float>& samples)
{
    analyzer.push(samples.data(), static_cast<int64_t>(samples.size()), 1);
}

// The bar level of a sine of this amplitude centred on a bin, from first
// principles: a bin-centred sine's plain transform peak is amplitude × Σw / 2,
// Σw of the normalised Hann window is √(2/3) × N, the bar scale is twice the
// transform / 256, and -50 … +10 dB map onto 0 … 1.
double expectedSineLevel(double amplitude)
{
    const double peak = 2.0 * amplitude * std::sqrt(2.0 / 3.0) * N / 2.0 / 256.0;
    const double decibels = 20.0 * std::log10(peak);
    return std::clamp((decibels + 50.0) / 60.0, 0.0, 1.0);
}

} // namespace

TEST(SpectrumAnalyzer, BinCentredSineLightsOnlyBand11AtItsDecibelLevel)
{
    // Full scale reads about +10.3 dB and is clamped to the top of the bar.
    SpectrumAnalyzer loud;
    pushMono(loud, sineOnBin(100, 1.0));
    SpectrumAnalyzer::Levels levels {};
    for (int call = 0; call < 40; ++call)
        levels = loud.levels();
    for (int band = 0; band < 16; ++band)
        EXPECT_FLOAT_EQ(levels[static_cast<size_t>(band)], band == 11 ? 1.0f : 0.0f) << "band " << band;

    // A tenth of full scale reads about -9.7 dB: level ≈ 0.671.
    SpectrumAnalyzer quiet;
    pushMono(quiet, sineOnBin(100, 0.1));
    const double target = expectedSineLevel(0.1);
    EXPECT_NEAR(target, 0.671, 0.001);
    EXPECT_NEAR(quiet.levels()[11], 0.6 * target, 1e-4); // first call rises 60 % of the way
    for (int call = 0; call < 40; ++call)
        levels = quiet.levels();
    EXPECT_NEAR(levels[11], target, 1e-4);
    EXPECT_EQ(levels[10], 0.0f);
    EXPECT_EQ(levels[12], 0.0f);
}

TEST(SpectrumAnalyzer, BarsRiseQuicklyAndFallSlowly)
{
    SpectrumAnalyzer analyzer;
    pushMono(analyzer, sineOnBin(100, 1.0));
    EXPECT_NEAR(analyzer.levels()[11], 0.6f, 1e-6);
    EXPECT_NEAR(analyzer.levels()[11], 0.84f, 1e-6);
    EXPECT_NEAR(analyzer.levels()[11], 0.936f, 1e-6);
    for (int call = 0; call < 40; ++call)
        analyzer.levels();

    // Silence reads -140 dB, level 0: every bar keeps 82 % per call.
    pushMono(analyzer, std::vector<float>(N, 0.0f));
    float expected = 1.0f;
    for (int call = 0; call < 5; ++call) {
        expected *= 0.82f; // 0.82, 0.6724, 0.5514, …
        const auto levels = analyzer.levels();
        EXPECT_NEAR(levels[11], expected, 1e-6) << "call " << call;
        EXPECT_EQ(levels[3], 0.0f);
    }
}

TEST(SpectrumAnalyzer, BandsCoverTheLogarithmicBinRanges)
{
    const std::pair<int, int> table[16] = { { 1, 1 },    { 1, 1 },    { 2, 2 },     { 3, 3 },
                                            { 4, 6 },    { 7, 9 },    { 10, 14 },   { 15, 21 },
                                            { 22, 32 },  { 33, 48 },  { 49, 71 },   { 72, 106 },
                                            { 107, 157 }, { 158, 233 }, { 234, 345 }, { 346, 510 } };
    for (int band = 0; band < 16; ++band) {
        EXPECT_EQ(SpectrumAnalyzer::bandLowBin(band), table[band].first) << "band " << band;
        EXPECT_EQ(SpectrumAnalyzer::bandHighBin(band), table[band].second + 1) << "band " << band;
    }

    // Through the whole analysis: a sine just above -50 dB on one bin lights
    // exactly the bands whose range holds that bin (its neighbours, 6 dB
    // lower, stay below the floor). Bin 511 belongs to no band.
    const double amplitude = std::pow(10.0, (-47.0 - 20.0 * std::log10(2.0 * std::sqrt(2.0 / 3.0) * N / 2.0 / 256.0)) / 20.0);
    for (int bin : { 1, 2, 3, 4, 6, 7, 9, 10, 14, 15, 21, 22, 32, 33, 48, 49, 71, 72, 106, 107, 157, 158, 233, 234,
                     345, 346, 400, 510, 511 }) {
        SpectrumAnalyzer analyzer;
        pushMono(analyzer, sineOnBin(bin, amplitude));
        const auto levels = analyzer.levels();
        for (int band = 0; band < 16; ++band) {
            const bool inBand = bin >= table[band].first && bin <= table[band].second;
            if (inBand)
                EXPECT_NEAR(levels[static_cast<size_t>(band)], 0.6 * 3.0 / 60.0, 1e-3) << "bin " << bin << " band " << band;
            else
                EXPECT_EQ(levels[static_cast<size_t>(band)], 0.0f) << "bin " << bin << " band " << band;
        }
    }
}

TEST(SpectrumAnalyzer, AnalysesTheNewest1024SamplesOldestFirst)
{
    // An impulse has a flat spectrum whose height is the window's value at
    // the impulse's place in the analysed block, so every bar tells where the
    // block starts and in which order it was read.
    const auto windowAt = [](int n) { return std::sqrt(2.0 / 3.0) * (1.0 - std::cos(2.0 * std::numbers::pi * n / N)); };
    const auto impulseLevel = [](double height) {
        return std::clamp((20.0 * std::log10(std::max(2.0 * height / 256.0, 1e-7)) + 50.0) / 60.0, 0.0, 1.0);
    };

    for (int position : { -1, 0, 200, 512 }) {
        // 1324 samples in blocks of 97: the oldest 300 fall out of the ring.
        std::vector<float> stream(N + 300, 0.0f);
        stream[static_cast<size_t>(300 + position)] = 1.0f;
        SpectrumAnalyzer analyzer;
        for (size_t start = 0; start < stream.size(); start += 97)
            analyzer.push(stream.data() + start, static_cast<int64_t>(std::min<size_t>(97, stream.size() - start)), 1);
        const double expected = position < 0 ? 0.0 : 0.6 * impulseLevel(windowAt(position));
        const auto levels = analyzer.levels();
        for (int band = 0; band < 16; ++band)
            EXPECT_NEAR(levels[static_cast<size_t>(band)], expected, 1e-5) << "position " << position << " band " << band;
    }
    EXPECT_GT(0.6 * impulseLevel(windowAt(200)), 0.02); // the positions give distinct bars
}

TEST(SpectrumAnalyzer, MixesChannelsToMono)
{
    const std::vector<float> sine = sineOnBin(100, 0.1);
    std::vector<float> leftOnly(2 * N, 0.0f);
    std::vector<float> threeChannels(3 * N, 0.0f);
    std::vector<float> inverted(N);
    for (int n = 0; n < N; ++n) {
        leftOnly[static_cast<size_t>(2 * n)] = sine[static_cast<size_t>(n)];
        for (int c = 0; c < 3; ++c)
            threeChannels[static_cast<size_t>(3 * n + c)] = sine[static_cast<size_t>(n)];
        inverted[static_cast<size_t>(n)] = -sine[static_cast<size_t>(n)];
    }

    SpectrumAnalyzer interleaved;
    interleaved.push(leftOnly.data(), N, 2); // mono = half the left channel
    EXPECT_NEAR(interleaved.levels()[11], 0.6 * expectedSineLevel(0.05), 1e-4);

    SpectrumAnalyzer three;
    three.push(threeChannels.data(), N, 3);
    EXPECT_NEAR(three.levels()[11], 0.6 * expectedSineLevel(0.1), 1e-4);

    SpectrumAnalyzer planar;
    planar.pushPlanar(sine.data(), sine.data(), N);
    EXPECT_NEAR(planar.levels()[11], 0.6 * expectedSineLevel(0.1), 1e-4);
    planar.pushPlanar(sine.data(), inverted.data(), N); // cancels
    EXPECT_NEAR(planar.levels()[11], 0.6 * expectedSineLevel(0.1) * 0.82, 1e-4);
}

TEST(SpectrumAnalyzer, PushAndLevelsAllocateNothing)
{
    SpectrumAnalyzer analyzer;
    const std::vector<float> stereo(2 * 4096, 0.25f);
    SpectrumAnalyzer::Levels levels {};
    EXPECT_EQ(test::allocationsDuring([&] {
                  analyzer.push(stereo.data(), 4096, 2);
                  analyzer.pushPlanar(stereo.data(), stereo.data() + 4096, 4096);
                  levels = analyzer.levels();
              }),
              0u);
    EXPECT_GT(levels[0], 0.0f); // the constant reached the lowest bars through leakage of DC
}
