#include "Platform/PriorityInheritanceMutex.h"
#include "ThreadState.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <pthread.h>
#include <sstream>
#include <thread>
#include <vector>

using namespace sorva;

namespace {

// The kernel's scheduling priority of a thread of this process: 20 for an
// ordinary thread at nice 0, -1 - p for a real-time one at priority p.
int kernelPriority(uint32_t tid)
{
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 18 && fields >> field; ++i) { } // state is field 3, priority 18
    return std::stoi(field);
}

template <typename Condition>
bool eventually(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace

// Four threads, some of them holding the lock across a sleep so that the
// others queue in the kernel: no increment is lost, and the lock ends free.
TEST(PriorityInheritanceMutex, ExcludesAcrossThreadsThroughTheKernelWhenContended)
{
    PriorityInheritanceMutex mutex;
    int64_t counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                std::lock_guard guard(mutex);
                const int64_t seen = counter;
                if (i % 250 == t)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                counter = seen + 1;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 8000);
    ASSERT_TRUE(mutex.try_lock()) << "the lock must end free";
    EXPECT_FALSE(mutex.try_lock()) << "held, even by its owner";
    std::thread other([&] { EXPECT_FALSE(mutex.try_lock()); });
    other.join();
    mutex.unlock();
}

// An ordinary thread holds the lock; a real-time thread asks for it. While it
// waits the holder runs at the waiter's priority, and drops back once it
// unlocks.
TEST(PriorityInheritanceMutex, LendsTheWaitersRealTimePriorityToTheHolder)
{
    PriorityInheritanceMutex mutex;
    std::atomic<uint32_t> holderID { 0 };
    std::atomic<bool> release { false }, unlocked { false }, finish { false }, waiterGotIt { false };
    std::thread holder([&] {
        mutex.lock();
        holderID = PriorityInheritanceMutex::currentThreadID();
        while (!release)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        mutex.unlock();
        unlocked = true;
        while (!finish)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    });
    ASSERT_TRUE(eventually([&] { return holderID != 0; }));
    const int ordinary = kernelPriority(holderID);

    std::atomic<int> started { -1 };
    std::atomic<uint32_t> waiterID { 0 };
    std::thread waiter([&] {
        sched_param param {};
        param.sched_priority = 10;
        started = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
        waiterID = PriorityInheritanceMutex::currentThreadID();
        if (started != 0)
            return;
        std::lock_guard guard(mutex);
        waiterGotIt = true;
    });
    ASSERT_TRUE(eventually([&] { return started != -1 && waiterID != 0; }));
    if (started != 0) {
        release = finish = true;
        holder.join();
        waiter.join();
        GTEST_SKIP() << "this machine does not let the test run a SCHED_FIFO thread (error " << started << ")";
    }
    EXPECT_TRUE(eventually([&] { return test::isAsleep(static_cast<pid_t>(waiterID.load())); }));
    EXPECT_TRUE(eventually([&] { return kernelPriority(holderID) == -11; }))
        << "holder at " << kernelPriority(holderID) << ", ordinary " << ordinary;
    EXPECT_FALSE(waiterGotIt);
    release = true;
    waiter.join();
    EXPECT_TRUE(waiterGotIt);
    ASSERT_TRUE(eventually([&] { return unlocked.load(); }));
    EXPECT_EQ(kernelPriority(holderID), ordinary) << "back to its own priority once it unlocked";
    finish = true;
    holder.join();
}
