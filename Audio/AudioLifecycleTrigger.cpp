#include "Audio/AudioLifecycleTrigger.h"

#include <array>
#include <ostream>

namespace sorva {

std::string_view caseName(AudioLifecycleTrigger trigger)
{
    // In declaration order, so that the enumerator's value indexes its name.
    static constexpr std::array<std::string_view, 8> names {
        "userEnabled", "userDisabled", "sleep", "wake", "deviceChange", "configurationChange", "tapWedged", "shutdown",
    };
    auto index = static_cast<size_t>(trigger);
    return index < names.size() ? names[index] : std::string_view("unknown");
}

std::ostream& operator<<(std::ostream& stream, AudioLifecycleTrigger trigger) { return stream << caseName(trigger); }

} // namespace sorva
