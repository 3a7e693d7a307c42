// Why a lifecycle request was made. The coordinator accepts a trigger with a
// restart request and passes it along its steps, but no decision depends on
// its value; it exists so that callers say why they ask. Plain value type.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace sorva {

enum class AudioLifecycleTrigger : uint8_t {
    userEnabled,
    userDisabled,
    sleep,
    wake,
    deviceChange, // the engine's configuration callback (device or rate changed)
    configurationChange,
    tapWedged, // supervision found the tap delivering nothing
    shutdown,
};

// The case name ("deviceChange"), as log lines write it.
std::string_view caseName(AudioLifecycleTrigger trigger);

std::ostream& operator<<(std::ostream& stream, AudioLifecycleTrigger trigger);

} // namespace sorva
