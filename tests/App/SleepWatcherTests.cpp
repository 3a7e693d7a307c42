#include "Platform/SleepWatcher.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>

#include <csignal>

using namespace std::chrono_literals;
using sorva::testing::processEventsUntil;

namespace sorva {

TEST(SleepWatcher, TurnsLogindsPrepareForSleepIntoSleepAndWakeAndIgnoresImpostors)
{
    sorva::testing::qtApp();
    // A private message bus, stopped by its PID at the end.
    QProcess daemon;
    daemon.start(QStringLiteral("dbus-daemon"), { QStringLiteral("--session"), QStringLiteral("--fork"),
                                                  QStringLiteral("--nopidfile"), QStringLiteral("--print-address=1"),
                                                  QStringLiteral("--print-pid=1") });
    ASSERT_TRUE(daemon.waitForFinished(5000));
    auto output = QString::fromUtf8(daemon.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(output.size(), 2) << "dbus-daemon did not start";
    auto address = output[0].trimmed();
    struct StopBus {
        pid_t pid;
        ~StopBus() { if (pid > 0) ::kill(pid, SIGTERM); }
    } stopBus { static_cast<pid_t>(output[1].trimmed().toLongLong()) };
    const QStringList names { QStringLiteral("sleep-test-logind"), QStringLiteral("sleep-test-listener"),
                              QStringLiteral("sleep-test-impostor") };
    {
        auto logind = QDBusConnection::connectToBus(address, names[0]);
        auto impostor = QDBusConnection::connectToBus(address, names[2]);
        ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));
        SleepWatcher watcher(QDBusConnection::connectToBus(address, names[1]));
        EXPECT_TRUE(watcher.isWatching());
        std::vector<std::string> events;
        QObject::connect(&watcher, &SleepWatcher::willSleep, [&] { events.push_back("sleep"); });
        QObject::connect(&watcher, &SleepWatcher::didWake, [&] { events.push_back("wake"); });
        auto send = [](QDBusConnection& sender, bool start) {
            auto message = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                                      QStringLiteral("org.freedesktop.login1.Manager"),
                                                      QStringLiteral("PrepareForSleep"));
            message << start;
            return sender.send(message);
        };
        // The same signal from a program that is not logind is not a sleep:
        // once the bus has answered the impostor, it has passed its signal
        // on, ahead of logind's that follow.
        ASSERT_TRUE(send(impostor, true));
        ASSERT_TRUE(impostor.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1")));
        ASSERT_TRUE(send(logind, true));
        ASSERT_TRUE(processEventsUntil([&] { return events.size() == 1; }, 5s));
        ASSERT_TRUE(send(logind, false));
        ASSERT_TRUE(processEventsUntil([&] { return events.size() == 2; }, 5s));
        EXPECT_EQ(events, (std::vector<std::string> { "sleep", "wake" }));
    }
    for (const auto& name : names)
        QDBusConnection::disconnectFromBus(name);
}

} // namespace sorva
