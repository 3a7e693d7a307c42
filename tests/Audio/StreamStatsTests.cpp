#include "Audio/StreamStats.h"

#include <gtest/gtest.h>

using namespace sorva;

// Add and snapshot on two threads run in the single-device engine's IO-thread test.
TEST(StreamStats, SnapshotReturnsFramesAndPeakSinceTheLastOne)
{
    StreamStats stats;
    stats.add(2, 0.7f);
    stats.add(1, 0.5f);
    stats.add(0, 0.0f);
    auto snapshot = stats.snapshot();
    EXPECT_EQ(snapshot.frames, 3);
    EXPECT_EQ(snapshot.peak, 0.7f) << "the largest block peak";
    snapshot = stats.snapshot();
    EXPECT_EQ(snapshot.frames, 0);
    EXPECT_EQ(snapshot.peak, 0.0f);
}
