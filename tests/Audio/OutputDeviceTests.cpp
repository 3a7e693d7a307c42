// Which processes count as playing. The device name and UID queries show in the
// engines' tests (the started line names the device, the aggregate its UID).
#include "Audio/OutputDevice.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"

#include <gtest/gtest.h>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

TEST(AudioActivity, CountsOnlyOtherProcessesThatPlay)
{
    SimulatedAudioHardware hardware;
    hardware.setProcessRunningOutput(hardware.ownProcessObject(), true);
    const AudioObjectID player = hardware.addProcess(4242, false);
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware)) << "our own output does not count";
    hardware.setProcessRunningOutput(player, true);
    EXPECT_TRUE(AudioActivity::isAnyProcessPlaying(hardware));
    hardware.injectStatus(Call::processObjectList, kAudioHardwareUnspecifiedError, 1); // no list, no player
    EXPECT_FALSE(AudioActivity::isAnyProcessPlaying(hardware));
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
