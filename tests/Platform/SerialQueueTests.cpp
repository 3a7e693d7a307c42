#include "Platform/SerialQueue.h"

#include "ThreadState.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace sorva;

TEST(SerialQueue, RunsJobsInOrderOnItsOwnThreadAndFinishesQueuedJobsWhenDestroyed)
{
    auto queue = std::make_unique<SerialQueue>("com.sorva.app.listeners");
    std::vector<int> ran; // touched by the worker only until it has been joined
    bool current = false;
    queue->async([&] { ran.push_back(0); });
    queue->sync([&] {
        ran.push_back(1);
        current = queue->isCurrent();
    });
    EXPECT_TRUE(current);
    EXPECT_FALSE(queue->isCurrent());
    EXPECT_EQ(ran, (std::vector<int> { 0, 1 }));

    // The worker is held in a job until this thread sleeps in the destructor's
    // join, so the jobs behind it are still queued when the queue shuts down.
    const pid_t self = ::gettid();
    queue->async([self] {
        while (!test::isAsleep(self))
            std::this_thread::yield();
    });
    for (int i = 2; i < 20; ++i)
        queue->async([&ran, i] { ran.push_back(i); });
    queue.reset();
    ASSERT_EQ(ran.size(), 20u) << "jobs handed over before shutdown were dropped";
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(ran[size_t(i)], i);
}
