// Launch at login through an XDG autostart entry:
// $XDG_CONFIG_HOME/autostart/sorva.desktop (~/.config/autostart when the
// variable is unset or not an absolute path), whose Exec line starts this very
// program. The application counts as registered while that file exists and
// neither hides it (Hidden=true) nor switches it off for GNOME
// (X-GNOME-Autostart-enabled=false).
//
// Threads: the main thread only.
#pragma once

#include <filesystem>
#include <string>

namespace sorva::LoginItem {

// The autostart entry this process writes and removes.
std::filesystem::path entryPath();

// Registers (true) or unregisters (false) the program as a login item. A
// failure is logged as "login item register failed: ..." or "login item
// unregister failed: ..." and reported no further. Returns whether the
// program is registered afterwards, read back from the file system.
bool setEnabled(bool enabled);

// Whether the program is registered now.
bool isEnabled();

// The entry's Exec value for a program at this path, quoted and escaped as
// desktop entries require.
std::string execValue(const std::filesystem::path& program);

} // namespace sorva::LoginItem
