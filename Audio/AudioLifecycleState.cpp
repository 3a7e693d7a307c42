#include "Audio/AudioLifecycleState.h"

#include <array>
#include <ostream>

namespace sorva {

namespace {

// In declaration order, so that the enumerator's value indexes its name.
constexpr std::array<std::string_view, 7> rawValues {
    "inactive", "starting", "running", "stopping", "failed", "sleeping", "recovering",
};

} // namespace

std::string_view rawValue(AudioLifecycleState state)
{
    auto index = static_cast<size_t>(state);
    return index < rawValues.size() ? rawValues[index] : std::string_view("unknown");
}

std::optional<AudioLifecycleState> audioLifecycleStateFromRawValue(std::string_view rawValue)
{
    for (size_t index = 0; index < rawValues.size(); ++index) {
        if (rawValues[index] == rawValue)
            return static_cast<AudioLifecycleState>(index);
    }
    return std::nullopt;
}

std::ostream& operator<<(std::ostream& stream, AudioLifecycleState state) { return stream << rawValue(state); }

} // namespace sorva
