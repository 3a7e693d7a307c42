#include "Audio/OutputDevice.h"

#include <unistd.h>
#include <vector>

namespace sorva {

std::string OutputDevice::name(AudioHardware& hardware, AudioObjectID device)
{
    std::string deviceName;
    if (hardware.deviceName(device, deviceName) != kAudioHardwareNoError)
        return "Unknown";
    return deviceName;
}

std::optional<std::string> OutputDevice::deviceUID(AudioHardware& hardware, AudioObjectID device)
{
    std::string uid;
    if (hardware.deviceUID(device, uid) != kAudioHardwareNoError)
        return std::nullopt;
    return uid;
}

bool AudioActivity::isAnyProcessPlaying(AudioHardware& hardware)
{
    uint32_t byteSize = 0;
    if (hardware.processObjectListByteSize(byteSize) != kAudioHardwareNoError || byteSize == 0)
        return false;
    std::vector<AudioObjectID> processes(byteSize / sizeof(AudioObjectID), kAudioObjectUnknown);
    if (hardware.processObjectList(processes) != kAudioHardwareNoError)
        return false;
    const int32_t own = static_cast<int32_t>(::getpid());
    for (AudioObjectID process : processes) {
        int32_t pid = 0;
        // A process whose PID cannot be read is not taken for our own.
        if (hardware.processPID(process, pid) == kAudioHardwareNoError && pid == own)
            continue;
        uint32_t running = 0;
        if (hardware.processIsRunningOutput(process, running) == kAudioHardwareNoError && running != 0)
            return true;
    }
    return false;
}

} // namespace sorva
