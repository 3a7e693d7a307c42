#include "Platform/QtMainExecutor.h"

#include <QMetaObject>
#include <QThread>
#include <QTimer>

#include <algorithm>

namespace sorva {

class QtMainExecutor::QtTimer final : public MainExecutor::Timer {
public:
    QtTimer(QObject& context, std::chrono::nanoseconds interval, std::function<void()> tick)
        : timer(new QTimer)
    {
        // Qt counts in milliseconds; a zero interval would fire on every
        // event-loop pass, so the shortest period is one millisecond.
        auto milliseconds = std::max<int64_t>(1, std::chrono::duration_cast<std::chrono::milliseconds>(interval).count());
        timer->setInterval(static_cast<int>(milliseconds));
        timer->setTimerType(Qt::PreciseTimer);
        QObject::connect(timer, &QTimer::timeout, timer, [tick = std::move(tick)] { tick(); });
        if (QThread::currentThread() == context.thread()) {
            timer->start();
        } else {
            // A QTimer can only be started from the thread it lives in.
            timer->moveToThread(context.thread());
            QMetaObject::invokeMethod(timer, qOverload<>(&QTimer::start), Qt::QueuedConnection);
        }
    }

    ~QtTimer() override
    {
        if (QThread::currentThread() == timer->thread()) {
            timer->stop();
            delete timer;
        } else {
            timer->deleteLater();
        }
    }

private:
    QTimer* timer;
};

QtMainExecutor::QtMainExecutor() = default;

QtMainExecutor::~QtMainExecutor() = default;

void QtMainExecutor::post(std::function<void()> job)
{
    // Queued calls to one receiver are delivered in posting order.
    QMetaObject::invokeMethod(&context, [job = std::move(job)] { job(); }, Qt::QueuedConnection);
}

std::unique_ptr<MainExecutor::Timer> QtMainExecutor::scheduleRepeating(std::chrono::nanoseconds interval,
                                                                       std::function<void()> tick)
{
    return std::make_unique<QtTimer>(context, interval, std::move(tick));
}

bool QtMainExecutor::isMainThread() const
{
    return QThread::currentThread() == context.thread();
}

} // namespace sorva
