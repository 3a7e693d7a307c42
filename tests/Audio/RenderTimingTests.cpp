#include "Audio/RenderTiming.h"

#include <gtest/gtest.h>

using namespace sorva;

namespace {
constexpr uint64_t ms = 1'000'000; // host ticks are nanoseconds
}

TEST(RenderTiming, CountsLateCallbacksAgainstAFixedFortyEightFramesPerMillisecond)
{
    RenderTiming timing;
    const uint64_t start = 1000 * ms;
    // The first callback has no previous one: no gap.
    timing.record(start, start + 2 * ms, 512);
    // 512 frames: late above 512 / 48 * 1.5 = 16.0 ms.
    uint64_t end = start + 2 * ms;
    timing.record(end + 16 * ms, end + 16 * ms + 3 * ms, 512); // exactly 16.0: on time
    end += 19 * ms;
    timing.record(end + 16 * ms + ms / 10, end + 17 * ms, 512); // 16.1: late
    end += 17 * ms;
    timing.record(end + 20 * ms, end + 21 * ms, 1024); // 1024 frames: late only above 32 ms

    auto snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks, 4);
    EXPECT_EQ(snapshot.lateCallbacks, 1);
    EXPECT_DOUBLE_EQ(snapshot.maxGapMs, 20.0);
    EXPECT_DOUBLE_EQ(snapshot.maxWorkMs, 3.0);

    // A snapshot right after another is all zeros, but the gap is still
    // measured from the last callback's end.
    snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks, 0);
    EXPECT_EQ(snapshot.lateCallbacks, 0);
    EXPECT_EQ(snapshot.maxGapMs, 0.0);
    EXPECT_EQ(snapshot.maxWorkMs, 0.0);
    end += 21 * ms;
    timing.record(end + 40 * ms, end + 41 * ms, 512);
    snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.lateCallbacks, 1);
    EXPECT_DOUBLE_EQ(snapshot.maxGapMs, 40.0);
}

TEST(RenderTiming, AClockRunningBackwardsCountsAsNoTime)
{
    RenderTiming timing;
    timing.record(100 * ms, 90 * ms, 512);
    timing.record(50 * ms, 60 * ms, 512);
    const auto snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks, 2);
    EXPECT_EQ(snapshot.lateCallbacks, 0);
    EXPECT_EQ(snapshot.maxGapMs, 0.0);
    EXPECT_DOUBLE_EQ(snapshot.maxWorkMs, 10.0);
}
