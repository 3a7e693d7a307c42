#include "Audio/RenderTiming.h"

#include <gtest/gtest.h>

using namespace sorva;

TEST(RenderTiming, CountsLateCallbacksAgainstAFixedFortyEightFramesPerMillisecondAndKeepsTheFirstSound)
{
    constexpr uint64_t ms = 1'000'000; // host ticks are nanoseconds
    RenderTiming timing;
    // No gap before the first callback, a silent one. 512 frames are late above 512 / 48 * 1.5 = 16 ms.
    EXPECT_EQ(timing.firstSoundEnd(), 0u);
    timing.record(999 * ms, 1000 * ms, 512, false);
    timing.record(1000 * ms, 1002 * ms, 512); // the first sound ends here
    timing.record(1018 * ms, 1021 * ms, 512); // gap 16.0: on time
    timing.record(1037 * ms + ms / 10, 1038 * ms, 512); // 16.1: late
    timing.record(1058 * ms, 1059 * ms, 1024); // 20: on time for 1024 frames
    auto snapshot = timing.snapshot();
    EXPECT_EQ(snapshot.callbacks, 5);
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
    timing.forgetLastCallback(); // a pause starts a new gap baseline, not a new first sound
    EXPECT_EQ(timing.firstSoundEnd(), 1002 * ms);
}
