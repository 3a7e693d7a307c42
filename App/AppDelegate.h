// The application's lifecycle callbacks. Holds no state: both callbacks take
// the one controller, EQController::shared().
//
// Threads: the main thread only.
#pragma once

namespace sorva {

class AppDelegate {
public:
    // Once the event loop runs: subscribes to sleep and wake first, then
    // switches processing on when "SORVA_AUTOSTART" is exactly "1", otherwise
    // restores what the user left. Returns at once; the controller starts the
    // engine through its coordinator.
    void applicationDidFinishLaunching();

    // When the program ends (Quit, SIGINT/SIGTERM, the session logging out):
    // tears the engines down synchronously, so that other programs' audio
    // goes straight to the device again. Saves nothing.
    void applicationWillTerminate();
};

} // namespace sorva
