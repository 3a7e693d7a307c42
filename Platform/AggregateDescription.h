// The description an aggregate device is created from, as the dictionary of
// aggregate-device keys the engines fill in: a name and UID, visibility,
// whether sub-devices are stacked, whether taps start with the device, the
// main sub-device (the clock source), the sub-devices and the taps. A plain
// value; AudioHardware::createAggregateDevice receives it.
//
// The single-device engine's dictionary has all eight entries; the buffered
// engine's capture device has no main sub-device (the entry is absent, not
// empty) and an empty sub-device list. keys() lists the entries that are
// present, in dictionary order, under their dictionary key names.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sorva {

struct AggregateDescription {
    // One entry of "subdevices": { "uid": uid, "channels-in": channelsIn }.
    struct SubDevice {
        std::string uid; // the device's UID (AudioHardware::deviceUID)
        int64_t channelsIn = 0; // input channels the device contributes
        bool operator==(const SubDevice&) const = default;
    };

    // One entry of "taps": { "uid": uid, "drift": drift }.
    struct SubTap {
        std::string uid; // the tap's UUID, canonical uppercase text
        bool drift = false; // drift-compensate the tap against the main sub-device
        bool operator==(const SubTap&) const = default;
    };

    static constexpr const char* nameKey = "name";
    static constexpr const char* uidKey = "uid";
    static constexpr const char* isPrivateKey = "private";
    static constexpr const char* isStackedKey = "stacked";
    static constexpr const char* tapAutoStartKey = "tapautostart";
    static constexpr const char* mainSubDeviceKey = "master";
    static constexpr const char* subDeviceListKey = "subdevices";
    static constexpr const char* tapListKey = "taps";
    static constexpr const char* subDeviceUIDKey = "uid";
    static constexpr const char* subDeviceInputChannelsKey = "channels-in";
    static constexpr const char* subTapUIDKey = "uid";
    static constexpr const char* subTapDriftCompensationKey = "drift";

    std::string name; // "name"
    std::string uid; // "uid"
    bool isPrivate = false; // "private"
    bool isStacked = false; // "stacked"
    bool tapAutoStart = false; // "tapautostart"
    std::optional<std::string> mainSubDevice; // "master": UID of the clock-source device; absent = no entry
    std::vector<SubDevice> subDevices; // "subdevices"
    std::vector<SubTap> taps; // "taps"

    // The dictionary's keys that are present, in the order above.
    std::vector<std::string> keys() const
    {
        std::vector<std::string> present { nameKey, uidKey, isPrivateKey, isStackedKey, tapAutoStartKey };
        if (mainSubDevice)
            present.emplace_back(mainSubDeviceKey);
        present.emplace_back(subDeviceListKey);
        present.emplace_back(tapListKey);
        return present;
    }

    bool operator==(const AggregateDescription&) const = default;
};

} // namespace sorva
