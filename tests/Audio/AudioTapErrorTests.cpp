// The engines' error texts and the small device and process queries.
#include "Audio/AudioTapError.h"
#include "Audio/DecimalText.h"
#include "Audio/OutputDevice.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"

#include <gtest/gtest.h>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

TEST(AudioTapError, DescribesTheCallAndItsStatusInDecimal)
{
    // The engines' failure tables pin the texts; here the parts and what() of a large status.
    const AudioTapError start = AudioTapError::osStatus("AudioDeviceStart", kAudioHardwarePermissionDenied);
    EXPECT_STREQ(start.what(), "AudioDeviceStart failed (OSStatus 1852797029)");
    EXPECT_EQ(start.errorDescription(), start.what());
    EXPECT_FALSE(start.isPermissionDenied());
    EXPECT_EQ(start.callName(), "AudioDeviceStart");
    EXPECT_EQ(start.status(), 1852797029);
    EXPECT_EQ(AudioTapError::permissionDenied(), AudioTapError::permissionDenied());
    EXPECT_FALSE(AudioTapError::permissionDenied() == start);
}

TEST(DecimalText, PrintsRatesWithAtLeastOneFractionalDigit)
{
    const std::pair<double, const char*> cases[]
        = { { 48000.0, "48000.0" }, { 48000.5, "48000.5" }, { 0.1, "0.1" }, { -6.0, "-6.0" }, { 0.0, "0.0" } };
    for (const auto& [value, text] : cases)
        EXPECT_EQ(decimalText(value), text);
}

TEST(OutputDevice, ReadsNameAndUIDOrFallsBack)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    const AudioObjectID unnamed = hardware.addOutputDevice("", "");
    EXPECT_EQ(OutputDevice::name(hardware, speakers), "Speakers");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, speakers), "speakers-uid");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, unnamed), "") << "an empty UID read successfully stays empty";
    hardware.removeDevice(speakers);
    for (AudioObjectID gone : { AudioObjectID(0), speakers }) {
        EXPECT_EQ(OutputDevice::name(hardware, gone), "Unknown");
        EXPECT_EQ(OutputDevice::deviceUID(hardware, gone), std::nullopt);
    }
    hardware.injectStatus(Call::deviceName, kAudioHardwareUnspecifiedError, 1);
    EXPECT_EQ(OutputDevice::name(hardware, unnamed), "Unknown");
}

TEST(AudioActivity, CountsOnlyOtherProcessesThatPlay)
{
    SimulatedAudioHardware hardware;
    hardware.setProcessRunningOutput(hardware.ownProcessObject(), true);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware)) << "our own output does not count";
    const AudioObjectID player = hardware.addProcess(4242, false);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
    hardware.setProcessRunningOutput(player, true);
    EXPECT_TRUE(AudioActivity::isAnyProcessPlaying(hardware));
    for (Call failing : { Call::processObjectListByteSize, Call::processObjectList }) {
        hardware.injectStatus(failing, kAudioHardwareUnspecifiedError, 1);
        EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
    }
    // Our own PID unreadable: examined like any other, and it plays.
    hardware.setProcessRunningOutput(player, false);
    hardware.injectStatus(Call::processPID, kAudioHardwareUnspecifiedError, 1);
    EXPECT_TRUE(AudioActivity::isAnyProcessPlaying(hardware));
    // A failed running-output read skips the object.
    hardware.setProcessRunningOutput(hardware.ownProcessObject(), false);
    hardware.setProcessRunningOutput(player, true);
    hardware.injectStatus(Call::processIsRunningOutput, kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
}
