#include "Audio/RenderTiming.h"

#include <gtest/gtest.h>

using namespace sorva;

TEST(RenderTiming, CountsLateCallbacksAgainstAFixedFortyEightFramesPerMillisecond)
{
    constexpr uint64_t ms = 1'000'000; // host ticks are nanoseconds
    RenderTiming timing;
    // No gap before the first callback. 512 frames are late above 512 / 48 * 1.5 = 16 ms.
    timing.record(1000 * ms, 1002 * ms, 512);
    timing.record(1018 * ms, 1021 * ms, 512); // gap 16.0: on time
    timing.record(1037 * ms + ms / 10, 1038 * ms, 512); // 16.1: late
    timing.record(1058 * ms, 1059 * ms, 1024); // 20: on time for 1024 frames
    auto snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks, 4);
    EXPECT_EQ(snapshot.lateCallbacks, 1);
    EXPECT_DOUBLE_EQ(snapshot.maxGapMs, 20.0);
    EXPECT_DOUBLE_EQ(snapshot.maxWorkMs, 3.0);

    // A snapshot resets the figures but not the last callback's end.
    snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks + snapshot.lateCallbacks, 0);
    EXPECT_EQ(snapshot.maxGapMs + snapshot.maxWorkMs, 0.0);
    timing.record(1099 * ms, 1100 * ms, 512);
    // A clock running backwards counts as no time.
    timing.record(1090 * ms, 1080 * ms, 512);
    snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks, 2);
    EXPECT_EQ(snapshot.lateCallbacks, 1);
    EXPECT_DOUBLE_EQ(snapshot.maxGapMs, 40.0);
    EXPECT_DOUBLE_EQ(snapshot.maxWorkMs, 1.0);
}

TEST(RenderTiming, FirstSoundIsTheEndOfTheFirstSoundingCallbackAndOutlivesSnapshotsAndPauses)
{
    RenderTiming timing;
    EXPECT_EQ(timing.firstSoundEnd(), 0u);
    timing.record(100, 110, 512, false); // silence handed to the device is no sound yet
    EXPECT_EQ(timing.firstSoundEnd(), 0u);
    timing.record(200, 210, 512);
    timing.record(300, 310, 512);
    timing.snapshot();
    timing.forgetLastCallback(); // a pause starts a new gap baseline, not a new first sound
    timing.record(900, 950, 512);
    EXPECT_EQ(timing.firstSoundEnd(), 210u);
}
