#include "Platform/SleepWatcher.h"

#include "Audio/EQLog.h"

#include <QDBusError>

namespace sorva {

namespace {
const char* const loginService = "org.freedesktop.login1";
const char* const loginPath = "/org/freedesktop/login1";
const char* const loginManager = "org.freedesktop.login1.Manager";
} // namespace

SleepWatcher::SleepWatcher(QObject* parent)
    : QObject(parent)
{
    subscribe(QDBusConnection::systemBus());
}

SleepWatcher::SleepWatcher(const QDBusConnection& bus, QObject* parent)
    : QObject(parent)
{
    subscribe(bus);
}

void SleepWatcher::subscribe(QDBusConnection bus)
{
    if (!bus.isConnected()) {
        auto reason = bus.lastError().message().toStdString();
        EQLog::trace([reason] {
            return "sleep and wake notifications unavailable: no system bus"
                + (reason.empty() ? std::string() : " (" + reason + ")");
        });
        return;
    }
    // QtDBus only offers string-based slots for bus signals. Naming the
    // service makes the bus deliver the signal only from logind's owner.
    watching = bus.connect(QString::fromLatin1(loginService), QString::fromLatin1(loginPath),
                           QString::fromLatin1(loginManager), QStringLiteral("PrepareForSleep"), this,
                           SLOT(handlePrepareForSleep(bool)));
    if (!watching) {
        auto reason = bus.lastError().message().toStdString();
        EQLog::trace([reason] { return "sleep and wake notifications unavailable: " + reason; });
    }
}

void SleepWatcher::handlePrepareForSleep(bool start)
{
    if (start)
        emit willSleep();
    else
        emit didWake();
}

} // namespace sorva
