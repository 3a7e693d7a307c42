// The simulated audio system the engine tests rely on: its accounting, status
// injection, IO cycles, listeners and processes, and the real-time driver.
#include "Platform/Simulated/MusicGenerator.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedRealtimeDriver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <thread>
#include <unistd.h>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

namespace {

// Counts its cycles and doubles the first input sample into the output.
struct Recorder {
    std::atomic<int> cycles { 0 };
};

void recordingProc(void* context, const AudioTimeStamp*, const AudioBufferList* input, const AudioTimeStamp*,
                   AudioBufferList* output, const AudioTimeStamp*) noexcept
{
    static_cast<float*>(output->mBuffers[0].mData)[0] = 2.0f * static_cast<const float*>(input->mBuffers[0].mData)[0];
    static_cast<Recorder*>(context)->cycles.fetch_add(1);
}

TapDescription globalTap(SimulatedAudioHardware& hardware, std::string uuid)
{
    TapDescription description = TapDescription::stereoGlobalTapButExcludeProcesses({ hardware.ownProcessObject() });
    description.uuid = std::move(uuid);
    return description;
}

AggregateDescription aggregateOver(const std::string& deviceUID, const std::string& tapUUID)
{
    return { .name = "Test Aggregate", .uid = "test.aggregate", .mainSubDevice = deviceUID,
             .subDevices = { { deviceUID, 0 } }, .taps = { { tapUUID, true } } };
}

} // namespace

TEST(SimulatedAudioHardware, AccountsForEveryObjectAndRefusesAggregatesOverMissingParts)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    EXPECT_TRUE(hardware.nothingAlive());
    AudioObjectID tap = 0, aggregate = 77;
    ASSERT_EQ(hardware.createProcessTap(globalTap(hardware, "ab-cd"), tap), 0);
    EXPECT_EQ(hardware.createAggregateDevice(aggregateOver("gone-uid", "AB-CD"), aggregate),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(hardware.createAggregateDevice(aggregateOver("speakers-uid", "EF-01"), aggregate),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(aggregate, 77u) << "out-parameters stay untouched on failure";
    // Taps are named in the aggregate by their UUID in uppercase.
    ASSERT_EQ(hardware.createAggregateDevice(aggregateOver("speakers-uid", "AB-CD"), aggregate), 0);
    EXPECT_NE(tap, aggregate);
    Recorder recorder;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(aggregate, recordingProc, &recorder, proc), 0);
    EXPECT_EQ(hardware.runIOCycle(aggregate, nullptr, nullptr), 0) << "not started";
    AudioPropertyListenerRegistration registration;
    ASSERT_EQ(hardware.addPropertyListener(speakers, { kAudioDevicePropertyNominalSampleRate },
                                           std::make_shared<SerialQueue>("test.listeners"), [] {}, registration),
              0);
    EXPECT_EQ((std::vector<size_t> { hardware.liveTaps(), hardware.liveAggregates(), hardware.liveIOProcs(),
                                     hardware.liveListeners() }),
              (std::vector<size_t> { 1, 1, 1, 1 }));
    EXPECT_FALSE(hardware.nothingAlive());

    EXPECT_EQ(hardware.destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(hardware.liveIOProcs(), 0u) << "the aggregate's IO procedure goes with it";
    EXPECT_EQ(hardware.destroyAggregateDevice(aggregate), kAudioHardwareBadObjectError);
    EXPECT_EQ(hardware.destroyProcessTap(tap), 0);
    EXPECT_EQ(hardware.removePropertyListener(registration), 0);
    EXPECT_EQ(hardware.removePropertyListener(registration), kAudioHardwareBadObjectError);
    EXPECT_TRUE(hardware.nothingAlive());
    EXPECT_EQ(hardware.createdTaps().size(), 1u);
    EXPECT_EQ(hardware.createdAggregates().size(), 1u);
}

namespace {

struct BlockingProc {
    std::atomic<bool> entered { false }, release { false }, finished { false };
};

void blockingProc(void* context, const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                  AudioBufferList*, const AudioTimeStamp*) noexcept
{
    auto* state = static_cast<BlockingProc*>(context);
    state->entered.store(true);
    while (!state->release.load())
        std::this_thread::yield();
    state->finished.store(true);
}

} // namespace

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
    auto stopped = std::async(std::launch::async, [&] { return hardware.stopDevice(speakers, proc); });
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(3)), std::future_status::timeout);
    state.release.store(true);
    EXPECT_EQ(stopped.get(), 0);
    EXPECT_TRUE(state.finished.load());
    ioThread.join();
}

// The engines' listener tests cover delivery order, reading at delivery and removal.
TEST(SimulatedAudioHardware, ChangesFireOnlyTheMatchingListenersOnTheirQueues)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid", 48000.0);
    const AudioObjectID headphones = hardware.addOutputDevice("Headphones", "headphones-uid", 44100.0);
    auto queue = std::make_shared<SerialQueue>("test.listeners");
    std::atomic<int> deviceFired { 0 }, rateFired { 0 }, offQueue { 0 };
    AudioPropertyListenerRegistration device, rate, unsupported;
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice },
                                           queue, [&] { ++deviceFired; offQueue += !queue->isCurrent(); }, device),
              0);
    ASSERT_EQ(hardware.addPropertyListener(speakers, { kAudioDevicePropertyNominalSampleRate }, queue,
                                           [&] { ++rateFired; offQueue += !queue->isCurrent(); }, rate),
              0);
    EXPECT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioObjectPropertyName }, queue, [] {},
                                           unsupported),
              kAudioHardwareUnknownPropertyError);
    hardware.setDefaultOutputDevice(headphones);
    hardware.setNominalSampleRate(headphones, 96000.0); // not the listened device
    hardware.setNominalSampleRate(speakers, 96000.0);
    hardware.removeDevice(headphones); // the default vanishes: it changes to none
    queue->drain();
    EXPECT_EQ(deviceFired, 2);
    EXPECT_EQ(rateFired, 1);
    EXPECT_EQ(offQueue, 0);
}

TEST(SimulatedAudioHardware, TranslatesKnownPIDsOnlyAndListsProcessesWithinTheCapacity)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID player = hardware.addProcess(4242, true);
    hardware.addProcess(4343, false);
    AudioObjectID translated = 12345;
    EXPECT_EQ(hardware.translatePIDToProcessObject(999999, translated), 0);
    EXPECT_EQ(translated, 0u) << "an unknown PID has no process object";
    std::vector<AudioObjectID> list(2);
    ASSERT_EQ(hardware.processObjectList(list), 0);
    EXPECT_EQ(list, (std::vector<AudioObjectID> { hardware.ownProcessObject(), player }));
}

TEST(MusicGenerator, IsRepeatableStereoAndAudibleButNotClipping)
{
    MusicGenerator whole(48000.0), blocks(48000.0);
    std::vector<float> a(48000 * 2), b(48000 * 2);
    whole.render(a.data(), 48000);
    for (int64_t done = 0; done < 48000; done += 480) // block size must not matter
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
    // Every 10 ms window has sound: no gap that a silence gate would close on.
    for (size_t window = 0; window < 100; ++window) {
        float windowPeak = 0;
        for (size_t i = window * 960; i < (window + 1) * 960; ++i)
            windowPeak = std::max(windowPeak, std::fabs(a[i]));
        EXPECT_GT(windowPeak, 0.01f) << "window " << window;
    }
}

TEST(SimulatedRealtimeDriver, RunsStartedProceduresWithMusicUntilStopped)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    Recorder recorder;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(speakers, recordingProc, &recorder, proc), 0);
    ASSERT_EQ(hardware.startDevice(speakers, proc), 0);
    SimulatedRealtimeDriver driver(hardware, 48000.0, 48); // a cycle per millisecond
    driver.start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (driver.cycles() < 40 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    driver.stop();
    EXPECT_GE(driver.cycles(), 40);
    EXPECT_EQ(recorder.cycles.load(), driver.cycles());
    EXPECT_GT(driver.takeOutputPeak(), 0.0f) << "the procedure doubled non-silent music into the output";
}
