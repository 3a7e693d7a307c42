// The main thread as seen by code that must not depend on Qt: engines, the
// lifecycle coordinator and the diagnostic recorder post work to it and run
// timers on it through this interface. The program's implementation drives the
// Qt event loop; tests use ManualMainExecutor, which runs posted work only when
// the test says so.
//
// post() and schedule() may be called from any thread except the audio thread.
// Posted jobs run in posting order (one first-in first-out queue).
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace sorva {

class MainExecutor {
public:
    // A scheduled timer. Destroying it (on the main thread) cancels it: no tick
    // runs after the destructor returns.
    class Timer {
    public:
        virtual ~Timer() = default;
    };

    virtual ~MainExecutor() = default;

    virtual void post(std::function<void()> job) = 0;

    // Calls tick on the main thread every interval, the first time one interval
    // from now, until the returned timer is destroyed.
    virtual std::unique_ptr<Timer> scheduleRepeating(std::chrono::nanoseconds interval, std::function<void()> tick) = 0;

    virtual bool isMainThread() const = 0;
};

} // namespace sorva
