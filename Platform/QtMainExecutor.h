// The program's MainExecutor: the Qt event loop of the thread that constructs
// it (the main thread). Jobs are delivered as queued calls on one context
// object, so they run in posting order, whichever thread posted them. Timers
// are QTimers living in the main thread.
//
// post() and scheduleRepeating() may be called from any thread; a timer must
// be destroyed on the main thread (destroying it elsewhere defers the
// cancellation to the event loop). A QCoreApplication must exist.
#pragma once

#include "Platform/MainExecutor.h"

#include <QObject>

namespace sorva {

class QtMainExecutor final : public MainExecutor {
public:
    QtMainExecutor();
    ~QtMainExecutor() override;

    void post(std::function<void()> job) override;
    std::unique_ptr<Timer> scheduleRepeating(std::chrono::nanoseconds interval, std::function<void()> tick) override;
    bool isMainThread() const override;

private:
    class QtTimer;

    // Lives in the main thread; queued calls on it run there in order.
    QObject context;
};

} // namespace sorva
