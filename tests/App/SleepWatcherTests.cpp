#include "Audio/EQLog.h"
#include "Platform/SleepWatcher.h"
#include "QtTestSupport.h"

#include <gtest/gtest.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>

#include <csignal>
#include <mutex>

using namespace std::chrono_literals;
using sorva::testing::processEventsUntil;
using sorva::testing::qtApp;

namespace sorva {
namespace {

// A private message bus for one test, stopped by PID when the test ends.
class PrivateBus {
public:
    PrivateBus()
    {
        QProcess daemon;
        daemon.start(QStringLiteral("dbus-daemon"),
                     { QStringLiteral("--session"), QStringLiteral("--fork"), QStringLiteral("--nopidfile"),
                       QStringLiteral("--print-address=1"), QStringLiteral("--print-pid=1") });
        if (!daemon.waitForFinished(5000))
            return;
        auto lines = QString::fromUtf8(daemon.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        if (lines.size() < 2)
            return;
        address = lines[0].trimmed();
        pid = lines[1].trimmed().toLongLong();
    }
    ~PrivateBus()
    {
        if (pid > 0)
            ::kill(static_cast<pid_t>(pid), SIGTERM);
    }
    QString address;
    qint64 pid = 0;
};

} // namespace

TEST(SleepWatcher, TurnsLogindsPrepareForSleepIntoSleepAndWake)
{
    qtApp();
    PrivateBus bus;
    ASSERT_FALSE(bus.address.isEmpty()) << "dbus-daemon did not start";

    // One connection plays logind, another is the one the watcher listens on.
    auto logind = QDBusConnection::connectToBus(bus.address, QStringLiteral("sleep-test-logind"));
    auto listener = QDBusConnection::connectToBus(bus.address, QStringLiteral("sleep-test-listener"));
    ASSERT_TRUE(logind.isConnected());
    ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));

    {
        SleepWatcher watcher(listener);
        EXPECT_TRUE(watcher.isWatching());
        std::vector<std::string> events;
        QObject::connect(&watcher, &SleepWatcher::willSleep, [&] { events.push_back("sleep"); });
        QObject::connect(&watcher, &SleepWatcher::didWake, [&] { events.push_back("wake"); });

        auto send = [&](bool start) {
            auto message = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                                      QStringLiteral("org.freedesktop.login1.Manager"),
                                                      QStringLiteral("PrepareForSleep"));
            message << start;
            ASSERT_TRUE(logind.send(message));
        };
        send(true);
        ASSERT_TRUE(processEventsUntil([&] { return events.size() == 1; }, 5s));
        send(false);
        ASSERT_TRUE(processEventsUntil([&] { return events.size() == 2; }, 5s));
        EXPECT_EQ(events, (std::vector<std::string> { "sleep", "wake" }));

        // The same signal from a program that is not logind is not a sleep.
        auto impostor = QDBusConnection::connectToBus(bus.address, QStringLiteral("sleep-test-impostor"));
        auto fake = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                               QStringLiteral("org.freedesktop.login1.Manager"),
                                               QStringLiteral("PrepareForSleep"));
        fake << true;
        ASSERT_TRUE(impostor.send(fake));
        processEventsUntil([] { return false; }, 50ms);
        EXPECT_EQ(events.size(), 2u);
        QDBusConnection::disconnectFromBus(QStringLiteral("sleep-test-impostor"));
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("sleep-test-logind"));
    QDBusConnection::disconnectFromBus(QStringLiteral("sleep-test-listener"));
}

TEST(SleepWatcher, WithoutABusLogsOnceAndCarriesOn)
{
    qtApp();
    std::vector<std::string> lines;
    std::mutex linesLock;
    EQLog::setObserver([&](const std::string& line) {
        std::lock_guard guard(linesLock);
        lines.push_back(line);
    });
    {
        auto nowhere = QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/sorva-test-bus"),
                                                     QStringLiteral("sleep-test-nowhere"));
        SleepWatcher watcher(nowhere);
        EXPECT_FALSE(watcher.isWatching());
        // Fed by hand it still works, so the program's wiring stays the same.
        int wakes = 0;
        QObject::connect(&watcher, &SleepWatcher::didWake, [&] { ++wakes; });
        watcher.handlePrepareForSleep(false);
        EXPECT_EQ(wakes, 1);
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("sleep-test-nowhere"));
    EQLog::setObserver({});
    std::lock_guard guard(linesLock);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("sleep and wake notifications unavailable: no system bus", 0), 0u) << lines[0];
}

} // namespace sorva
