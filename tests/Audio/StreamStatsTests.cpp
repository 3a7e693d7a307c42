#include "Audio/StreamStats.h"

#include <gtest/gtest.h>

#include <limits>

using namespace sorva;

// Record and snapshot on two threads run in the single-device engine's IO-thread test.
TEST(StreamStats, SnapshotReturnsFramesAndPeakSinceTheLastOne)
{
    StreamStats stats;
    const float first[] = { 0.1f, -0.7f, 0.3f, 0.2f }, second[] = { 0.5f, std::numeric_limits<float>::quiet_NaN() };
    stats.record(first, 4, 2);
    stats.record(second, 2, 1);
    stats.record(nullptr, 0, 0);
    auto snapshot = stats.snapshot();
    EXPECT_EQ(snapshot.frames, 3);
    EXPECT_EQ(snapshot.peak, 0.7f) << "the largest magnitude, NaN ignored";
    snapshot = stats.snapshot();
    EXPECT_EQ(snapshot.frames, 0);
    EXPECT_EQ(snapshot.peak, 0.0f);
}
