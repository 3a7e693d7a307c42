// The tray application as a module of its own ("sorva-panel.so"): the
// program loads it only when it runs under a display, so that the headless
// program and `sorva process` start without Qt's GUI libraries, about half
// of what the whole program would otherwise load before main().
#pragma once

extern "C" {

// Runs the tray application (runPanelApp) until it quits; its exit status.
int sorva_run_panel_app(int argc, char** argv, bool simulate);
}

namespace sorva {

inline constexpr const char* panelEntryName = "sorva_run_panel_app";
using PanelEntry = int (*)(int argc, char** argv, bool simulate);

} // namespace sorva
