#include "Audio/StereoRingBuffer.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <numeric>
#include <stdexcept>
#include <tuple>

using namespace sorva;

namespace {

// The buffered engine's sizes: 48 000-frame ring, 6000-frame target, reads of at most 8192 frames.
constexpr int64_t capacityFrames = 48000, primeFrames = 6000, maxReadFrames = 8192;

// Frame k (from 1) is (k, -k), so every output value tells where it came from.
void writeCounting(StereoRingBuffer& ring, int64_t firstFrame, int64_t frames)
{
    std::vector<float> block(size_t(2 * frames));
    for (int64_t i = 0; i < frames; ++i)
        block[size_t(2 * i)] = -(block[size_t(2 * i + 1)] = -float(firstFrame + i + 1));
    ring.write(block.data(), 2 * frames);
}

std::unique_ptr<StereoRingBuffer> counting(int64_t frames, int64_t prime = primeFrames)
{
    auto ring = std::make_unique<StereoRingBuffer>(capacityFrames, prime, maxReadFrames);
    writeCounting(*ring, 0, frames);
    return ring;
}

struct Output {
    std::vector<float> left, right;
    bool silent() const { return left == std::vector<float>(left.size()) && right == std::vector<float>(right.size()); }
};

Output readFrames(StereoRingBuffer& ring, int64_t frames)
{
    // Pre-filled with garbage: a read must overwrite every sample.
    Output out { std::vector<float>(size_t(frames), 7.0f), std::vector<float>(size_t(frames), 7.0f) };
    ring.read(out.left.data(), out.right.data(), frames);
    return out;
}

} // namespace

TEST(StereoRingBuffer, PrimesBeforePlayingThenFadesInOver480Frames)
{
    auto ring = counting(5999);
    EXPECT_TRUE(readFrames(*ring, 256).silent());
    EXPECT_EQ(ring->snapshot().underruns, 0); // silence while priming is no underrun

    writeCounting(*ring, 5999, 1);
    // Exactly the target buffered: rate 1, output frame i is input frame i, faded.
    const Output first = readFrames(*ring, 256);
    // 5744 left, below the target beyond the clamp: the rate moves 5 % of the way to 0.998.
    const Output second = readFrames(*ring, 512);
    for (size_t i = 0; i < 768; ++i) {
        const Output& out = i < 256 ? first : second;
        const size_t k = i < 256 ? i : i - 256;
        const double position = i < 256 ? double(i) : 256.0 + double(k) * 0.9999;
        ASSERT_NEAR(out.left[k], std::min(1.0, double(i) / 480.0) * (position + 1.0), 2e-4) << "frame " << i;
        ASSERT_EQ(out.right[k], -out.left[k]) << "frame " << i;
    }
    const auto stats = ring->snapshot(); // silent reads while priming produce nothing
    EXPECT_EQ(std::tuple(stats.framesWritten, stats.framesRead, stats.underruns), std::tuple(6000, 256 + 512, 0));
}

TEST(StereoRingBuffer, UnderrunsWhenLessThanTheRequestPlusTwoFramesIsBuffered)
{
    // 6000 frames = 12 000 samples = 2 × 5998 + 4: just enough.
    auto enough = counting(6000);
    EXPECT_FLOAT_EQ(readFrames(*enough, 5998).left[5000], 5001.0f);
    EXPECT_EQ(enough->snapshot().underruns, 0);

    // One frame more: an underrun, nothing consumed, and the buffer primes again.
    auto shortBy1 = counting(6000);
    EXPECT_TRUE(readFrames(*shortBy1, 5999).silent());
    const auto stats = shortBy1->snapshot();
    EXPECT_EQ(std::tuple(stats.underruns, stats.buffered, stats.framesRead), std::tuple(1, 6000, 0));
    const Output restarted = readFrames(*shortBy1, 100); // 6000 is enough to restart, fading in from zero
    EXPECT_EQ(restarted.left[0], 0.0f);
    EXPECT_NEAR(restarted.left[60], 61.0 * 60.0 / 480.0, 1e-3);
    EXPECT_EQ(shortBy1->snapshot().underruns, 0); // counted once, reset by the snapshot
}

TEST(StereoRingBuffer, ResyncsToTheTargetWhenTooMuchIsBuffered)
{
    // Above three times the target, or the ring's seven-eighths (42 000) when
    // that is lower, the reader jumps to the target behind the writer, fades in
    // again and counts an underrun.
    const std::tuple<int64_t, int64_t, bool> cases[] = { { 6000, 18001, true }, { 6000, 18000, false },
        { 15000, 42001, true }, { 15000, 42000, false }, { 6000, 60000, true } }; // prime, written, resyncs
    for (const auto& [prime, written, resyncs] : cases) {
        auto ring = counting(std::min<int64_t>(written, 30000), prime);
        if (written > 30000)
            writeCounting(*ring, 30000, written - 30000); // wraps a full ring
        const Output out = readFrames(*ring, 1000);
        const double start = resyncs ? double(written - prime) : 0.0;
        EXPECT_NEAR(out.left[600], start + 601.0, 0.2) << written;
        EXPECT_EQ(out.left[0], 0.0f); // fading in again
        EXPECT_NEAR(out.left[240], 0.5 * (start + 241.0), 0.2) << written;
        const auto stats = ring->snapshot();
        EXPECT_EQ(stats.underruns, resyncs ? 1 : 0) << written;
        EXPECT_TRUE(written != 18001 || std::abs(stats.buffered - 5000) <= 1) << stats.buffered;
    }
}

TEST(StereoRingBuffer, RejectsBadSizesAndOverwritesTheOldestWhenFull)
{
    auto ring = counting(0);
    std::vector<float> tooLong(2 * capacityFrames + 2, 0.5f);
    ring->write(tooLong.data(), int64_t(tooLong.size()));
    ring->write(tooLong.data(), 0);
    auto stats = ring->snapshot();
    EXPECT_EQ(stats.framesWritten + stats.buffered + stats.peak, 0);

    writeCounting(*ring, 0, 30000);
    writeCounting(*ring, 30000, 30000);
    stats = ring->snapshot();
    EXPECT_EQ(std::tuple(stats.framesWritten, stats.buffered, stats.peak), std::tuple(60000, capacityFrames, 60000.0f));
    EXPECT_EQ(ring->snapshot().peak, 0.0f); // the peak is per snapshot

    // A read beyond the largest allowed size is silent and changes nothing.
    EXPECT_TRUE(readFrames(*ring, maxReadFrames + 1).silent());
    stats = ring->snapshot();
    EXPECT_EQ(std::tuple(stats.framesRead, stats.buffered), std::tuple(0, capacityFrames));
    EXPECT_THROW(StereoRingBuffer(0, primeFrames, maxReadFrames), std::invalid_argument);
}

TEST(StereoRingBuffer, FollowsAFasterReaderClockWithoutUnderrunsDistortionOrAllocation)
{
    // Writer: 480-frame blocks at 48 000 frames/s; reader: 512-frame blocks on
    // a clock 0.1 % faster; 60 simulated seconds.
    constexpr int writeBlock = 480, readBlock = 512;
    constexpr double writerRate = 48000.0, readerRate = 48000.0 * 1.001, hz[2] = { 997.0, 441.0 };
    StereoRingBuffer ring(capacityFrames, primeFrames, maxReadFrames);
    std::vector<float> block(2 * writeBlock), left(readBlock), right(readBlock), played[2];
    std::vector<int64_t> buffered; // before each read, after the first 5 s of playing
    int64_t written = 0, underrunsWhilePlaying = 0;
    uint64_t allocations = 0;
    for (double writeClock = 0, readClock = 0; readClock < 60.0;) {
        if (writeClock <= readClock) {
            for (size_t i = 0; i < 2 * writeBlock; ++i)
                block[i] = float(0.5 * std::sin(2 * std::numbers::pi * hz[i % 2] * double(written + int64_t(i / 2)) / writerRate));
            allocations += test::allocationsDuring([&] { ring.write(block.data(), 2 * writeBlock); });
            written += writeBlock;
            writeClock += writeBlock / writerRate;
            continue;
        }
        StereoRingBuffer::Snapshot before, after;
        allocations += test::allocationsDuring([&] {
            before = ring.snapshot();
            ring.read(left.data(), right.data(), readBlock);
            after = ring.snapshot();
        });
        if (!played[0].empty()) {
            underrunsWhilePlaying += before.underruns + after.underruns;
            if (readClock > 5.0)
                buffered.push_back(before.buffered);
        }
        if (!played[0].empty() || left[readBlock - 1] != 0.0f) {
            played[0].insert(played[0].end(), left.begin(), left.end());
            played[1].insert(played[1].end(), right.begin(), right.end());
        }
        readClock += readBlock / readerRate;
    }
    ASSERT_FALSE(buffered.empty());
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(underrunsWhilePlaying, 0);
    // Running 0.1 % slow needs a rate target of 0.999, which the proportional
    // correction reaches 2 % below the target (5880 frames); the clamp trims
    // the low side of the swing a little further.
    EXPECT_NEAR(double(std::accumulate(buffered.begin(), buffered.end(), int64_t(0))) / double(buffered.size()),
                5880.0 - 20.0, 25.0);
    EXPECT_GE(*std::min_element(buffered.begin(), buffered.end()), 6000 - 600);
    EXPECT_LE(*std::max_element(buffered.begin(), buffered.end()), 6000 + 300);

    // Both tones come out smooth: a sampled sine's second difference is at most
    // A w^2, and linear interpolation adds at most 4 x A w^2 / 8 to it. A
    // dropped, repeated or uninterpolated frame, a click or swapped channels
    // step by up to A w, ten times more.
    for (int c = 0; c < 2; ++c) {
        const double w = 2 * std::numbers::pi * hz[c] / writerRate * 1.003, bound = 1.5 * 0.5 * w * w;
        for (size_t n = size_t(5 * readerRate); n + 1 < played[c].size(); ++n)
            ASSERT_LE(std::fabs(double(played[c][n + 1]) - 2.0 * played[c][n] + played[c][n - 1]), bound)
                << "channel " << c << " frame " << n;
    }
}
