// Read-only queries about output devices and about who is playing. Thin
// wrappers over AudioHardware property reads that never fail: a failed read
// gives "Unknown", no value, or false. Callable from any non-audio thread (the
// main thread in this program).
#pragma once

#include "Platform/AudioHardware.h"

#include <optional>
#include <string>

namespace sorva {

class OutputDevice {
public:
    // The device's name, or "Unknown" when it cannot be read.
    static std::string name(AudioHardware& hardware, AudioObjectID device);
    // The device's UID, or nothing when it cannot be read (an empty UID read
    // successfully is returned as it is).
    static std::optional<std::string> deviceUID(AudioHardware& hardware, AudioObjectID device);
};

class AudioActivity {
public:
    // True if some process other than this one is currently playing audio.
    // Unreadable entries are skipped; the first playing process decides.
    static bool isAnyProcessPlaying(AudioHardware& hardware);
};

} // namespace sorva
