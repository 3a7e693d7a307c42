// A serial queue: one worker thread that runs submitted jobs one at a time, in
// submission order. The thread is named after the queue's label (truncated to
// the 15 characters Linux allows). Jobs still queued when the queue is
// destroyed are run before the worker exits, so nothing handed over is lost.
//
// async() may be called from any thread except the audio thread (it
// allocates). sync() waits for every earlier job and then runs the given one.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace sorva {

class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return queueLabel; }

    void async(std::function<void()> job);
    // Runs job on the queue and waits for it. Must not be called from the
    // queue's own thread.
    void sync(const std::function<void()>& job);
    // Waits until every job submitted so far has run.
    void drain();
    bool isCurrent() const;

private:
    void run();

    std::string queueLabel;
    std::mutex jobsLock;
    std::condition_variable jobsChanged;
    std::deque<std::function<void()>> jobs;
    bool stopping = false;
    std::thread worker;
};

} // namespace sorva
