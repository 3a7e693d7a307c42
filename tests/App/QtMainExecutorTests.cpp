#include "Platform/QtMainExecutor.h"
#include "QtTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using sorva::testing::processEventsUntil;
using sorva::testing::qtApp;

namespace sorva {

TEST(QtMainExecutor, RunsJobsFromEveryThreadOnTheMainThreadInPostingOrder)
{
    qtApp();
    QtMainExecutor executor;
    EXPECT_TRUE(executor.isMainThread());

    std::vector<std::pair<int, int>> ran; // (thread, sequence) as run on the main thread
    bool allOnMain = true;
    constexpr int threads = 4, perThread = 200;
    std::vector<std::thread> posters;
    std::atomic<bool> offMainSeen { false };
    for (int t = 0; t < threads; ++t) {
        posters.emplace_back([&, t] {
            if (!executor.isMainThread())
                offMainSeen = true;
            for (int i = 0; i < perThread; ++i)
                executor.post([&, t, i] {
                    allOnMain = allOnMain && executor.isMainThread();
                    ran.emplace_back(t, i);
                });
        });
    }
    for (auto& poster : posters)
        poster.join();
    // A job posted from the main thread after all others runs last.
    bool lastRan = false;
    executor.post([&] { lastRan = ran.size() == threads * perThread; });

    ASSERT_TRUE(processEventsUntil([&] { return ran.size() == threads * perThread && lastRan; }, 5s));
    EXPECT_TRUE(offMainSeen);
    EXPECT_TRUE(allOnMain);
    std::vector<int> next(threads, 0);
    for (auto [t, i] : ran) {
        EXPECT_EQ(i, next[t]) << "thread " << t;
        next[t] = i + 1;
    }
}

TEST(QtMainExecutor, TimerTicksRepeatedlyAndStopsWhenDestroyed)
{
    qtApp();
    QtMainExecutor executor;
    int ticks = 0;
    auto timer = executor.scheduleRepeating(2ms, [&] { ++ticks; });
    ASSERT_TRUE(processEventsUntil([&] { return ticks >= 3; }, 2s));
    timer.reset();
    int atCancel = ticks;
    processEventsUntil([] { return false; }, 20ms);
    EXPECT_EQ(ticks, atCancel);
}

TEST(QtMainExecutor, TimerScheduledFromAnotherThreadTicksOnTheMainThread)
{
    qtApp();
    QtMainExecutor executor;
    std::unique_ptr<MainExecutor::Timer> timer;
    int ticks = 0;
    bool onMain = true;
    std::thread([&] {
        timer = executor.scheduleRepeating(1ms, [&] {
            ++ticks;
            onMain = onMain && executor.isMainThread();
        });
    }).join();
    ASSERT_TRUE(processEventsUntil([&] { return ticks >= 2; }, 2s));
    EXPECT_TRUE(onMain);
    timer.reset();
    int atCancel = ticks;
    processEventsUntil([] { return false; }, 10ms);
    EXPECT_EQ(ticks, atCancel);
}

} // namespace sorva
