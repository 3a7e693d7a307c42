#include "Audio/AudioTapError.h"
#include "Audio/DecimalText.h"
#include "Audio/OutputDevice.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

TEST(AudioTapError, DescribesTheCallAndItsSignedStatus)
{
    EXPECT_EQ(AudioTapError::osStatus("AudioHardwareCreateAggregateDevice", -50).errorDescription(),
              "AudioHardwareCreateAggregateDevice failed (OSStatus -50)");
    EXPECT_EQ(AudioTapError::osStatus("No default output device", -1).errorDescription(),
              "No default output device failed (OSStatus -1)");
    // Never printed as a four-character code.
    const AudioTapError start = AudioTapError::osStatus("AudioDeviceStart", kAudioHardwarePermissionDenied);
    EXPECT_EQ(start.errorDescription(), "AudioDeviceStart failed (OSStatus 1852797029)");
    EXPECT_STREQ(start.what(), "AudioDeviceStart failed (OSStatus 1852797029)");
    EXPECT_FALSE(start.isPermissionDenied());
    EXPECT_EQ(start.callName(), "AudioDeviceStart");
    EXPECT_EQ(start.status(), 1852797029);

    const AudioTapError denied = AudioTapError::permissionDenied();
    EXPECT_TRUE(denied.isPermissionDenied());
    EXPECT_EQ(denied.errorDescription(), "System audio recording permission not granted");
    EXPECT_EQ(denied, AudioTapError::permissionDenied());
    EXPECT_FALSE(denied == start);
}

TEST(DecimalText, PrintsRatesWithAtLeastOneFractionalDigit)
{
    EXPECT_EQ(decimalText(48000.0), "48000.0");
    EXPECT_EQ(decimalText(44100.0), "44100.0");
    EXPECT_EQ(decimalText(48000.5), "48000.5");
    EXPECT_EQ(decimalText(0.1), "0.1");
    EXPECT_EQ(decimalText(-6.0), "-6.0");
    EXPECT_EQ(decimalText(0.0), "0.0");
}

TEST(OutputDevice, ReadsNameAndUIDOrFallsBack)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    const AudioObjectID unnamed = hardware.addOutputDevice("", "");
    EXPECT_EQ(OutputDevice::name(hardware, speakers), "Speakers");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, speakers), "speakers-uid");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, unnamed), "") << "an empty UID read successfully stays empty";
    EXPECT_EQ(OutputDevice::name(hardware, 0), "Unknown");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, 0), std::nullopt);
    hardware.removeDevice(speakers);
    EXPECT_EQ(OutputDevice::name(hardware, speakers), "Unknown");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, speakers), std::nullopt);
    hardware.injectStatus(Call::deviceName, kAudioHardwareUnspecifiedError, 1);
    EXPECT_EQ(OutputDevice::name(hardware, unnamed), "Unknown");
}

TEST(AudioActivity, CountsOnlyOtherProcessesThatPlay)
{
    SimulatedAudioHardware hardware;
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware)) << "only this process, not playing";
    hardware.setProcessRunningOutput(hardware.ownProcessObject(), true);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware)) << "our own output does not count";

    const AudioObjectID player = hardware.addProcess(4242, false);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
    hardware.setProcessRunningOutput(player, true);
    EXPECT_TRUE(AudioActivity::isAnyProcessPlaying(hardware));

    hardware.injectStatus(Call::processObjectListByteSize, kAudioHardwareUnspecifiedError, 1);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
    hardware.injectStatus(Call::processObjectList, kAudioHardwareUnspecifiedError, 1);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));

    // Our own process's PID cannot be read: it is examined like any other,
    // and since it is playing, it counts.
    hardware.setProcessRunningOutput(player, false);
    hardware.injectStatus(Call::processPID, kAudioHardwareUnspecifiedError, 1);
    EXPECT_TRUE(AudioActivity::isAnyProcessPlaying(hardware));
    // A failed "piro" read skips the object.
    hardware.setProcessRunningOutput(hardware.ownProcessObject(), false);
    hardware.setProcessRunningOutput(player, true);
    hardware.injectStatus(Call::processIsRunningOutput, kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
}
