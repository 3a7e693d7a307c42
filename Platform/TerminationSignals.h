// Turns SIGINT and SIGTERM into a Qt signal on the main thread, so that the
// program can run its orderly shut-down (stop the engine, give other programs'
// audio back to the device) instead of dying mid-cycle.
//
// The handlers only write one byte to a self-pipe (async-signal-safe); a
// QSocketNotifier on the pipe's read end emits received() from the event loop
// of the thread that created the object. One instance per process; the
// previous dispositions are restored when it is destroyed.
#pragma once

#include <QObject>

#include <csignal>

class QSocketNotifier;

namespace sorva {

class TerminationSignals final : public QObject {
    Q_OBJECT
public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

    // False when the pipe or the handlers could not be set up (the reason was
    // logged); the default dispositions then stay in force.
    bool isInstalled() const { return installed; }

signals:
    // The signal number: SIGINT or SIGTERM.
    void received(int signalNumber);

private:
    void drain();

    int pipeFds[2] = { -1, -1 };
    QSocketNotifier* notifier = nullptr;
    struct sigaction previousInt {};
    struct sigaction previousTerm {};
    bool installed = false;
};

} // namespace sorva
