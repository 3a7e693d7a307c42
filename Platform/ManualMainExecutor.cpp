#include "Platform/ManualMainExecutor.h"

namespace sorva {

class ManualMainExecutor::ManualTimer final : public MainExecutor::Timer {
public:
    ManualTimer(ManualMainExecutor& owner, uint64_t id)
        : owner(owner)
        , id(id)
    {
    }
    ~ManualTimer() override { owner.cancel(id); }

private:
    ManualMainExecutor& owner;
    uint64_t id;
};

ManualMainExecutor::ManualMainExecutor()
    : mainThread(std::this_thread::get_id())
{
}

ManualMainExecutor::~ManualMainExecutor() = default;

void ManualMainExecutor::post(std::function<void()> job)
{
    {
        std::lock_guard guard(queueLock);
        jobs.push_back(std::move(job));
    }
    queueChanged.notify_all();
}

std::unique_ptr<MainExecutor::Timer> ManualMainExecutor::scheduleRepeating(std::chrono::nanoseconds interval,
                                                                           std::function<void()> tick)
{
    std::lock_guard guard(queueLock);
    uint64_t id = nextTimerId++;
    auto step = static_cast<uint64_t>(std::max<int64_t>(interval.count(), 1));
    timers.emplace(id, TimerEntry { step, virtualNow + step, std::move(tick) });
    return std::make_unique<ManualTimer>(*this, id);
}

bool ManualMainExecutor::isMainThread() const
{
    std::lock_guard guard(queueLock);
    return std::this_thread::get_id() == mainThread;
}

void ManualMainExecutor::adoptCurrentThread()
{
    std::lock_guard guard(queueLock);
    mainThread = std::this_thread::get_id();
}

int ManualMainExecutor::runPending()
{
    int ran = 0;
    for (;;) {
        std::function<void()> job;
        {
            std::lock_guard guard(queueLock);
            if (jobs.empty())
                return ran;
            job = std::move(jobs.front());
            jobs.pop_front();
        }
        job();
        ++ran;
    }
}

bool ManualMainExecutor::runNext(std::chrono::milliseconds timeout)
{
    std::function<void()> job;
    {
        std::unique_lock guard(queueLock);
        if (!queueChanged.wait_for(guard, timeout, [this] { return !jobs.empty(); }))
            return false;
        job = std::move(jobs.front());
        jobs.pop_front();
    }
    job();
    return true;
}

bool ManualMainExecutor::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return done();
        runNext(std::chrono::milliseconds(2));
    }
    return true;
}

void ManualMainExecutor::advance(std::chrono::nanoseconds duration)
{
    uint64_t target;
    {
        std::lock_guard guard(queueLock);
        target = virtualNow + static_cast<uint64_t>(duration.count());
    }
    runPending();
    for (;;) {
        std::function<void()> tick;
        {
            std::lock_guard guard(queueLock);
            auto due = timers.end();
            for (auto it = timers.begin(); it != timers.end(); ++it) {
                if (it->second.nextFire <= target && (due == timers.end() || it->second.nextFire < due->second.nextFire))
                    due = it;
            }
            if (due == timers.end()) {
                virtualNow = target;
                return;
            }
            virtualNow = due->second.nextFire;
            due->second.nextFire += due->second.interval;
            tick = due->second.tick;
        }
        tick();
        runPending();
    }
}

uint64_t ManualMainExecutor::now() const
{
    std::lock_guard guard(queueLock);
    return virtualNow;
}

size_t ManualMainExecutor::pendingJobs() const
{
    std::lock_guard guard(queueLock);
    return jobs.size();
}

size_t ManualMainExecutor::activeTimers() const
{
    std::lock_guard guard(queueLock);
    return timers.size();
}

void ManualMainExecutor::cancel(uint64_t id)
{
    std::lock_guard guard(queueLock);
    timers.erase(id);
}

} // namespace sorva
