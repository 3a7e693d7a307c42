// The small device and process queries. The error texts are pinned by the
// engines' start-failure table.
#include "Audio/OutputDevice.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"

#include <gtest/gtest.h>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

TEST(OutputDevice, ReadsNameAndUIDOrFallsBack)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    const AudioObjectID unnamed = hardware.addOutputDevice("", "");
    EXPECT_EQ(OutputDevice::deviceUID(hardware, speakers), "speakers-uid");
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
    const AudioObjectID player = hardware.addProcess(4242, false);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware)) << "our own output does not count";
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
