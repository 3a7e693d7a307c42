#include "Platform/SerialQueue.h"

#include <pthread.h>

namespace sorva {

SerialQueue::SerialQueue(std::string label)
    : queueLabel(std::move(label))
{
    worker = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue()
{
    {
        std::lock_guard guard(jobsLock);
        stopping = true;
    }
    jobsChanged.notify_all();
    if (worker.joinable())
        worker.join();
}

void SerialQueue::async(std::function<void()> job)
{
    {
        std::lock_guard guard(jobsLock);
        jobs.push_back(std::move(job));
    }
    jobsChanged.notify_one();
}

void SerialQueue::sync(const std::function<void()>& job)
{
    std::mutex doneLock;
    std::condition_variable doneChanged;
    bool done = false;
    async([&] {
        job();
        std::lock_guard guard(doneLock);
        done = true;
        doneChanged.notify_one();
    });
    std::unique_lock guard(doneLock);
    doneChanged.wait(guard, [&] { return done; });
}

void SerialQueue::drain()
{
    sync([] {});
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == worker.get_id(); }

void SerialQueue::run()
{
    // Linux limits thread names to 15 characters; keep the distinctive tail
    // ("app.listeners" rather than "com.sorva.app.l").
    std::string name = queueLabel.size() > 15 ? queueLabel.substr(queueLabel.size() - 15) : queueLabel;
    pthread_setname_np(pthread_self(), name.c_str());

    std::unique_lock guard(jobsLock);
    for (;;) {
        jobsChanged.wait(guard, [this] { return stopping || !jobs.empty(); });
        if (jobs.empty() && stopping)
            return;
        auto job = std::move(jobs.front());
        jobs.pop_front();
        guard.unlock();
        job();
        guard.lock();
    }
}

} // namespace sorva
