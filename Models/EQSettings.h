// Typed access to the per-user settings file, an INI file kept by QSettings at
// $XDG_CONFIG_HOME/sorva/sorva.conf (~/.config/sorva/sorva.conf when the
// variable is unset or not an absolute path). Keys: "bandGains",
// "outputGain", "eqEnabled", "bufferedMode", "bufferLatencyMs".
//
// Reads never fail: a missing, hand-edited, truncated or corrupt file yields
// the documented defaults. Every write is synced at once; QSettings replaces
// the file through a temporary file and a rename, so an interrupted write
// leaves the previous file whole and no write loses the other keys.
//
// Threads: the main thread only. The path is resolved on every call, so a
// change of XDG_CONFIG_HOME (tests) takes effect at the next call.
#pragma once

#include "Models/EQBand.h"
#include "Models/EQConfig.h"

#include <filesystem>
#include <vector>

namespace sorva::EQSettings {

// The settings file this process reads and writes.
std::filesystem::path filePath();

// The configuration to start with: the default configuration, with the stored
// band gains (clamped to -24 ... +24 dB) and output gain (clamped to
// -6 ... +6 dB) if "bandGains" holds exactly one number per default band.
EQConfig loadConfig();

// Stores the bands' gains, in order, as "bandGains".
void saveGains(const std::vector<EQBand>& bands);

// "bufferedMode" if it is stored as a boolean ("true" or "false"), otherwise
// false.
bool bufferedMode();

// The keys the controller owns, with the same typed-read rules.
// "outputGain" as stored (0 when absent or not a number), unclamped.
void saveOutputGain(double gainDB);
// "eqEnabled"; false when absent or unreadable.
bool eqEnabled();
void setEQEnabled(bool enabled);
// "bufferLatencyMs"; 125 when absent, not a finite number, 0 or negative.
double bufferLatencyMs();

} // namespace sorva::EQSettings
