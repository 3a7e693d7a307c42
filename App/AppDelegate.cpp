#include "App/AppDelegate.h"

#include "App/HeadlessApp.h"
#include "Audio/EQController.h"

#include <QCoreApplication>
#include <QThread>

#include <cassert>
#include <cstdlib>

namespace sorva {

void AppDelegate::applicationDidFinishLaunching()
{
    assert(QThread::currentThread() == QCoreApplication::instance()->thread());
    EQController& controller = EQController::shared();
    controller.observeWake();
    if (autostartRequested(std::getenv("SORVA_AUTOSTART")))
        controller.setRunning(true);
    else
        controller.restorePreviousState();
}

void AppDelegate::applicationWillTerminate()
{
    assert(QThread::currentThread() == QCoreApplication::instance()->thread());
    EQController::shared().stopProcessor();
}

} // namespace sorva
