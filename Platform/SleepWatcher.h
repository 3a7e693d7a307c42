// Tells the program when the machine is about to sleep and when it woke up,
// from logind's PrepareForSleep(bool) signal on the system bus (true: about to
// sleep, false: woke up). Where no system bus or no logind is reachable, it
// logs that once and stays silent; the program runs on without sleep handling.
//
// Main thread only: the signals are emitted from the Qt event loop of the
// thread the watcher lives in.
#pragma once

#include <QDBusConnection>
#include <QObject>

namespace sorva {

class SleepWatcher final : public QObject {
    Q_OBJECT
public:
    // Watches logind on the system bus.
    explicit SleepWatcher(QObject* parent = nullptr);
    // Watches the login manager's signal on the given bus; tests hand in a
    // private bus on which they play logind.
    explicit SleepWatcher(const QDBusConnection& bus, QObject* parent = nullptr);

    // Whether the subscription is in place.
    bool isWatching() const { return watching; }

public slots:
    // logind's signal; public so that it can also be fed by hand.
    void handlePrepareForSleep(bool start);

signals:
    void willSleep();
    void didWake();

private:
    void subscribe(QDBusConnection bus);

    bool watching = false;
};

} // namespace sorva
