// One QApplication for the whole test program, on the offscreen platform so
// that widgets and local sockets work without a display.
#pragma once

#include <QApplication>
#include <QElapsedTimer>

#include <chrono>
#include <functional>

namespace sorva::testing {

inline QApplication& widgetApp()
{
    static int argc = 1;
    static char name[] = "sorva_shell_tests";
    static char* argv[] = { name, nullptr };
    static QApplication* app = [] {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        return new QApplication(argc, argv);
    }();
    return *app;
}

// Processes events until done() holds or the timeout passes; returns done().
inline bool processEventsUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    widgetApp();
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
