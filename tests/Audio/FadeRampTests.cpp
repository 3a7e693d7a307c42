#include "Audio/FadeRamp.h"

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <vector>

using namespace sorva;

namespace {

using Gains = std::vector<float>;

Gains ones(size_t frames) { return Gains(frames, 1.0f); }

// One block of 1.0 through apply (interleaved, `channels`) or applyPlanar;
// every channel must get the same gain, which is returned per frame.
Gains play(FadeRamp& ramp, size_t frames, bool planar, size_t channels = 2)
{
    Gains left = ones(frames), right = ones(frames), interleaved = ones(frames * channels), first(frames);
    if (planar) {
        EXPECT_EQ(test::allocationsDuring([&] { ramp.applyPlanar(left.data(), right.data(), int64_t(frames)); }), 0u);
        EXPECT_EQ(left, right);
        return left;
    }
    EXPECT_EQ(test::allocationsDuring([&] { ramp.apply(interleaved.data(), int64_t(frames), int64_t(channels)); }), 0u);
    for (size_t n = 0; n < frames; ++n) {
        first[n] = interleaved[n * channels];
        for (size_t c = 1; c < channels; ++c)
            EXPECT_EQ(interleaved[n * channels + c], first[n]) << "frame " << n;
    }
    return first;
}

} // namespace

TEST(FadeRamp, FadesLinearlyStaysSilentAfterAFadeOutAndTreatsEmptyRampsAsDone)
{
    for (bool planar : { false, true }) {
        FadeRamp never, in, out, emptyOut, emptyIn, negative;
        EXPECT_EQ(play(never, 8, planar), ones(8));

        in.start(4, +1.0f);
        EXPECT_EQ(play(in, 6, planar), (Gains { 0, 0.25f, 0.5f, 0.75f, 1, 1 }));
        EXPECT_EQ(play(in, 6, planar), ones(6));

        out.start(4, -1.0f);
        EXPECT_EQ(play(out, 6, planar, 3), (Gains { 1, 0.75f, 0.5f, 0.25f, 0, 0 }));
        EXPECT_EQ(play(out, 5, planar, 3), Gains(5, 0.0f));
        EXPECT_EQ(play(out, 5, planar, 3), Gains(5, 0.0f));
        out.start(2, +1.0f);
        EXPECT_EQ(play(out, 3, planar), (Gains { 0, 0.5f, 1 }));

        emptyOut.start(0, -1.0f);
        emptyIn.start(0, +1.0f);
        negative.start(-5, -1.0f); // counts as 0
        EXPECT_EQ(play(emptyOut, 4, planar), Gains(4, 0.0f));
        EXPECT_EQ(play(negative, 4, planar), Gains(4, 0.0f));
        EXPECT_EQ(play(emptyIn, 4, planar), ones(4));
    }
}

TEST(FadeRamp, ARampContinuesSeamlesslyAcrossBlocks)
{
    for (bool planar : { false, true }) {
        FadeRamp whole, split;
        whole.start(10, -1.0f);
        split.start(10, -1.0f);
        const Gains expected = play(whole, 14, planar);
        Gains actual;
        for (size_t frames : { 3, 0, 4, 1, 6 }) {
            const Gains part = play(split, frames, planar);
            actual.insert(actual.end(), part.begin(), part.end());
        }
        EXPECT_EQ(actual, expected);
    }
}
