// The tray application: one tray icon that follows the controller's running
// state ("waveform" / "waveform.slash"), toggles the panel when activated and
// offers the panel, the power switch and Quit in its context menu. The panel
// is built the first time it opens, so a launch into the tray spends nothing
// on it before processing starts. Without any system tray the panel opens at
// once as a small normal window. A later launch of the program opens the
// running one's panel (SingleInstance).
//
// runPanelApp() is the program under a display: it builds the QApplication,
// the one controller (EQController::shared()), this object and the delegate,
// and runs the event loop. The delegate's start-up runs once the loop runs;
// its shut-down on Quit, SIGINT/SIGTERM and the session logging out.
//
// Threads: the main thread only.
#pragma once

#include <QObject>
#include <QRect>

#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace sorva {

class EQController;
class EQPanelView;
class PanelWindow;
class TestProbe;

struct PanelAppOptions {
    // The simulated audio system instead of PipeWire (demos, window tests).
    bool simulate = false;
};

class SORVAApp final : public QObject {
    Q_OBJECT
public:
    // probe: optional; reports what the window tests check.
    SORVAApp(EQController& controller, TestProbe* probe, QObject* parent = nullptr);
    ~SORVAApp() override;

    // Shows the tray icon, or the panel as a window when there is no tray.
    void show();
    // Opens the panel (a later launch asked for it).
    void openPanel();

    // The tray icon's resource for a running state.
    static QString iconResource(bool running);

private:
    // The panel, built the first time it is opened.
    PanelWindow& panel();
    void updateIcon(bool running);
    QRect iconGeometry() const;

    EQController& controller;
    TestProbe* probe;
    EQPanelView* view = nullptr;
    std::unique_ptr<PanelWindow> window;
    QSystemTrayIcon* tray = nullptr;
    std::unique_ptr<QMenu> menu;
    QAction* powerAction = nullptr;
};

// Runs the tray application until it quits; returns the exit status (0, or 0
// at once when another instance runs and was asked to open its panel).
int runPanelApp(int argc, char** argv, const PanelAppOptions& options);

} // namespace sorva
