// Shared helpers for tests that need a Qt event loop: one QCoreApplication for
// the whole test program, and a loop that processes events until a condition
// holds.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

#include <chrono>
#include <functional>

namespace sorva::testing {

inline QCoreApplication& qtApp()
{
    static int argc = 1;
    static char name[] = "sorva_app_tests";
    static char* argv[] = { name, nullptr };
    static QCoreApplication* app = QCoreApplication::instance() ? QCoreApplication::instance()
                                                                 : new QCoreApplication(argc, argv);
    return *app;
}

// Processes Qt events until done() holds or timeout passes; returns done().
inline bool processEventsUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    qtApp();
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeout.count())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

} // namespace sorva::testing
