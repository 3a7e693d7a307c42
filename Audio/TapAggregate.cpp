#include "Audio/TapAggregate.h"

#include "Models/EQBand.h"

#include <algorithm>
#include <cctype>

namespace sorva {

TapAggregate::TapAggregate(AudioHardware& audioHardware)
    : hardware(audioHardware)
    , tapUUID(makeUuid())
{
}

TapAggregate::~TapAggregate()
{
    teardown();
}

AudioObjectID TapAggregate::translatePIDToProcessObject(AudioHardware& hardware, int32_t pid)
{
    AudioObjectID process = kAudioObjectUnknown;
    const OSStatus status = hardware.translatePIDToProcessObject(pid, process);
    if (status != kAudioHardwareNoError)
        throw AudioTapError::osStatus("TranslatePIDToProcessObject", status);
    return process;
}

TapDescription TapAggregate::createTap(TapDescription description, DeniedPermission deniedPermission)
{
    description.uuid = tapUUID;
    description.name = "SORVA System Tap";
    description.isPrivate = true;
    description.muteBehavior = TapDescription::MuteBehavior::mutedWhenTapped;

    AudioObjectID tap = kAudioObjectUnknown;
    const OSStatus status = hardware.createProcessTap(description, tap);
    if (deniedPermission == DeniedPermission::reported && (status == kAudioHardwarePermissionDenied || status == 1))
        throw AudioTapError::permissionDenied();
    if (status != kAudioHardwareNoError)
        throw AudioTapError::osStatus("AudioHardwareCreateProcessTap", status);
    tapID = tap;
    return description;
}

AggregateDescription TapAggregate::aggregateDescription(const std::string& name, const std::string& uid) const
{
    AggregateDescription description;
    description.name = name;
    description.uid = uid;
    description.isPrivate = true;
    description.isStacked = false;
    description.tapAutoStart = true;
    std::string uuid = tapUUID;
    std::transform(uuid.begin(), uuid.end(), uuid.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    description.taps = { AggregateDescription::SubTap { uuid, true } };
    return description;
}

void TapAggregate::createAggregate(const AggregateDescription& description)
{
    AudioObjectID device = kAudioObjectUnknown;
    const OSStatus status = hardware.createAggregateDevice(description, device);
    if (status != kAudioHardwareNoError)
        throw AudioTapError::osStatus("AudioHardwareCreateAggregateDevice", status);
    aggregateID = device;
}

void TapAggregate::startIOProc(AudioDeviceIOProc proc, void* context)
{
    AudioDeviceIOProcID procID = 0;
    const OSStatus created = hardware.createIOProcID(aggregateID, proc, context, procID);
    if (created != kAudioHardwareNoError || procID == 0)
        throw AudioTapError::osStatus("AudioDeviceCreateIOProcIDWithBlock", created);
    ioProcID = procID;

    const OSStatus started = hardware.startDevice(aggregateID, ioProcID);
    if (started != kAudioHardwareNoError)
        throw AudioTapError::osStatus("AudioDeviceStart", started);
}

void TapAggregate::teardown()
{
    // The destroy and stop calls' results are not examined: there is
    // nothing left to do about a device that will not go.
    if (ioProcID != 0 && aggregateID != kAudioObjectUnknown) {
        hardware.stopDevice(aggregateID, ioProcID);
        hardware.destroyIOProcID(aggregateID, ioProcID);
        ioProcID = 0;
    }
    if (aggregateID != kAudioObjectUnknown) {
        hardware.destroyAggregateDevice(aggregateID);
        aggregateID = kAudioObjectUnknown;
    }
    if (tapID != kAudioObjectUnknown) {
        hardware.destroyProcessTap(tapID);
        tapID = kAudioObjectUnknown;
    }
}

} // namespace sorva
