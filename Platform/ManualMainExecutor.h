// A MainExecutor for tests and for programs without an event loop: posted jobs
// wait in a queue until the owner runs them, and timers fire only when the
// owner advances its virtual clock. The thread that constructs it is the
// "main thread" (change it with adoptCurrentThread()).
//
// post() and scheduleRepeating() are thread-safe. runPending(), runNext() and
// advance() must be called on the main thread.
#pragma once

#include "Platform/MainExecutor.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace sorva {

class ManualMainExecutor final : public MainExecutor {
public:
    ManualMainExecutor();
    ~ManualMainExecutor() override;

    void post(std::function<void()> job) override;
    std::unique_ptr<Timer> scheduleRepeating(std::chrono::nanoseconds interval, std::function<void()> tick) override;
    bool isMainThread() const override;

    void adoptCurrentThread();

    // Runs queued jobs, including jobs they post, until the queue is empty.
    // Returns how many ran.
    int runPending();

    // Waits up to timeout for a job and runs it. Returns whether one ran.
    bool runNext(std::chrono::milliseconds timeout);

    // Keeps running jobs as they arrive until done() is true (checked after
    // each job and at least every few milliseconds) or timeout passes.
    // Returns done().
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    // Moves the virtual clock forward, firing due timer ticks in time order
    // (running posted jobs after each tick).
    void advance(std::chrono::nanoseconds duration);

    // Virtual time in nanoseconds since construction.
    uint64_t now() const;

    size_t pendingJobs() const;
    size_t activeTimers() const;

private:
    struct TimerEntry {
        uint64_t interval;
        uint64_t nextFire;
        std::function<void()> tick;
    };
    class ManualTimer;

    void cancel(uint64_t id);

    mutable std::mutex queueLock;
    std::condition_variable queueChanged;
    std::deque<std::function<void()>> jobs;
    std::map<uint64_t, TimerEntry> timers;
    uint64_t nextTimerId = 1;
    uint64_t virtualNow = 0;
    std::thread::id mainThread;
};

} // namespace sorva
