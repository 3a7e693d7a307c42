// The description a process tap is created from: which processes it captures,
// how their mix is delivered, its identity and whether the tapped processes
// stay audible at their own devices. A plain value; the engines build one and
// hand it to AudioHardware::createProcessTap (and, for a refresh in place, to
// AudioHardware::setTapDescription).
#pragma once

#include "Platform/AudioTypes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sorva {

struct TapDescription {
    enum class ProcessSelection {
        // Every process's output except the listed ones, mixed down to stereo.
        stereoGlobalTapButExcludeProcesses,
        // Only the listed processes' output, mixed down to stereo.
        stereoMixdownOfProcesses,
    };

    // What the tapped processes sound like at their own output devices while
    // the tap exists.
    enum class MuteBehavior : int32_t {
        unmuted = 0, // still heard at their devices
        muted = 1, // silent at their devices as long as the tap exists
        mutedWhenTapped = 2, // silent at their devices while the tap is being read
    };

    ProcessSelection processSelection = ProcessSelection::stereoGlobalTapButExcludeProcesses;
    // Process objects (AudioHardware::translatePIDToProcessObject), not PIDs.
    std::vector<AudioObjectID> processes;
    // Canonical UUID text of the tap; the aggregate's tap list names the tap by
    // the same UUID in uppercase.
    std::string uuid;
    std::string name;
    // Private taps are visible only to the process that created them.
    bool isPrivate = false;
    MuteBehavior muteBehavior = MuteBehavior::unmuted;

    static TapDescription stereoGlobalTapButExcludeProcesses(std::vector<AudioObjectID> excluded)
    {
        TapDescription description;
        description.processSelection = ProcessSelection::stereoGlobalTapButExcludeProcesses;
        description.processes = std::move(excluded);
        return description;
    }

    static TapDescription stereoMixdownOfProcesses(std::vector<AudioObjectID> included)
    {
        TapDescription description;
        description.processSelection = ProcessSelection::stereoMixdownOfProcesses;
        description.processes = std::move(included);
        return description;
    }

    bool operator==(const TapDescription&) const = default;
};

} // namespace sorva
