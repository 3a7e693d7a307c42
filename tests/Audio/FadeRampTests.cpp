#include "Audio/FadeRamp.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace sorva;

namespace {

std::vector<float> ones(size_t frames, size_t channels = 1) { return std::vector<float>(frames * channels, 1.0f); }

// Runs one block of 1.0 through apply (interleaved, `channels`) or
// applyPlanar and returns the first channel.
std::vector<float> play(FadeRamp& ramp, size_t frames, bool planar, size_t channels = 2)
{
    std::vector<float> left = ones(frames), right = ones(frames), interleaved = ones(frames, channels);
    if (planar) {
        ramp.applyPlanar(left.data(), right.data(), int64_t(frames));
        EXPECT_EQ(left, right);
        return left;
    }
    ramp.apply(interleaved.data(), int64_t(frames), int64_t(channels));
    for (size_t n = 0; n < frames; ++n)
        for (size_t c = 1; c < channels; ++c)
            EXPECT_EQ(interleaved[n * channels + c], interleaved[n * channels]) << "frame " << n;
    std::vector<float> first(frames);
    for (size_t n = 0; n < frames; ++n)
        first[n] = interleaved[n * channels];
    return first;
}

} // namespace

TEST(FadeRamp, NeverStartedPassesAudioUntouched)
{
    for (bool planar : { false, true }) {
        FadeRamp ramp;
        EXPECT_EQ(play(ramp, 8, planar), ones(8));
    }
}

TEST(FadeRamp, FadeInRisesLinearlyThenPassesAtUnity)
{
    for (bool planar : { false, true }) {
        FadeRamp ramp;
        ramp.start(4, +1.0f);
        EXPECT_EQ(play(ramp, 6, planar), (std::vector<float> { 0, 0.25f, 0.5f, 0.75f, 1, 1 }));
        EXPECT_EQ(play(ramp, 6, planar), ones(6));
    }
}

TEST(FadeRamp, FadeOutFallsToSilenceAndStaysSilentUntilANewRamp)
{
    for (bool planar : { false, true }) {
        FadeRamp ramp;
        ramp.start(4, -1.0f);
        EXPECT_EQ(play(ramp, 6, planar, 3), (std::vector<float> { 1, 0.75f, 0.5f, 0.25f, 0, 0 }));
        EXPECT_EQ(play(ramp, 5, planar, 3), std::vector<float>(5, 0.0f));
        EXPECT_EQ(play(ramp, 5, planar, 3), std::vector<float>(5, 0.0f));
        ramp.start(2, +1.0f);
        EXPECT_EQ(play(ramp, 3, planar), (std::vector<float> { 0, 0.5f, 1 }));
    }
}

TEST(FadeRamp, EmptyRampsSilenceOrPassFromTheNextBlock)
{
    for (bool planar : { false, true }) {
        FadeRamp out, in, negative;
        out.start(0, -1.0f);
        in.start(0, +1.0f);
        negative.start(-5, -1.0f);
        EXPECT_EQ(play(out, 4, planar), std::vector<float>(4, 0.0f));
        EXPECT_EQ(play(negative, 4, planar), std::vector<float>(4, 0.0f)) << "a negative length counts as 0";
        EXPECT_EQ(play(in, 4, planar), ones(4));
    }
}

TEST(FadeRamp, ARampContinuesSeamlesslyAcrossBlocks)
{
    for (bool planar : { false, true }) {
        FadeRamp whole, split;
        whole.start(10, -1.0f);
        split.start(10, -1.0f);
        std::vector<float> expected = play(whole, 14, planar), actual;
        for (size_t frames : { 3, 0, 4, 1, 6 }) {
            auto part = play(split, frames, planar);
            actual.insert(actual.end(), part.begin(), part.end());
        }
        EXPECT_EQ(actual, expected);
        EXPECT_EQ(expected[1], 0.9f);
        EXPECT_EQ(expected[9], 1.0f - 0.9f);
        EXPECT_EQ(expected[10], 0.0f);
    }
}

TEST(FadeRamp, StartRacingApplyIsSafe)
{
    // The audio thread applies while the control thread restarts ramps; the
    // lock keeps each block's view of the ramp whole (clean under TSan).
    FadeRamp ramp;
    std::atomic<bool> done { false };
    std::thread audio([&] {
        std::vector<float> block(256);
        while (!done.load()) {
            std::fill(block.begin(), block.end(), 1.0f);
            ramp.apply(block.data(), 128, 2);
            for (float v : block)
                ASSERT_TRUE(v >= 0.0f && v <= 1.0f);
        }
    });
    for (int i = 0; i < 2000; ++i)
        ramp.start(100 + i % 50, i % 2 ? 1.0f : -1.0f);
    done.store(true);
    audio.join();
}

TEST(FadeRamp, ApplyingAllocatesNothing)
{
    FadeRamp ramp;
    ramp.start(300, -1.0f);
    std::vector<float> block(1024, 1.0f), left(512, 1.0f), right(512, 1.0f);
    EXPECT_EQ(test::allocationsDuring([&] {
        ramp.apply(block.data(), 256, 2);
        ramp.applyPlanar(left.data(), right.data(), 256);
        ramp.apply(block.data(), 512, 2);
    }),
              0u);
}
