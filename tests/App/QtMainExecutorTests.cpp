#include "Platform/QtMainExecutor.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace std::chrono_literals;
using sorva::testing::processEventsUntil;

namespace sorva {

TEST(QtMainExecutor, RunsJobsFromEveryThreadOnTheMainThreadInPostingOrder)
{
    sorva::testing::qtApp();
    QtMainExecutor executor;
    EXPECT_TRUE(executor.isMainThread());
    constexpr int threads = 4, perThread = 200;
    std::vector<std::pair<int, int>> ran; // (thread, sequence) in the order run
    bool allOnMain = true, lastRan = false;
    std::vector<std::thread> posters;
    for (int t = 0; t < threads; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                executor.post([&, t, i] {
                    allOnMain = allOnMain && executor.isMainThread();
                    ran.emplace_back(t, i);
                });
        });
    for (auto& poster : posters)
        poster.join();
    // A job posted from the main thread after all others runs last.
    executor.post([&] { lastRan = ran.size() == threads * perThread; });
    ASSERT_TRUE(processEventsUntil([&] { return lastRan; }, 5s));
    EXPECT_TRUE(allOnMain);
    std::vector<int> next(threads, 0);
    for (auto [t, i] : ran)
        EXPECT_EQ(i, next[t]++) << "thread " << t;
}

// Scheduled from another thread, a timer ticks on the main thread; once
// destroyed it stays silent while a later timer ticks several times.
TEST(QtMainExecutor, TimerFromAnyThreadTicksOnTheMainThreadUntilDestroyed)
{
    sorva::testing::qtApp();
    QtMainExecutor executor;
    int ticks = 0, later = 0;
    bool onMain = true;
    std::unique_ptr<MainExecutor::Timer> timer;
    std::thread([&] {
        timer = executor.scheduleRepeating(1ms, [&] {
            ++ticks;
            onMain = onMain && executor.isMainThread();
        });
    }).join();
    ASSERT_TRUE(processEventsUntil([&] { return ticks >= 3; }, 2s));
    EXPECT_TRUE(onMain);
    timer.reset();
    const int atCancel = ticks;
    auto marker = executor.scheduleRepeating(1ms, [&] { ++later; });
    ASSERT_TRUE(processEventsUntil([&] { return later >= 5; }, 2s));
    EXPECT_EQ(ticks, atCancel);
}

} // namespace sorva
