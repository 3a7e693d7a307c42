#include "Audio/StereoRingBuffer.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <vector>

using namespace sorva;

namespace {

// The buffered engine's sizes: 48 000-frame ring, 125 ms (6000 frames)
// target, reads of at most 8192 frames.
constexpr int64_t capacityFrames = 48000;
constexpr int64_t primeFrames = 6000;
constexpr int64_t maxReadFrames = 8192;

// Interleaved frames whose left sample is the frame's number (from 1) and
// whose right sample is its negative, so every output value tells where in
// the input it came from.
void writeCounting(StereoRingBuffer& ring, int64_t firstFrame, int64_t frames)
{
    std::vector<float> block(static_cast<size_t>(2 * frames));
    for (int64_t i = 0; i < frames; ++i) {
        block[static_cast<size_t>(2 * i)] = static_cast<float>(firstFrame + i + 1);
        block[static_cast<size_t>(2 * i + 1)] = -static_cast<float>(firstFrame + i + 1);
    }
    ring.write(block.data(), 2 * frames);
}

struct Output {
    std::vector<float> left;
    std::vector<float> right;
    bool silent() const
    {
        return std::all_of(left.begin(), left.end(), [](float v) { return v == 0.0f; })
            && std::all_of(right.begin(), right.end(), [](float v) { return v == 0.0f; });
    }
};

Output readFrames(StereoRingBuffer& ring, int64_t frames)
{
    // Pre-filled with garbage: a read must overwrite every sample.
    Output out { std::vector<float>(static_cast<size_t>(frames), 7.0f), std::vector<float>(static_cast<size_t>(frames), 7.0f) };
    ring.read(out.left.data(), out.right.data(), frames);
    return out;
}

// Slope of the left output between two indices: the read rate, since the
// left input rises by one per frame.
double slope(const Output& out, size_t from, size_t to)
{
    return (static_cast<double>(out.left[to]) - static_cast<double>(out.left[from])) / static_cast<double>(to - from);
}

} // namespace

TEST(StereoRingBuffer, PrimesBeforePlayingThenFadesInOver480Frames)
{
    StereoRingBuffer ring(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(ring, 0, 5999);
    EXPECT_TRUE(readFrames(ring, 256).silent());
    EXPECT_EQ(ring.snapshot().underruns, 0); // silence while priming is no underrun

    writeCounting(ring, 5999, 1);
    // Exactly the target buffered: rate 1, so output frame i is input frame i.
    const Output first = readFrames(ring, 256);
    for (size_t i = 0; i < 256; ++i) {
        ASSERT_NEAR(first.left[i], static_cast<double>(i) / 480.0 * static_cast<double>(i + 1), 1e-4) << "frame " << i;
        ASSERT_EQ(first.right[i], -first.left[i]) << "frame " << i;
    }
    // 5744 frames left, below the target by more than the clamp allows: the
    // rate moves 5 % of the way to 0.998. The fade continues to full level.
    const Output second = readFrames(ring, 512);
    for (size_t i = 0; i < 512; ++i) {
        const double position = 256.0 + static_cast<double>(i) * 0.9999;
        const double gain = std::min(1.0, static_cast<double>(256 + i) / 480.0);
        ASSERT_NEAR(second.left[i], gain * (position + 1.0), 2e-4) << "frame " << i;
        ASSERT_EQ(second.right[i], -second.left[i]) << "frame " << i;
    }

    const auto stats = ring.snapshot();
    EXPECT_EQ(stats.framesWritten, 6000);
    EXPECT_EQ(stats.framesRead, 256 + 512); // silent reads while priming produce nothing
    EXPECT_EQ(stats.peak, 6000.0f);
    EXPECT_EQ(stats.underruns, 0);
}

TEST(StereoRingBuffer, UnderrunsWhenLessThanTheRequestPlusTwoFramesIsBuffered)
{
    // 6000 frames buffered = 12 000 samples = 2 × 5998 + 4: just enough.
    StereoRingBuffer enough(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(enough, 0, 6000);
    const Output played = readFrames(enough, 5998);
    EXPECT_FALSE(played.silent());
    EXPECT_FLOAT_EQ(played.left[5000], 5001.0f);
    EXPECT_EQ(enough.snapshot().underruns, 0);

    // One frame more requested: an underrun, and the buffer primes again.
    StereoRingBuffer shortBy1(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(shortBy1, 0, 6000);
    EXPECT_TRUE(readFrames(shortBy1, 5999).silent());
    auto stats = shortBy1.snapshot();
    EXPECT_EQ(stats.underruns, 1);
    EXPECT_EQ(stats.buffered, 6000); // nothing was consumed
    EXPECT_EQ(stats.framesRead, 0);

    // Unprimed again: 6000 buffered is enough to start, and the restart
    // fades in from zero.
    const Output restarted = readFrames(shortBy1, 100);
    EXPECT_EQ(restarted.left[0], 0.0f);
    EXPECT_NEAR(restarted.left[60], 61.0 * 60.0 / 480.0, 1e-3);
    EXPECT_EQ(shortBy1.snapshot().underruns, 0); // counted once, reset by the snapshot

    // Drained below the request: underrun, then silence without counting
    // until the prime level is back.
    StereoRingBuffer drained(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(drained, 0, 6000);
    readFrames(drained, 4000);
    EXPECT_TRUE(readFrames(drained, 4000).silent());
    writeCounting(drained, 6000, 3000);
    EXPECT_TRUE(readFrames(drained, 100).silent()); // about 5000 buffered: still priming
    EXPECT_EQ(drained.snapshot().underruns, 1);
    writeCounting(drained, 9000, 1000);
    EXPECT_FALSE(readFrames(drained, 1000).silent());
}

TEST(StereoRingBuffer, ResyncsToTheTargetWhenTooMuchIsBuffered)
{
    // More than three times the target: the reader jumps to exactly the
    // target behind the writer, fades in again and reports it as an underrun.
    StereoRingBuffer over(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(over, 0, 18001);
    const Output jumped = readFrames(over, 1000);
    EXPECT_EQ(jumped.left[0], 0.0f);
    EXPECT_NEAR(jumped.left[480], 18001.0 - 6000.0 + 481.0, 0.01);
    auto stats = over.snapshot();
    EXPECT_EQ(stats.underruns, 1);
    EXPECT_NEAR(static_cast<double>(stats.buffered), 5000.0, 1.0);
    EXPECT_EQ(over.snapshot().underruns, 0);

    StereoRingBuffer atLimit(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(atLimit, 0, 18000);
    EXPECT_NEAR(readFrames(atLimit, 1000).left[600], 601.0, 0.2); // plays from the oldest frame
    EXPECT_EQ(atLimit.snapshot().underruns, 0);

    // A target so long that three times it exceeds the ring: the ring's
    // seven-eighths mark (42 000 frames) is the limit instead.
    StereoRingBuffer nearlyFull(capacityFrames, 15000, maxReadFrames);
    writeCounting(nearlyFull, 0, 42001);
    EXPECT_NEAR(readFrames(nearlyFull, 1000).left[600], 42001.0 - 15000.0 + 601.0, 0.2);
    EXPECT_EQ(nearlyFull.snapshot().underruns, 1);
    StereoRingBuffer justBelow(capacityFrames, 15000, maxReadFrames);
    writeCounting(justBelow, 0, 42000);
    EXPECT_NEAR(readFrames(justBelow, 1000).left[600], 601.0, 0.2);
    EXPECT_EQ(justBelow.snapshot().underruns, 0);
}

TEST(StereoRingBuffer, RejectsOversizedWritesAndOverwritesTheOldestWhenFull)
{
    StereoRingBuffer ring(capacityFrames, primeFrames, maxReadFrames);
    std::vector<float> tooLong(2 * capacityFrames + 2, 0.5f);
    ring.write(tooLong.data(), static_cast<int64_t>(tooLong.size()));
    ring.write(tooLong.data(), 0);
    auto stats = ring.snapshot();
    EXPECT_EQ(stats.framesWritten, 0);
    EXPECT_EQ(stats.buffered, 0);
    EXPECT_EQ(stats.peak, 0.0f);

    writeCounting(ring, 0, 30000);
    writeCounting(ring, 30000, 30000);
    stats = ring.snapshot();
    EXPECT_EQ(stats.framesWritten, 60000);
    EXPECT_EQ(stats.buffered, capacityFrames);
    EXPECT_EQ(stats.peak, 60000.0f);
    EXPECT_EQ(ring.snapshot().peak, 0.0f); // the peak is per snapshot

    // A full ring is above the resync limit: playback restarts 6000 frames
    // behind the newest frame written.
    EXPECT_NEAR(readFrames(ring, 1000).left[700], 60000.0 - 6000.0 + 701.0, 0.2);
    EXPECT_EQ(ring.snapshot().underruns, 1);

    // A read beyond the largest allowed size is silent and changes nothing.
    const auto before = ring.snapshot();
    EXPECT_TRUE(readFrames(ring, maxReadFrames + 1).silent());
    const auto after = ring.snapshot();
    EXPECT_EQ(after.framesRead, before.framesRead);
    EXPECT_EQ(after.buffered, before.buffered);

    EXPECT_THROW(StereoRingBuffer(0, primeFrames, maxReadFrames), std::invalid_argument);
}

TEST(StereoRingBuffer, ReadRateMovesFivePercentTowardsItsTargetEachRead)
{
    // Twice the target buffered: e = 0.05, target rate 1.002 (the clamp);
    // the rate goes 1.0001, 1.000195, … and the reader consumes faster.
    StereoRingBuffer ring(capacityFrames, primeFrames, maxReadFrames);
    writeCounting(ring, 0, 12000);
    const Output first = readFrames(ring, 1000);
    const Output second = readFrames(ring, 1000);
    EXPECT_NEAR(slope(first, 500, 999), 1.0001, 2e-6);
    EXPECT_NEAR(slope(second, 0, 999), 1.000195, 2e-6);
    // The second read continues exactly where the first left off.
    EXPECT_NEAR(second.left[0] - first.left[999], 1.0001, 1e-3);
    EXPECT_NEAR(static_cast<double>(ring.snapshot().buffered), 12000.0 - 2000.3, 1.0);

    // Less than the target: the reader slows down (1 − 0.05 × 5 % at most).
    StereoRingBuffer starved(capacityFrames, 10000, maxReadFrames);
    writeCounting(starved, 0, 10000);
    readFrames(starved, 4000);
    const Output slower = readFrames(starved, 1000);
    const double e = (6000.0 - 10000.0) / 10000.0 * 0.05; // −0.02, clamped to −0.002
    EXPECT_LT(e, -0.002);
    EXPECT_NEAR(slope(slower, 0, 999), 1.0 - 0.002 * 0.05, 2e-6);
}

namespace {

// Distortion plus noise of a nominally pure tone: least-squares fit of
// (a + b·n)·sin(ωn) + (c + d·n)·cos(ωn) + dc, whose linear terms absorb a
// small frequency and level drift within the window, and the residual's power
// relative to the fitted tone's, in dB.
double thdPlusNoiseDecibels(const float* y, int length, double omega)
{
    constexpr int P = 5;
    std::array<std::array<double, P + 1>, P> normal {};
    for (int n = 0; n < length; ++n) {
        const double t = (n - length / 2.0) / length;
        const double s = std::sin(omega * n), c = std::cos(omega * n);
        const std::array<double, P> basis { s, t * s, c, t * c, 1.0 };
        for (int i = 0; i < P; ++i) {
            for (int j = 0; j < P; ++j)
                normal[i][j] += basis[i] * basis[j];
            normal[i][P] += basis[i] * y[n];
        }
    }
    for (int i = 0; i < P; ++i) {
        int pivot = i;
        for (int r = i + 1; r < P; ++r)
            if (std::fabs(normal[r][i]) > std::fabs(normal[pivot][i]))
                pivot = r;
        std::swap(normal[i], normal[pivot]);
        for (int r = 0; r < P; ++r) {
            if (r == i)
                continue;
            const double f = normal[r][i] / normal[i][i];
            for (int k = i; k <= P; ++k)
                normal[r][k] -= f * normal[i][k];
        }
    }
    std::array<double, P> coefficient {};
    for (int i = 0; i < P; ++i)
        coefficient[i] = normal[i][P] / normal[i][i];
    double residual = 0, tone = 0;
    for (int n = 0; n < length; ++n) {
        const double t = (n - length / 2.0) / length;
        const double s = std::sin(omega * n), c = std::cos(omega * n);
        const double fit = (coefficient[0] + coefficient[1] * t) * s + (coefficient[2] + coefficient[3] * t) * c;
        residual += (y[n] - fit - coefficient[4]) * (y[n] - fit - coefficient[4]);
        tone += fit * fit;
    }
    return 10.0 * std::log10(residual / tone);
}

} // namespace

TEST(StereoRingBuffer, FollowsAFasterReaderClockWithoutUnderrunsOrAudibleDistortion)
{
    // Writer: 480-frame blocks at 48 000 frames/s. Reader: 512-frame blocks
    // on a clock 0.1 % faster. Event-driven simulation of 60 s.
    constexpr int writeBlock = 480;
    constexpr int readBlock = 512;
    constexpr double writerRate = 48000.0;
    constexpr double readerRate = 48000.0 * 1.001;
    constexpr double leftHz = 997.0, rightHz = 441.0, amplitude = 0.5;

    StereoRingBuffer ring(capacityFrames, primeFrames, maxReadFrames);
    std::vector<float> block(2 * writeBlock);
    std::vector<float> left(readBlock), right(readBlock);
    std::vector<float> playedLeft, playedRight;
    playedLeft.reserve(static_cast<size_t>(61 * readerRate));
    playedRight.reserve(static_cast<size_t>(61 * readerRate));

    int64_t written = 0;
    double writeClock = 0, readClock = 0;
    bool playing = false;
    int64_t underrunsWhilePlaying = 0;
    double bufferedSum = 0;
    int64_t bufferedMin = INT64_MAX, bufferedMax = 0, bufferedCount = 0;
    while (readClock < 60.0) {
        if (writeClock <= readClock) {
            for (int i = 0; i < writeBlock; ++i) {
                const double n = static_cast<double>(written + i);
                block[2 * i] = static_cast<float>(amplitude * std::sin(2 * std::numbers::pi * leftHz * n / writerRate));
                block[2 * i + 1] = static_cast<float>(amplitude * std::sin(2 * std::numbers::pi * rightHz * n / writerRate));
            }
            ring.write(block.data(), 2 * writeBlock);
            written += writeBlock;
            writeClock += writeBlock / writerRate;
            continue;
        }
        const auto before = ring.snapshot(); // what the reader is about to see
        if (playing && readClock > 5.0) {
            bufferedSum += static_cast<double>(before.buffered);
            bufferedMin = std::min(bufferedMin, before.buffered);
            bufferedMax = std::max(bufferedMax, before.buffered);
            ++bufferedCount;
        }
        ring.read(left.data(), right.data(), readBlock);
        const auto after = ring.snapshot();
        if (playing)
            underrunsWhilePlaying += before.underruns + after.underruns;
        playing = playing || left[readBlock - 1] != 0.0f;
        playedLeft.insert(playedLeft.end(), left.begin(), left.end());
        playedRight.insert(playedRight.end(), right.begin(), right.end());
        readClock += readBlock / readerRate;
    }

    ASSERT_TRUE(playing);
    EXPECT_EQ(underrunsWhilePlaying, 0);

    // To run 0.1 % slower than 1 the rate target must sit at 0.999, which
    // the proportional correction reaches 2 % below the target:
    // 6000 × (1 − 0.001 / 0.05) = 5880 frames on average. Around that, the
    // amount swings by about one write block plus the correction's ripple;
    // the ±0.002 clamp trims the low side of that swing, which pulls the mean
    // a little lower still.
    const double bufferedMean = bufferedSum / static_cast<double>(bufferedCount);
    EXPECT_NEAR(bufferedMean, 5880.0 - 20.0, 25.0);
    EXPECT_GE(bufferedMin, 6000 - 600);
    EXPECT_LE(bufferedMax, 6000 + 300);

    // The output is the input resampled: both tones come out clean, at their
    // frequency scaled by writer rate / reader rate. Linear interpolation of a
    // 997 Hz tone at 48 kHz errs by at most ω²/8 ≈ -53 dB of the amplitude;
    // a dropped, repeated or non-interpolated frame, a click at the wrap or
    // swapped channels read about -30 dB or worse in a 1024-frame window.
    const double scale = writerRate / readerRate;
    double worstLeft = -300, worstRight = -300;
    constexpr int window = 1024;
    for (size_t start = static_cast<size_t>(5 * readerRate); start + window <= playedLeft.size(); start += window) {
        worstLeft = std::max(worstLeft, thdPlusNoiseDecibels(playedLeft.data() + start, window,
                                                             2 * std::numbers::pi * leftHz / writerRate * scale));
        worstRight = std::max(worstRight, thdPlusNoiseDecibels(playedRight.data() + start, window,
                                                               2 * std::numbers::pi * rightHz / writerRate * scale));
    }
    RecordProperty("worstLeftThdPlusNoiseDb", std::to_string(worstLeft));
    RecordProperty("worstRightThdPlusNoiseDb", std::to_string(worstRight));
    std::printf("buffered before reads: mean %.1f, %lld … %lld frames; THD+N worst left %.1f dB, right %.1f dB\n",
                bufferedMean, static_cast<long long>(bufferedMin), static_cast<long long>(bufferedMax), worstLeft,
                worstRight);
    EXPECT_LT(worstLeft, -50.0);
    EXPECT_LT(worstRight, -60.0);
}

TEST(StereoRingBuffer, WriteReadAndSnapshotAllocateNothing)
{
    StereoRingBuffer ring(capacityFrames, primeFrames, maxReadFrames);
    std::vector<float> block(2 * 1024, 0.5f);
    std::vector<float> left(maxReadFrames + 1), right(maxReadFrames + 1);
    StereoRingBuffer::Snapshot stats;
    EXPECT_EQ(test::allocationsDuring([&] {
                  for (int i = 0; i < 60; ++i) // primes, plays, overfills and resyncs
                      ring.write(block.data(), static_cast<int64_t>(block.size()));
                  for (int i = 0; i < 20; ++i)
                      ring.read(left.data(), right.data(), 1024);
                  ring.read(left.data(), right.data(), maxReadFrames + 1);
                  stats = ring.snapshot();
              }),
              0u);
    // The overfilled ring resynced to 6000 frames, which lasted five reads;
    // the sixth underran.
    EXPECT_EQ(stats.framesRead, 5 * 1024);
    EXPECT_EQ(stats.underruns, 2);
}
