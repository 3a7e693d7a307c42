#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <random>
#include <thread>

using namespace sorva;

namespace {

constexpr double rate = 48000.0;
constexpr float inf = std::numeric_limits<float>::infinity(), qnan = std::numeric_limits<float>::quiet_NaN();

std::vector<EQBand> bandsWithGains(const std::vector<double>& gains,
                                   std::vector<double> frequencies = { 30, 125, 500, 2000, 8000 })
{
    std::vector<EQBand> bands;
    for (size_t i = 0; i < gains.size(); ++i)
        bands.emplace_back("band", i < frequencies.size() ? frequencies[i] : 1000.0 * double(i + 1), gains[i]);
    return bands;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

// Runs an interleaved buffer through one of the four entry points (0: interleaved,
// 1: interleaved scalar, 2: planar, 3: planar scalar; planar needs two channels)
// and returns the number of allocations the filter made.
uint64_t process(BiquadEQ& eq, int kind, std::vector<float>& buffer, int64_t channels)
{
    const int64_t frames = int64_t(buffer.size()) / channels;
    if (kind < 2)
        return test::allocationsDuring([&] {
            kind == 0 ? eq.processInterleaved(buffer.data(), frames, channels)
                      : eq.processInterleavedScalar(buffer.data(), frames, channels);
        });
    std::vector<float> l(static_cast<size_t>(frames)), r(static_cast<size_t>(frames));
    for (int64_t n = 0; n < frames; ++n)
        l[size_t(n)] = buffer[size_t(2 * n)], r[size_t(n)] = buffer[size_t(2 * n + 1)];
    const uint64_t allocations = test::allocationsDuring([&] {
        kind == 2 ? eq.processPlanar(l.data(), r.data(), frames) : eq.processPlanarScalar(l.data(), r.data(), frames);
    });
    for (int64_t n = 0; n < frames; ++n)
        buffer[size_t(2 * n)] = l[size_t(n)], buffer[size_t(2 * n + 1)] = r[size_t(n)];
    return allocations;
}

// The RBJ peaking response in dB: analog prototype (s^2 + s A/Q + 1) /
// (s^2 + s/(A Q) + 1) through the bilinear transform prewarped at f0.
double analyticPeakingDB(double f, double f0, double gainDB)
{
    const double A = std::pow(10.0, gainDB / 40.0), Q = 1.4;
    const double w = std::tan(std::numbers::pi * f / rate) / std::tan(std::numbers::pi * f0 / rate);
    const double re = 1.0 - w * w;
    return 10.0 * std::log10((re * re + std::pow(w * A / Q, 2)) / (re * re + std::pow(w / (A * Q), 2)));
}

// Level in dB (relative to `reference`) of the sine of frequency f in the last
// `length` samples: least-squares fit of a sin + b cos.
double sineLevelDB(const std::vector<float>& x, double f, size_t length, double reference)
{
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
    for (size_t i = x.size() - length; i < x.size(); ++i) {
        const double phase = 2.0 * std::numbers::pi * f * double(i) / rate;
        const double s = std::sin(phase), c = std::cos(phase), y = x[i];
        ss += s * s, cc += c * c, sc += s * c, ys += y * s, yc += y * c;
    }
    const double det = ss * cc - sc * sc;
    return 20.0 * std::log10(std::hypot((ys * cc - yc * sc) / det, (yc * ss - ys * sc) / det) / reference);
}

} // namespace

TEST(BiquadEQ, MagnitudeResponseMatchesTheAnalyticPeakingFilter)
{
    // Each band alone, boosted and cut, at 0.5 … 2 times its centre after one
    // second of settling. Tolerance: float coefficients make 1 + a1 + a2 (order
    // w0^2) err as 1/f0^2, a few hundredths of a dB at 30 Hz.
    const double frequencies[] = { 30, 125, 500, 2000, 8000, 30000 };
    for (size_t band = 0; band < 6; ++band)
        for (double gain : { 9.0, -6.0 })
            for (double ratio : { 0.5, 0.8, 1.0, 1.25, 2.0 }) {
                std::vector<double> gains(6, 0.0);
                gains[band] = gain;
                const double centre = std::min(frequencies[band], 0.45 * rate); // higher bands sit at 0.45 fs
                const double f = std::min(centre * ratio, 0.49 * rate);
                BiquadEQ eq(6, 2);
                eq.update(bandsWithGains(gains, { frequencies, frequencies + 6 }), 0.0, rate);
                const size_t measured = 9600, length = size_t(rate) + measured;
                std::vector<float> left(length), right(length);
                for (size_t i = 0; i < length; ++i)
                    left[i] = right[i] = float(0.1 * std::sin(2.0 * std::numbers::pi * f * double(i) / rate));
                eq.processPlanar(left.data(), right.data(), int64_t(length));
                const double expected = analyticPeakingDB(f, centre, gain) + (gain > 0 ? -0.12 * gain : 0.0);
                EXPECT_NEAR(sineLevelDB(left, f, measured, 0.1), expected, 0.04 * std::pow(30.0 / centre, 2) + 2e-4)
                    << "band " << frequencies[band] << " Hz, gain " << gain << " dB, at " << f << " Hz";
            }
}

// The stereo kernel and the planar loop against the plain interleaved loop, on
// seeded noise in random block sizes (mostly around the kernel's fill and
// drain length), with a coefficient change half way.
TEST(BiquadEQ, EveryEntryPointMatchesThePlainInterleavedLoopBitForBit)
{
    struct Case {
        int64_t bandCount, channelCount, bufferChannels;
        std::vector<double> gains, laterGains;
        float amplitude;
        bool specials = false; // infinities, NaN, -0, denormals, huge values: only their own block is spoiled
    };
    const std::vector<Case> cases = {
        { 5, 2, 2, { 6, -3, 4, -2, 5 }, { 12, 0, -8, 3, 0 }, 0.5f }, // the live case, then two flat bands
        { 5, 2, 2, { 20, 2, -12, -2, 2 }, { 0, 0, 0, 0, 0 }, 1.5f }, // limiter busy, then flat
        { 8, 2, 2, { 0, 3, 0, 0, -3, 0, 0, 0 }, { 1, 2, 3, 4, 5, 6, 7, 8 }, 0.4f }, // two, then eight bands
        { 8, 2, 2, { 1, 2, 3, 0, 5, 6, 7, 0 }, { 0, 2, 3, 4, 5, 6, 7, 8 }, 0.4f }, // six, then seven
        { 9, 2, 2, { 1, 1, 1, 1, 1, 1, 1, 1, 1 }, { 2, -2, 2, -2, 2, -2, 2, -2, 0 }, 0.4f }, // too many for the kernel
        { 5, 1, 2, { 6, -3, 4, -2, 5 }, { 3, 3, 3, 3, 3 }, 0.5f }, // mono filter, stereo buffer
        { 5, 2, 2, { 6, -3, 4, -2, 5 }, { 12, 0, -8, 3, 0 }, 0.5f, true },
    };
    const float specialValues[] = { inf, -inf, qnan, -0.0f, 1e-40f, -3e38f };
    std::mt19937 random(20261122);
    for (size_t index = 0; index < cases.size(); ++index) {
        const Case& c = cases[index];
        for (int kind : { 0, 2, 3 }) {
            BiquadEQ eq(c.bandCount, c.channelCount), reference(c.bandCount, c.channelCount);
            std::uniform_int_distribution<int> blockSize(0, 700);
            std::uniform_real_distribution<float> noise(-c.amplitude, c.amplitude);
            for (int block = 0; block < 60; ++block) {
                if (block % 30 == 0) // new coefficients continue from the old state
                    for (BiquadEQ* e : { &eq, &reference })
                        e->update(bandsWithGains(block ? c.laterGains : c.gains), block ? -2.0 : 1.5, rate);
                const int64_t frames = block % 3 == 0 ? blockSize(random) % 12 : blockSize(random);
                std::vector<float> actual(size_t(frames * c.bufferChannels));
                for (float& v : actual)
                    v = noise(random);
                if (c.specials && block % 4 == 1 && !actual.empty())
                    for (int i = 0; i < 3; ++i)
                        actual[random() % actual.size()] = specialValues[random() % 6];
                std::vector<float> expected = actual;
                process(reference, 1, expected, c.bufferChannels);
                ASSERT_EQ(process(eq, kind, actual, c.bufferChannels), 0u) << "the audio thread never allocates";
                ASSERT_TRUE(sameBits(expected, actual)) << "case " << index << " kind " << kind << " block " << block;
                ASSERT_EQ(std::bit_cast<uint32_t>(eq.envelope()), std::bit_cast<uint32_t>(reference.envelope()));
                for (float v : actual)
                    ASSERT_LE(std::fabs(v), 0.995f) << "never above the clip, never NaN";
            }
        }
    }
    // More channels than the filter has: the extra channel is only limited.
    BiquadEQ three(5, 2);
    three.update(bandsWithGains({ 6, -3, 4, -2, 5 }), 0.0, rate);
    std::vector<float> block = { 0.0f, 0.0f, 0.25f, 0.1f, 0.1f, 0.5f };
    process(three, 0, block, 3);
    EXPECT_EQ(block[2], 0.25f * three.currentMakeupGain());
    EXPECT_EQ(block[5], 0.5f * three.currentMakeupGain());
}

TEST(BiquadEQ, LimiterEdgeCasesInEveryEntryPoint)
{
    for (int kind = 0; kind < 4; ++kind) {
        SCOPED_TRACE(kind);
        // Before the first update attack and release are 0: the envelope is each frame's peak.
        BiquadEQ fresh(5, 2);
        std::vector<float> block = { 2.0f, -1.0f, 0.25f, 0.0f };
        process(fresh, kind, block, 2);
        EXPECT_EQ(block, (std::vector<float> { 0.99f, -0.495f, 0.25f, 0.0f }));
        EXPECT_EQ(fresh.envelope(), 0.25f);

        // NaN comes out as +0.995 and does not poison the envelope.
        BiquadEQ flat(5, 2);
        flat.update(bandsWithGains({ 0, 0, 0, 0, 0 }), 0.0, rate);
        block = { qnan, 0.5f, 0.5f, qnan, 0.5f, -0.5f };
        process(flat, kind, block, 2);
        EXPECT_EQ(block, (std::vector<float> { 0.995f, 0.5f, 0.5f, 0.995f, 0.5f, -0.5f }));
        EXPECT_GT(flat.envelope(), 0.0f); // false for NaN

        // Zero frames change nothing.
        const float envelope = flat.envelope();
        std::vector<float> none;
        process(flat, kind, none, 2);
        EXPECT_EQ(flat.envelope(), envelope);

        // One-pole time constants: 15 ms to rise 1 - 1/e of a step, 150 ms to fall to 1/e.
        flat.reset();
        std::vector<float> loud(2 * 720, 2.0f), quiet(2 * 7200, 0.0f);
        process(flat, kind, loud, 2);
        EXPECT_NEAR(flat.envelope(), 2.0 * (1.0 - std::exp(-1.0)), 1e-3);
        process(flat, kind, quiet, 2);
        EXPECT_NEAR(flat.envelope(), 2.0 * (1.0 - std::exp(-1.0)) * std::exp(-1.0), 1e-3);
    }
}

TEST(BiquadEQ, GainStageFlatBandsAndMakeupGain)
{
    BiquadEQ eq(5, 2);
    eq.update(bandsWithGains({ 0, 0, 0, 0, 0 }), -6.0, rate);
    for (int64_t b = 0; b < 5; ++b)
        EXPECT_TRUE(eq.section(eq.publishedBank(), b).isIdentity());
    std::vector<float> block(2 * 64, 0.5f);
    process(eq, 0, block, 2);
    EXPECT_NEAR(block.back(), 0.5 * std::pow(10.0, -6.0 / 20.0), 1e-6) << "output gain in amplitude dB";

    // Makeup follows the largest boost among the counted bands; cuts never raise the level.
    const std::pair<std::vector<double>, double> makeup[] = { { { -3, 12, 4, -20, 0 }, -1.44 },
                                                              { { -3, -1, 0, -20, 0 }, 0.0 },
                                                              { { 1, 1, 1, 1, 1, 24 }, -0.12 }, // sixth ignored
                                                              { {}, 0.0 } };
    for (const auto& [gains, dB] : makeup) {
        eq.update(bandsWithGains(gains), 0.0, rate);
        EXPECT_NEAR(eq.currentMakeupGain(), std::pow(10.0, dB / 20.0), 1e-6) << dB;
    }
    // Fewer bands than sections: the rest stay identity.
    eq.update(bandsWithGains({ 3, 3 }), 0.0, rate);
    EXPECT_FALSE(eq.section(eq.publishedBank(), 1).isIdentity());
    EXPECT_TRUE(eq.section(eq.publishedBank(), 2).isIdentity());
}

TEST(BiquadEQ, UpdatesRacingTheAudioThreadNeverMixTwoBanks)
{
    // Same largest boost, so the same makeup gain: every impulse from a
    // cleared state must come out as one configuration's response, never a blend.
    const auto configA = bandsWithGains({ 6, -3, 4, -2, 5 }), configB = bandsWithGains({ 6, 3, -4, 2, -5 });
    BiquadEQ a(5, 2), b(5, 2), eq(5, 2);
    a.update(configA, 0.0, rate);
    b.update(configB, 0.0, rate);
    eq.update(configA, 0.0, rate);
    std::vector<float> expectedA(256, 0.0f), expectedB(256, 0.0f);
    expectedA[0] = expectedA[1] = expectedB[0] = expectedB[1] = 0.1f;
    process(a, 1, expectedA, 2);
    process(b, 1, expectedB, 2);
    ASSERT_FALSE(sameBits(expectedA, expectedB));
    std::atomic<bool> done { false };
    std::atomic<int> blocks { 0 }, mixed { 0 }, allocations { 0 };
    std::thread audio([&] {
        std::vector<float> block(256), l(128), r(128);
        for (int i = 0; !done.load() || i < 200; ++i) {
            std::fill(block.begin(), block.end(), 0.0f);
            block[0] = block[1] = 0.1f;
            allocations += int(test::allocationsDuring([&] {
                eq.reset();
                i % 2 ? eq.processInterleaved(block.data(), 128, 2) : eq.processInterleavedScalar(block.data(), 128, 2);
            }));
            mixed += !sameBits(block, expectedA) && !sameBits(block, expectedB);
            ++blocks;
        }
    });
    for (int i = 0; i < 2000; ++i)
        eq.update(i % 2 ? configA : configB, 0.0, rate);
    done.store(true);
    audio.join();
    EXPECT_GE(blocks.load(), 200);
    EXPECT_EQ(mixed.load(), 0);
    EXPECT_EQ(allocations.load(), 0);
}
