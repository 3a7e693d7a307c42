#include "App/HeadlessApp.h"

#include "App/ProgramEnvironment.h"

#include "Audio/EQController.h"
#include "Audio/EQLog.h"
#include "Platform/TerminationSignals.h"

#include <QCoreApplication>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

namespace sorva {

bool displayAvailable()
{
    for (const char* name : { "DISPLAY", "WAYLAND_DISPLAY" }) {
        const char* value = std::getenv(name);
        if (value && *value)
            return true;
    }
    return false;
}

bool autostartRequested(const char* value)
{
    return value && std::strcmp(value, "1") == 0;
}

namespace {

const char* signalName(int signalNumber)
{
    return signalNumber == SIGINT ? "SIGINT" : signalNumber == SIGTERM ? "SIGTERM" : "signal";
}

} // namespace

int runHeadless(int argc, char** argv, const HeadlessOptions& options)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("sorva"));

    ProgramEnvironment environment;
    if (!environment.install(options.simulate))
        return 1;
    EQController& controller = EQController::shared();

    // Without a panel the log is where the status shows: each change of kind
    // (or of a failure's message), not each second's new peak.
    QObject::connect(&controller, &EQController::statusChanged, &app,
                     [last = std::optional<EQController::Status>()](const EQController::Status& status) mutable {
                         if (last && last->kind == status.kind && last->message == status.message)
                             return;
                         last = status;
                         std::string text = status.kind == EQController::Status::Case::capturing ? "capturing"
                                                                                                 : status.description();
                         EQLog::trace("status: " + text);
                     });

    TerminationSignals termination;
    QObject::connect(&termination, &TerminationSignals::received, &app, [&controller](int signalNumber) {
        EQLog::trace(std::string("received ") + signalName(signalNumber) + " — stopping processing");
        controller.stopProcessor();
        EQLog::trace("processing stopped — exiting");
        QCoreApplication::quit();
    });

    // Once the event loop runs, as the application shell does when launching
    // has finished.
    QTimer::singleShot(0, &controller, [&controller] {
        controller.observeWake();
        if (autostartRequested(std::getenv("SORVA_AUTOSTART")))
            controller.setRunning(true);
        else
            controller.restorePreviousState();
    });

    environment.startSimulation();
    int status = QCoreApplication::exec();
    // A quit without a signal (none today) still leaves nothing running.
    controller.stopProcessor();
    environment.stopSimulation();
    EQController::destroyShared();
    EQLog::flush();
    return status;
}

} // namespace sorva
