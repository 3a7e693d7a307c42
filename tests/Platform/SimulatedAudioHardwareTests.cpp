// What the engine tests take on trust from the simulated audio system: that
// its accounting sees leftovers, that stop waits for a running cycle, and that
// the demo's music never goes quiet.
#include "Platform/Simulated/MusicGenerator.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "ThreadState.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>
#include <unistd.h>

using namespace sorva;

namespace {

struct BlockingProc {
    std::atomic<bool> entered { false }, release { false };
};

void blockingProc(void* context, const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                  AudioBufferList*, const AudioTimeStamp*) noexcept
{
    auto* state = static_cast<BlockingProc*>(context);
    state->entered.store(true);
    while (!state->release.load())
        std::this_thread::yield();
}

} // namespace

// Without this the engines' "nothing left behind" checks could not fail.
TEST(SimulatedAudioHardware, NothingAliveSeesEveryLeftOverObject)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    AudioObjectID tap = 0, aggregate = 0;
    TapDescription description = TapDescription::stereoGlobalTapButExcludeProcesses({ hardware.ownProcessObject() });
    description.uuid = "ab-cd";
    ASSERT_EQ(hardware.createProcessTap(description, tap), 0);
    EXPECT_FALSE(hardware.nothingAlive());
    ASSERT_EQ(hardware.createAggregateDevice({ .name = "A", .uid = "a", .mainSubDevice = "speakers-uid",
                                               .subDevices = { { "speakers-uid", 0 } }, .taps = { { "AB-CD", true } } },
                                             aggregate),
              0);
    BlockingProc unused;
    AudioDeviceIOProcID onAggregate = 0, onSpeakers = 0;
    ASSERT_EQ(hardware.createIOProcID(aggregate, blockingProc, &unused, onAggregate), 0);
    ASSERT_EQ(hardware.createIOProcID(speakers, blockingProc, &unused, onSpeakers), 0);
    EXPECT_EQ(hardware.destroyProcessTap(tap), 0);
    EXPECT_FALSE(hardware.nothingAlive());
    EXPECT_EQ(hardware.destroyAggregateDevice(aggregate), 0); // its IO procedure goes with it
    EXPECT_FALSE(hardware.nothingAlive());
    EXPECT_EQ(hardware.destroyIOProcID(speakers, onSpeakers), 0);
    EXPECT_TRUE(hardware.nothingAlive());
}

TEST(SimulatedAudioHardware, StopReturnsOnlyAfterTheCycleInProgressHasFinished)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    BlockingProc state;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(speakers, blockingProc, &state, proc), 0);
    ASSERT_EQ(hardware.startDevice(speakers, proc), 0);
    std::thread ioThread([&] {
        AudioBufferList none;
        hardware.runIOCycle(speakers, &none, &none);
    });
    while (!state.entered.load())
        std::this_thread::yield();
    // stop must wait in the hardware until the cycle ends: it blocks, and only returns once released.
    std::atomic<pid_t> stopperID { 0 };
    std::atomic<bool> returned { false };
    std::thread stopper([&] {
        stopperID = ::gettid();
        EXPECT_EQ(hardware.stopDevice(speakers, proc), 0);
        returned = true;
    });
    while (!returned && (stopperID == 0 || !test::isAsleep(stopperID)))
        std::this_thread::yield();
    EXPECT_FALSE(returned.load()) << "stop returned while a cycle was running";
    state.release.store(true);
    stopper.join();
    ioThread.join();
}

TEST(MusicGenerator, IsRepeatableStereoAndAudibleInEveryWindowButNotClipping)
{
    MusicGenerator whole(48000.0), blocks(48000.0);
    std::vector<float> a(48000 * 2), b(48000 * 2);
    whole.render(a.data(), 48000);
    for (int64_t done = 0; done < 48000; done += 480)
        blocks.render(b.data() + done * 2, 480);
    EXPECT_EQ(a, b);
    float peak = 0;
    double leftRightDifference = 0;
    for (size_t i = 0; i < a.size(); i += 2) {
        peak = std::max({ peak, std::fabs(a[i]), std::fabs(a[i + 1]) });
        leftRightDifference += std::fabs(a[i] - a[i + 1]);
    }
    EXPECT_GT(peak, 0.25f);
    EXPECT_LT(peak, 1.0f);
    EXPECT_GT(leftRightDifference, 1.0);
    for (size_t window = 0; window < 100; ++window) // no gap a silence gate would close on
        EXPECT_GT(std::fabs(*std::max_element(a.begin() + long(window * 960), a.begin() + long((window + 1) * 960),
                                               [](float x, float y) { return std::fabs(x) < std::fabs(y); })),
                  0.01f)
            << "window " << window;
}
