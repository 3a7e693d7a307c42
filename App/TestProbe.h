// What the window tests cannot see from outside the process, written to
// standard output as "probe ..." lines: whether a tray is available, where
// the panel's controls are on the screen when it opens, the power state and
// status, and
// after every configuration change the band gains with the first coefficient
// (b0) of each band's section in the running engine's published bank. On
// only when "SORVA_TEST_PROBE" is exactly "1"; no other effect.
//
// Threads: the main thread only.
#pragma once

#include <QObject>

class QWidget;

namespace sorva {

class EQController;

class TestProbe final : public QObject {
    Q_OBJECT
public:
    static bool requested();

    TestProbe(EQController& controller, QObject* parent = nullptr);

    void trayAvailable(bool available);
    // Lists every widget under panel that has an object name, in global
    // coordinates, then "probe panel shown KIND".
    void panelShown(const QWidget& panel, const char* kind);
    void panelHidden();
    void stopped();

private:
    void reportConfiguration();

    EQController& controller;
};

} // namespace sorva
