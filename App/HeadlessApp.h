// The program without a panel: runs the controller in a QCoreApplication with
// the same settings, log and supervision as the tray application. Start-up:
// observeWake(), then setRunning(true) when "SORVA_AUTOSTART" is exactly "1",
// otherwise restorePreviousState(). SIGINT and SIGTERM run the shut-down
// (stopProcessor()), so that other programs' audio goes straight to the device
// again, and end the event loop.
//
// Threads: runHeadless() runs on the process's main thread and returns when
// the program ends.
#pragma once

#include <string>
#include <vector>

namespace sorva {

struct HeadlessOptions {
    // The simulated audio system at real-time pace with a generated
    // music-like input, instead of PipeWire.
    bool simulate = false;
};

// Whether the environment offers a display for a panel (DISPLAY or
// WAYLAND_DISPLAY set and non-empty).
bool displayAvailable();

// Whether the value of "SORVA_AUTOSTART" asks for processing at launch: only
// the exact text "1" does.
bool autostartRequested(const char* value);

// Runs until SIGINT/SIGTERM; returns the process's exit status.
int runHeadless(int argc, char** argv, const HeadlessOptions& options);

} // namespace sorva
