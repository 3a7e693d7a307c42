// One running program per user. The first instance listens on a local socket
// in $XDG_RUNTIME_DIR (named after the user id; the per-user temporary folder
// where that variable is unset). A later launch connects, asks the running
// instance to open its panel and exits; the running one emits
// openPanelRequested().
//
// Who runs is decided by a lock (flock) on a file next to the socket, held
// for the life of the process and released by the kernel even after a crash:
// the holder removes any socket left behind and listens; a launch that does
// not get the lock asks the holder to open its panel.
//
// Threads: the main thread (the socket notifications arrive on its event
// loop).
#pragma once

#include <QObject>
#include <QString>

class QLocalServer;

namespace sorva {

class SingleInstance final : public QObject {
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);
    ~SingleInstance() override;

    // The socket's path for this user, or empty when no private folder exists.
    static QString socketPath();

    // Asks the instance listening at path to open its panel. True when it
    // confirmed within timeoutMs.
    static bool askRunningInstance(const QString& path, int timeoutMs);

    enum class Outcome {
        listening,
        // Another live instance holds the socket; it has been asked to open
        // its panel.
        anotherInstance,
        // No socket could be made (logged); the program runs on without.
        unavailable,
    };
    // Takes the lock (path + ".lock") and starts listening at path.
    Outcome listen(const QString& path);

    // The request a later launch sends, and the running instance's answer.
    static constexpr const char* openPanelRequest = "open-panel\n";
    static constexpr const char* acknowledgement = "ok\n";

signals:
    void openPanelRequested();

private:
    void acceptConnections();

    QLocalServer* server = nullptr;
    int lockFd = -1;
};

} // namespace sorva
