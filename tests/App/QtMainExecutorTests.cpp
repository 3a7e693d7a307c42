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

TEST(QtMainExecutor, TimerFromAnyThreadTicksRepeatedlyOnTheMainThreadAndStopsWhenDestroyed)
{
    sorva::testing::qtApp();
    QtMainExecutor executor;
    for (bool fromOtherThread : { false, true }) {
        std::unique_ptr<MainExecutor::Timer> timer;
        int ticks = 0;
        bool onMain = true;
        auto schedule = [&] {
            timer = executor.scheduleRepeating(1ms, [&] {
                ++ticks;
                onMain = onMain && executor.isMainThread();
            });
        };
        if (fromOtherThread)
            std::thread(schedule).join();
        else
            schedule();
        ASSERT_TRUE(processEventsUntil([&] { return ticks >= 3; }, 2s)) << fromOtherThread;
        EXPECT_TRUE(onMain);
        timer.reset();
        int atCancel = ticks;
        processEventsUntil([] { return false; }, 20ms);
        EXPECT_EQ(ticks, atCancel) << fromOtherThread;
    }
}

} // namespace sorva
