#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <numbers>
#include <random>
#include <thread>

using namespace sorva;

namespace {

constexpr double rate = 48000.0;

std::vector<EQBand> bandsWithGains(const std::vector<double>& gains,
                                   std::vector<double> frequencies = { 30, 125, 500, 2000, 8000 })
{
    std::vector<EQBand> bands;
    for (size_t i = 0; i < gains.size(); ++i)
        bands.emplace_back("band", i < frequencies.size() ? frequencies[i] : 1000.0 * double(i + 1), gains[i]);
    return bands;
}

// An independent plain implementation of the filter's run-time order: the
// published bank's sections, cascaded channel by channel and band by band
// over the whole block (identity sections skipped), then gain, envelope,
// scaling and clip frame by frame.
struct ReferenceEQ {
    int64_t bandCount, channelCount;
    std::vector<BiquadEQ::Section> bank;
    std::vector<float> z; // (z1, z2) per channel and band
    float envelope = 0, gain = 1, attack = 0, release = 0;

    ReferenceEQ(int64_t bands, int64_t channels)
        : bandCount(bands), channelCount(channels), bank(size_t(bands)), z(size_t(2 * bands * channels), 0.0f)
    {
    }

    void follow(const BiquadEQ& eq)
    {
        for (int64_t b = 0; b < bandCount; ++b)
            bank[size_t(b)] = eq.section(eq.publishedBank(), b);
        gain = eq.currentMakeupGain() * eq.currentOutputGain();
        attack = eq.currentLimiterAttack();
        release = eq.currentLimiterRelease();
    }

    void filter(float* x, int64_t frames, int64_t stride, int64_t channel)
    {
        for (int64_t b = 0; b < bandCount; ++b) {
            const BiquadEQ::Section& s = bank[size_t(b)];
            if (s.b0 == 1.0f && s.b1 == 0.0f && s.b2 == 0.0f)
                continue;
            float& z1 = z[size_t(2 * (channel * bandCount + b))];
            float& z2 = z[size_t(2 * (channel * bandCount + b) + 1)];
            for (int64_t n = 0; n < frames; ++n) {
                float in = x[n * stride];
                float y = z1 + s.b0 * in;
                z1 = z2 + (s.b1 * in - s.a1 * y);
                z2 = s.b2 * in - s.a2 * y;
                x[n * stride] = y;
            }
        }
    }

    void limitFrame(float* const* samples, int64_t count)
    {
        float peak = 0;
        for (int64_t c = 0; c < count; ++c) {
            *samples[c] *= gain;
            if (!std::isnan(*samples[c]))
                peak = std::max(peak, std::fabs(*samples[c]));
        }
        float coef = envelope < peak ? attack : release;
        envelope = envelope * coef + (1.0f - coef) * peak;
        if (envelope > 0.99f)
            for (int64_t c = 0; c < count; ++c)
                *samples[c] *= 0.99f / envelope;
        for (int64_t c = 0; c < count; ++c) {
            float v = *samples[c];
            *samples[c] = std::isnan(v) ? 0.995f : std::min(std::max(v, -0.995f), 0.995f);
        }
    }

    // Whatever infinity or NaN left in the memory is gone by the next block.
    void recover()
    {
        for (size_t i = 0; i < z.size(); i += 2)
            if (!std::isfinite(z[i]) || !std::isfinite(z[i + 1]))
                z[i] = z[i + 1] = 0;
        if (!std::isfinite(envelope))
            envelope = 0;
    }

    void processInterleaved(float* buffer, int64_t frames, int64_t channels)
    {
        for (int64_t c = 0; c < std::min(channels, channelCount); ++c)
            filter(buffer + c, frames, channels, c);
        std::vector<float*> frame(static_cast<size_t>(channels));
        for (int64_t n = 0; n < frames; ++n) {
            for (int64_t c = 0; c < channels; ++c)
                frame[size_t(c)] = &buffer[n * channels + c];
            limitFrame(frame.data(), channels);
        }
        recover();
    }

    void processPlanar(float* left, float* right, int64_t frames)
    {
        if (channelCount >= 1)
            filter(left, frames, 1, 0);
        if (channelCount >= 2)
            filter(right, frames, 1, 1);
        for (int64_t n = 0; n < frames; ++n) {
            float* frame[2] = { &left[n], &right[n] };
            limitFrame(frame, 2);
        }
        recover();
    }
};

bool sameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

size_t firstDifference(const std::vector<float>& a, const std::vector<float>& b)
{
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (std::bit_cast<uint32_t>(a[i]) != std::bit_cast<uint32_t>(b[i]))
            return i;
    return a.size();
}

// The RBJ peaking response from its analog prototype (s^2 + s A/Q + 1) /
// (s^2 + s/(A Q) + 1), mapped by the bilinear transform prewarped at the
// centre: s = j tan(w/2) / tan(w0/2). In dB, double precision.
double analyticPeakingDB(double f, double f0, double gainDB, double fs)
{
    const double A = std::pow(10.0, gainDB / 40.0), Q = 1.4;
    const double omega = std::tan(std::numbers::pi * f / fs) / std::tan(std::numbers::pi * f0 / fs);
    const double real = 1.0 - omega * omega;
    const double numerator = real * real + std::pow(omega * A / Q, 2);
    const double denominator = real * real + std::pow(omega / (A * Q), 2);
    return 10.0 * std::log10(numerator / denominator);
}

// Level of a sine of frequency f over the last `length` samples of x, in dB
// relative to amplitude `reference`: a least-squares fit of a sin + b cos,
// exact for a pure sine whatever the window (even close to Nyquist).
double sineLevelDB(const std::vector<float>& x, double f, size_t length, double reference)
{
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
    for (size_t i = x.size() - length; i < x.size(); ++i) {
        const double phase = 2.0 * std::numbers::pi * f * double(i) / rate;
        const double s = std::sin(phase), c = std::cos(phase), y = x[i];
        ss += s * s, cc += c * c, sc += s * c, ys += y * s, yc += y * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
    return 20.0 * std::log10(std::hypot(a, b) / reference);
}

} // namespace

TEST(BiquadEQ, MagnitudeResponseMatchesTheAnalyticPeakingFilter)
{
    // Each band alone, boosted and cut, measured with steady sines at the
    // centre and at 0.5, 0.8, 1.25 and 2 times it, after one second of
    // settling. The tolerance is the rounding of the coefficients to 32-bit
    // floats: near z = 1 the response hangs on 1 + a1 + a2, which is of order
    // w0^2 (1.5e-5 at 30 Hz) while a1 itself is rounded to about 1.2e-7, so
    // the error grows as 1/f0^2, a few hundredths of a dB at 30 Hz. Float
    // processing noise and the fit add less than 1e-4 dB.
    const double frequencies[] = { 30, 125, 500, 2000, 8000, 30000 };
    for (size_t band = 0; band < 6; ++band) {
        for (double gain : { 9.0, -6.0 }) {
            std::vector<double> gains(6, 0.0);
            gains[band] = gain;
            for (double ratio : { 0.5, 0.8, 1.0, 1.25, 2.0 }) {
                // The last band sits above 0.45 fs and is filtered as if at 0.45 fs.
                const double centre = std::min(frequencies[band], 0.45 * rate);
                const double f = std::min(centre * ratio, 0.49 * rate);
                BiquadEQ eq(6, 2);
                eq.update(bandsWithGains(gains, { frequencies, frequencies + 6 }), 0.0, rate);
                const size_t measured = 9600, length = size_t(rate) + measured;
                std::vector<float> left(length), right(length);
                for (size_t i = 0; i < length; ++i)
                    left[i] = right[i] = float(0.1 * std::sin(2.0 * std::numbers::pi * f * double(i) / rate));
                eq.processPlanar(left.data(), right.data(), int64_t(length));
                const double makeupDB = gain > 0 ? -0.12 * gain : 0.0;
                const double expected = analyticPeakingDB(f, centre, gain, rate) + makeupDB;
                const double tolerance = 0.04 * std::pow(30.0 / centre, 2) + 2e-4;
                EXPECT_NEAR(sineLevelDB(left, f, measured, 0.1), expected, tolerance)
                    << "band " << frequencies[band] << " Hz, gain " << gain << " dB, at " << f << " Hz";
                EXPECT_TRUE(sameBits(left, right));
            }
        }
    }
}

TEST(BiquadEQ, MatchesThePlainReferenceBitForBitInEveryLayoutAndBlockSize)
{
    struct Case {
        int64_t bandCount, channelCount, bufferChannels;
        std::vector<double> gains, laterGains;
        float amplitude;
        bool specials = false; // infinities, NaN, -0, denormals, huge values
    };
    const std::vector<Case> cases = {
        { 5, 2, 2, { 6, -3, 4, -2, 5 }, { 12, 0, -8, 3, 0 }, 0.5f }, // the live case, then two flat bands
        { 5, 2, 2, { 20, 2, -12, -2, 2 }, { 0, 0, 0, 0, 0 }, 1.5f }, // limiter busy, then flat
        { 5, 2, 2, { 0, 0, 3, 0, 0 }, { 1, 2, 3, 4, 5 }, 0.3f },
        { 8, 2, 2, { 1, -2, 3, -4, 5, -6, 7, -8 }, { 8, 7, 6, 5, 4, 3, 2, 1 }, 0.4f },
        { 8, 2, 2, { 0, 3, 0, 0, -3, 0, 0, 0 }, { 2, 0, 2, 0, 2, 0, 2, 0 }, 0.4f }, // two, then four bands
        { 8, 2, 2, { 1, 2, 3, 0, 5, 6, 7, 0 }, { 0, 2, 3, 4, 5, 6, 7, 8 }, 0.4f }, // six, then seven
        { 9, 2, 2, { 1, 1, 1, 1, 1, 1, 1, 1, 1 }, { 2, -2, 2, -2, 2, -2, 2, -2, 0 }, 0.4f }, // too many for the kernel
        { 5, 1, 2, { 6, -3, 4, -2, 5 }, { 3, 3, 3, 3, 3 }, 0.5f }, // mono filter, stereo buffer
        { 5, 2, 3, { 6, -3, 4, -2, 5 }, { -6, 3, -4, 2, -5 }, 0.7f }, // an extra unfiltered channel
        { 5, 2, 1, { 6, -3, 4, -2, 5 }, { -6, 3, -4, 2, -5 }, 0.7f },
        { 5, 2, 2, { 6, -3, 4, -2, 5 }, { 12, 0, -8, 3, 0 }, 0.5f, true },
        { 5, 2, 3, { 6, -3, 4, -2, 5 }, { 12, 0, -8, 3, 0 }, 0.5f, true },
    };
    const float specialValues[] = { std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                                    std::numeric_limits<float>::quiet_NaN(), -0.0f, 1e-40f, -3e38f };
    std::mt19937 random(20261122);
    for (size_t index = 0; index < cases.size(); ++index) {
        const Case& c = cases[index];
        for (int kind = 0; kind < 4; ++kind) { // interleaved fast/scalar, planar fast/scalar
            const bool planar = kind >= 2, scalar = kind % 2 == 1;
            if (planar && c.bufferChannels != 2)
                continue;
            BiquadEQ eq(c.bandCount, c.channelCount);
            ReferenceEQ reference(c.bandCount, c.channelCount);
            std::uniform_int_distribution<int> blockSize(0, 700);
            std::uniform_real_distribution<float> noise(-c.amplitude, c.amplitude);
            eq.update(bandsWithGains(c.gains), 1.5, rate);
            reference.follow(eq);
            for (int block = 0; block < 60; ++block) {
                if (block == 30) { // new coefficients continue from the old state
                    eq.update(bandsWithGains(c.laterGains), -2.0, rate);
                    reference.follow(eq);
                }
                // Mostly short blocks around the kernel's fill and drain length.
                const int64_t frames = block % 3 == 0 ? blockSize(random) % 12 : blockSize(random);
                const int64_t channels = planar ? 2 : c.bufferChannels;
                std::vector<float> input(size_t(frames * channels));
                for (float& v : input)
                    v = noise(random);
                if (c.specials && block % 4 == 1 && !input.empty())
                    for (int i = 0; i < 3; ++i)
                        input[random() % input.size()] = specialValues[random() % 6];
                std::vector<float> expected = input, actual = input;
                if (planar) {
                    std::vector<float> l(static_cast<size_t>(frames)), r(static_cast<size_t>(frames));
                    for (int64_t n = 0; n < frames; ++n) {
                        l[size_t(n)] = input[size_t(2 * n)];
                        r[size_t(n)] = input[size_t(2 * n + 1)];
                    }
                    std::vector<float> refL = l, refR = r;
                    reference.processPlanar(refL.data(), refR.data(), frames);
                    if (scalar)
                        eq.processPlanarScalar(l.data(), r.data(), frames);
                    else
                        eq.processPlanar(l.data(), r.data(), frames);
                    for (int64_t n = 0; n < frames; ++n) {
                        expected[size_t(2 * n)] = refL[size_t(n)];
                        expected[size_t(2 * n + 1)] = refR[size_t(n)];
                        actual[size_t(2 * n)] = l[size_t(n)];
                        actual[size_t(2 * n + 1)] = r[size_t(n)];
                    }
                } else {
                    reference.processInterleaved(expected.data(), frames, channels);
                    if (scalar)
                        eq.processInterleavedScalar(actual.data(), frames, channels);
                    else
                        eq.processInterleaved(actual.data(), frames, channels);
                }
                ASSERT_TRUE(sameBits(expected, actual))
                    << "case " << index << " kind " << kind << " block " << block << " (" << frames
                    << " frames): first difference at sample " << firstDifference(expected, actual);
                ASSERT_EQ(std::bit_cast<uint32_t>(eq.envelope()), std::bit_cast<uint32_t>(reference.envelope));
            }
        }
    }
}

TEST(BiquadEQ, LimiterCatchesTheFirstLoudFrameAndNeverExceedsTheClip)
{
    for (int kind = 0; kind < 3; ++kind) {
        // Before the first update attack is 0: the envelope jumps to the peak.
        BiquadEQ eq(5, 2);
        float left[] = { 2.0f, 0.25f }, right[] = { -1.0f, 0.0f };
        float interleaved[] = { 2.0f, -1.0f, 0.25f, 0.0f };
        if (kind == 0)
            eq.processInterleaved(interleaved, 2, 2);
        else if (kind == 1)
            eq.processInterleavedScalar(interleaved, 2, 2);
        else {
            eq.processPlanar(left, right, 2);
            interleaved[0] = left[0], interleaved[1] = right[0], interleaved[2] = left[1], interleaved[3] = right[1];
        }
        EXPECT_EQ(interleaved[0], 0.99f);
        EXPECT_EQ(interleaved[1], -0.495f);
        // Release is 0 as well: the quiet frame drops the envelope to its peak.
        EXPECT_EQ(interleaved[2], 0.25f);
        EXPECT_EQ(interleaved[3], 0.0f);
        EXPECT_EQ(eq.envelope(), 0.25f);
    }

    BiquadEQ eq(5, 2);
    eq.update(bandsWithGains({ 20, 2, -12, -2, 2 }), 6.0, rate);
    std::mt19937 random(7);
    std::uniform_real_distribution<float> noise(-4.0f, 4.0f);
    std::vector<float> block(1024);
    float loudest = 0;
    for (int i = 0; i < 50; ++i) {
        for (float& v : block)
            v = noise(random);
        eq.processInterleaved(block.data(), 512, 2);
        for (float v : block)
            loudest = std::max(loudest, std::fabs(v));
    }
    EXPECT_LE(loudest, 0.995f);
    EXPECT_EQ(loudest, 0.995f) << "this much input must reach the clip";
}

TEST(BiquadEQ, NaNSamplesBecomeTheCeilingWithoutPoisoningTheEnvelope)
{
    for (bool planar : { false, true }) {
        BiquadEQ eq(5, 2);
        eq.update(bandsWithGains({ 0, 0, 0, 0, 0 }), 0.0, rate);
        const float nan = std::numeric_limits<float>::quiet_NaN();
        float left[] = { nan, 0.5f, 0.5f }, right[] = { 0.5f, nan, -0.5f };
        float interleaved[] = { nan, 0.5f, 0.5f, nan, 0.5f, -0.5f };
        if (planar)
            eq.processPlanar(left, right, 3);
        else
            eq.processInterleaved(interleaved, 3, 2);
        const float* l = planar ? left : interleaved;
        const float* r = planar ? right : interleaved + 1;
        const int64_t step = planar ? 1 : 2;
        EXPECT_EQ(l[0], 0.995f);
        EXPECT_EQ(r[step], 0.995f);
        EXPECT_EQ(r[0], 0.5f);
        EXPECT_EQ(l[step], 0.5f);
        EXPECT_EQ(l[2 * step], 0.5f);
        EXPECT_EQ(r[2 * step], -0.5f);
        EXPECT_FALSE(std::isnan(eq.envelope()));
        EXPECT_GT(eq.envelope(), 0.0f);
    }
}

TEST(BiquadEQ, AnInfiniteSampleSpoilsOnlyItsOwnBlock)
{
    for (int kind = 0; kind < 4; ++kind) {
        BiquadEQ eq(5, 2);
        eq.update(bandsWithGains({ 6, -3, 4, -2, 5 }), 0.0, rate);
        auto process = [&](std::vector<float>& block) {
            const int64_t frames = int64_t(block.size() / 2);
            if (kind == 0)
                eq.processInterleaved(block.data(), frames, 2);
            else if (kind == 1)
                eq.processInterleavedScalar(block.data(), frames, 2);
            else {
                std::vector<float> l(block.size() / 2), r(block.size() / 2);
                for (size_t n = 0; n < l.size(); ++n)
                    l[n] = block[2 * n], r[n] = block[2 * n + 1];
                if (kind == 2)
                    eq.processPlanar(l.data(), r.data(), frames);
                else
                    eq.processPlanarScalar(l.data(), r.data(), frames);
                for (size_t n = 0; n < l.size(); ++n)
                    block[2 * n] = l[n], block[2 * n + 1] = r[n];
            }
        };
        // Left only, so that every filter memory that is not zero is spoiled.
        std::vector<float> spoiled(256, 0.0f), next(256, 0.0f), fresh(256, 0.0f);
        for (size_t n = 0; n < 128; ++n)
            spoiled[2 * n] = 0.25f;
        spoiled[100] = std::numeric_limits<float>::infinity();
        next[0] = next[1] = fresh[0] = fresh[1] = 0.5f;
        process(spoiled);
        EXPECT_EQ(spoiled[100], 0.995f) << "inf - inf in the filter is NaN, clipped to the ceiling";
        EXPECT_EQ(eq.envelope(), 0.0f);
        process(next);
        eq.reset();
        process(fresh);
        EXPECT_EQ(next, fresh) << "kind " << kind << ": the next block starts from clean memory";
    }
}

TEST(BiquadEQ, ZeroFramesChangeNothing)
{
    BiquadEQ eq(5, 2);
    eq.update(bandsWithGains({ 6, -3, 4, -2, 5 }), 0.0, rate);
    std::vector<float> loud(64, 1.5f);
    eq.processInterleaved(loud.data(), 32, 2);
    const float envelope = eq.envelope();
    ASSERT_GT(envelope, 0.0f);
    float untouched[] = { 3.0f, -3.0f };
    eq.processInterleaved(untouched, 0, 2);
    eq.processInterleavedScalar(untouched, 0, 2);
    eq.processPlanar(untouched, untouched + 1, 0);
    eq.processPlanarScalar(untouched, untouched + 1, 0);
    EXPECT_EQ(eq.envelope(), envelope);
    EXPECT_EQ(untouched[0], 3.0f);
    EXPECT_EQ(untouched[1], -3.0f);
}

TEST(BiquadEQ, FlatBandsAreIdentityAndMakeupFollowsTheLargestCountedBoost)
{
    BiquadEQ eq(5, 2);
    eq.update(bandsWithGains({ 0, 0, 0, 0, 0 }), -6.0, rate);
    for (int64_t b = 0; b < 5; ++b)
        EXPECT_TRUE(eq.section(eq.publishedBank(), b).isIdentity());
    EXPECT_EQ(eq.currentMakeupGain(), 1.0f);
    // A flat configuration is the output gain alone (nothing near the limiter).
    std::vector<float> block = { 0.5f, -0.25f, 0.125f, -0.0f, 1e-20f, 0.3f };
    std::vector<float> expected;
    for (float v : block)
        expected.push_back(v * eq.currentOutputGain());
    eq.processInterleaved(block.data(), 3, 2);
    EXPECT_TRUE(sameBits(block, expected));
    EXPECT_NEAR(eq.currentOutputGain(), 0.501187f, 1e-6f);

    eq.update(bandsWithGains({ -3, 12, 4, -20, 0 }), 0.0, rate);
    EXPECT_NEAR(eq.currentMakeupGain(), 0.847227f, 1e-6f); // 10^(-1.44/20)
    eq.update(bandsWithGains({ -3, -1, 0, -20, 0 }), 0.0, rate);
    EXPECT_EQ(eq.currentMakeupGain(), 1.0f) << "cuts never raise the level";

    // Fewer bands than sections: the rest stay identity. More: ignored, for
    // the filters and for the makeup gain.
    eq.update(bandsWithGains({ 3, 3 }), 0.0, rate);
    EXPECT_FALSE(eq.section(eq.publishedBank(), 1).isIdentity());
    EXPECT_TRUE(eq.section(eq.publishedBank(), 2).isIdentity());
    EXPECT_TRUE(eq.section(eq.publishedBank(), 4).isIdentity());
    eq.update(bandsWithGains({ 1, 1, 1, 1, 1, 24 }), 0.0, rate);
    EXPECT_NEAR(eq.currentMakeupGain(), std::pow(10.0, -0.12 / 20.0), 1e-6);
    eq.update({}, 0.0, rate);
    EXPECT_EQ(eq.currentMakeupGain(), 1.0f);

    // Above 0.45 fs a band is the band at 0.45 fs.
    BiquadEQ high(1, 2), clamped(1, 2);
    high.update(bandsWithGains({ 6 }, { 23000 }), 0.0, rate);
    clamped.update(bandsWithGains({ 6 }, { 0.45 * rate }), 0.0, rate);
    const auto a = high.section(high.publishedBank(), 0), b = clamped.section(clamped.publishedBank(), 0);
    EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
}

TEST(BiquadEQ, UpdatePublishesTheOtherBankAndKeepsTheFilterMemory)
{
    BiquadEQ eq(5, 2);
    EXPECT_EQ(eq.publishedBank(), 0);
    eq.update(bandsWithGains({ 6, 0, 0, 0, 0 }), 0.0, rate);
    EXPECT_EQ(eq.publishedBank(), 1);
    EXPECT_TRUE(eq.section(0, 0).isIdentity()) << "the bank in use is never written";
    eq.update(bandsWithGains({ 6, 0, 0, 0, 0 }), 0.0, rate);
    EXPECT_EQ(eq.publishedBank(), 0);

    // An impulse, then an update with the same settings: the tail goes on as
    // if nothing happened, unlike after reset().
    auto run = [](bool updateBetween, bool resetBetween) {
        BiquadEQ eq(5, 2);
        eq.update(bandsWithGains({ 6, 0, 0, 0, 0 }), 0.0, rate);
        std::vector<float> first(64, 0.0f), second(64, 0.0f);
        first[0] = first[1] = 0.5f;
        eq.processInterleaved(first.data(), 32, 2);
        if (updateBetween)
            eq.update(bandsWithGains({ 6, 0, 0, 0, 0 }), 0.0, rate);
        if (resetBetween)
            eq.reset();
        eq.processInterleaved(second.data(), 32, 2);
        return second;
    };
    EXPECT_TRUE(sameBits(run(false, false), run(true, false)));
    EXPECT_EQ(run(false, true), std::vector<float>(64, 0.0f));
    EXPECT_NE(run(false, false), std::vector<float>(64, 0.0f));
}

TEST(BiquadEQ, PlanarWithOneFilteredChannelStillLimitsBoth)
{
    BiquadEQ eq(5, 1);
    eq.update(bandsWithGains({ 6, -3, 4, -2, 5 }), 0.0, rate);
    std::vector<float> left(256), right(256);
    for (size_t i = 0; i < 256; ++i)
        left[i] = right[i] = (i % 2 ? 1.0f : -1.0f) * (i < 128 ? 0.05f : 3.0f);
    std::vector<float> rightIn = right;
    eq.processPlanar(left.data(), right.data(), 256);
    const float g = eq.currentMakeupGain();
    for (size_t i = 0; i < 128; ++i)
        ASSERT_EQ(right[i], rightIn[i] * g) << i << ": unfiltered, scaled, well below the limiter";
    EXPECT_NE(left[1], rightIn[1] * g) << "the left channel is filtered";
    for (size_t i = 128; i < 256; ++i)
        ASSERT_LE(std::fabs(right[i]), 0.995f);
}

TEST(BiquadEQ, ExtraInterleavedChannelsAreUnfilteredButCountTowardsThePeak)
{
    // Channels 0 and 1 quiet throughout; the third, unfiltered channel quiet
    // for 10 frames, then loud enough to drive the limiter.
    auto run = [](float loud) {
        BiquadEQ eq(5, 2);
        eq.update(bandsWithGains({ 6, -3, 4, -2, 5 }), 0.0, rate);
        std::vector<float> block(3 * 400, 0.01f);
        for (size_t n = 0; n < 400; ++n)
            block[3 * n + 2] = n < 10 ? 0.2f : loud;
        eq.processInterleaved(block.data(), 400, 3);
        return std::make_pair(block, eq.currentMakeupGain());
    };
    const auto [quiet, g] = run(0.2f);
    const auto loud = run(8.0f).first;
    for (size_t n = 0; n < 10; ++n)
        ASSERT_EQ(loud[3 * n + 2], 0.2f * g) << "frame " << n << ": scaled, not filtered";
    EXPECT_NE(quiet[0], 0.01f * g) << "channel 0 is filtered";
    const size_t last = 3 * 399;
    EXPECT_LT(std::fabs(loud[last]), std::fabs(quiet[last]) * 0.5f) << "the loud channel pulls the others down";
    EXPECT_LE(std::fabs(loud[last + 2]), 0.995f);
}

TEST(BiquadEQ, UpdatesRacingTheAudioThreadNeverMixTwoBanks)
{
    // Two configurations with the same largest boost (so the same makeup
    // gain): every block, an impulse from a cleared state, must come out as
    // the impulse response of one of them, never a blend.
    const auto configA = bandsWithGains({ 6, -3, 4, -2, 5 });
    const auto configB = bandsWithGains({ 6, 3, -4, 2, -5 });
    auto response = [](const std::vector<EQBand>& bands) {
        BiquadEQ eq(5, 2);
        eq.update(bands, 0.0, rate);
        std::vector<float> block(256, 0.0f);
        block[0] = block[1] = 0.1f;
        eq.processInterleavedScalar(block.data(), 128, 2);
        return block;
    };
    const std::vector<float> expectedA = response(configA), expectedB = response(configB);
    ASSERT_FALSE(sameBits(expectedA, expectedB));

    BiquadEQ eq(5, 2);
    eq.update(configA, 0.0, rate);
    std::atomic<bool> done { false };
    std::atomic<int> blocks { 0 }, mixed { 0 };
    std::thread audio([&] {
        std::vector<float> block(256);
        for (int i = 0; !done.load() || i < 200; ++i) {
            std::fill(block.begin(), block.end(), 0.0f);
            block[0] = block[1] = 0.1f;
            eq.reset();
            if (i % 2)
                eq.processInterleaved(block.data(), 128, 2);
            else
                eq.processInterleavedScalar(block.data(), 128, 2);
            if (!sameBits(block, expectedA) && !sameBits(block, expectedB))
                mixed.fetch_add(1);
            blocks.fetch_add(1);
        }
    });
    for (int i = 0; i < 2000; ++i)
        eq.update(i % 2 ? configA : configB, 0.0, rate);
    done.store(true);
    audio.join();
    EXPECT_GE(blocks.load(), 200);
    EXPECT_EQ(mixed.load(), 0);
}

TEST(BiquadEQ, TheAudioThreadPathsAllocateNothing)
{
    BiquadEQ eq(5, 2), wide(9, 3);
    eq.update(bandsWithGains({ 6, -3, 4, -2, 5 }), 0.0, rate);
    wide.update(bandsWithGains({ 1, 1, 1, 1, 1, 1, 1, 1, 1 }), 0.0, rate);
    std::vector<float> block(3 * 512, 0.25f), left(512, 0.25f), right(512, -0.25f);
    EXPECT_EQ(test::allocationsDuring([&] {
        eq.processInterleaved(block.data(), 512, 2);
        eq.processInterleavedScalar(block.data(), 512, 2);
        eq.processPlanar(left.data(), right.data(), 512);
        eq.processPlanarScalar(left.data(), right.data(), 512);
        wide.processInterleaved(block.data(), 512, 3);
        wide.processPlanar(left.data(), right.data(), 512);
        eq.reset();
    }),
              0u);
}
