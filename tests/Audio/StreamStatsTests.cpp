#include "Audio/StreamStats.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

using namespace sorva;

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

TEST(StreamStats, NothingIsLostBetweenRecordAndSnapshotOnTwoThreads)
{
    StreamStats stats;
    std::vector<float> block(1024, 0.25f);
    block[7] = -0.5f;
    std::atomic<bool> done { false };
    std::thread audio([&] {
        for (int i = 0; i < 5000; ++i)
            stats.record(block.data(), 1024, 512);
        done = true;
    });
    int64_t frames = 0;
    float peak = 0;
    for (bool last = false; !last;) {
        last = done.load(); // one more snapshot after the last record
        const auto s = stats.snapshot();
        frames += s.frames;
        peak = std::max(peak, s.peak);
    }
    audio.join();
    EXPECT_EQ(frames, 5000 * 512);
    EXPECT_EQ(peak, 0.5f);
}
