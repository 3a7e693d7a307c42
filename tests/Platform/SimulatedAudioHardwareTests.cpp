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

struct Recorder {
    std::atomic<int> cycles { 0 };
    const AudioBufferList* lastInput = nullptr;
    AudioBufferList* lastOutput = nullptr;
};

void recordingProc(void* context, const AudioTimeStamp*, const AudioBufferList* input, const AudioTimeStamp*,
                   AudioBufferList* output, const AudioTimeStamp*) noexcept
{
    auto* recorder = static_cast<Recorder*>(context);
    recorder->lastInput = input;
    recorder->lastOutput = output;
    // Doubles the first input sample into the output, so a test sees the data path.
    static_cast<float*>(output->mBuffers[0].mData)[0] = 2.0f * static_cast<const float*>(input->mBuffers[0].mData)[0];
    recorder->cycles.fetch_add(1);
}

TapDescription globalTap(SimulatedAudioHardware& hardware, std::string uuid)
{
    TapDescription description = TapDescription::stereoGlobalTapButExcludeProcesses({ hardware.ownProcessObject() });
    description.uuid = std::move(uuid);
    description.name = "Test Tap";
    return description;
}

AggregateDescription aggregateOver(const std::string& deviceUID, const std::string& tapUUID)
{
    AggregateDescription description;
    description.name = "Test Aggregate";
    description.uid = "test.aggregate";
    description.mainSubDevice = deviceUID;
    description.subDevices = { { deviceUID, 0 } };
    description.taps = { { tapUUID, true } };
    return description;
}

} // namespace

TEST(SimulatedAudioHardware, AccountsForEveryObjectUntilItIsDestroyed)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid", 44100.0);
    EXPECT_TRUE(hardware.nothingAlive());

    AudioObjectID tap = 0;
    ASSERT_EQ(hardware.createProcessTap(globalTap(hardware, "AB-CD"), tap), 0);
    AudioObjectID aggregate = 0;
    ASSERT_EQ(hardware.createAggregateDevice(aggregateOver("speakers-uid", "AB-CD"), aggregate), 0);
    EXPECT_NE(tap, aggregate);
    double rate = 0;
    ASSERT_EQ(hardware.nominalSampleRate(aggregate, rate), 0);
    EXPECT_EQ(rate, 44100.0) << "an aggregate runs at its main sub-device's rate";

    Recorder recorder;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(aggregate, recordingProc, &recorder, proc), 0);
    auto queue = std::make_shared<SerialQueue>("test.listeners");
    AudioPropertyListenerRegistration registration;
    ASSERT_EQ(hardware.addPropertyListener(speakers, { kAudioDevicePropertyNominalSampleRate }, queue, [] {},
                                           registration),
              0);
    EXPECT_EQ(hardware.liveTaps(), 1u);
    EXPECT_EQ(hardware.liveAggregates(), 1u);
    EXPECT_EQ(hardware.liveIOProcs(), 1u);
    EXPECT_EQ(hardware.liveListeners(), 1u);
    EXPECT_FALSE(hardware.nothingAlive());

    // Destroying the aggregate takes its IO procedure with it.
    EXPECT_EQ(hardware.destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(hardware.liveIOProcs(), 0u);
    EXPECT_EQ(hardware.destroyAggregateDevice(aggregate), kAudioHardwareBadObjectError);
    EXPECT_EQ(hardware.destroyProcessTap(tap), 0);
    EXPECT_EQ(hardware.removePropertyListener(registration), 0);
    EXPECT_EQ(hardware.removePropertyListener(registration), kAudioHardwareBadObjectError);
    EXPECT_TRUE(hardware.nothingAlive());
    EXPECT_EQ(hardware.createdTaps().size(), 1u);
    EXPECT_EQ(hardware.createdAggregates().size(), 1u);
}

TEST(SimulatedAudioHardware, RefusesAggregatesOverMissingDevicesOrTaps)
{
    SimulatedAudioHardware hardware;
    hardware.addOutputDevice("Speakers", "speakers-uid");
    AudioObjectID tap = 0;
    ASSERT_EQ(hardware.createProcessTap(globalTap(hardware, "ab-cd"), tap), 0);
    AudioObjectID aggregate = 77;
    EXPECT_EQ(hardware.createAggregateDevice(aggregateOver("gone-uid", "AB-CD"), aggregate),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(hardware.createAggregateDevice(aggregateOver("speakers-uid", "EF-01"), aggregate),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(aggregate, 77u) << "out-parameters stay untouched on failure";
    // Taps are named in the aggregate by their UUID in uppercase.
    EXPECT_EQ(hardware.createAggregateDevice(aggregateOver("speakers-uid", "AB-CD"), aggregate), 0);
    EXPECT_EQ(hardware.liveAggregates(), 1u);
}

TEST(SimulatedAudioHardware, InjectedStatusesAnswerTheGivenNumberOfCalls)
{
    SimulatedAudioHardware hardware;
    hardware.addOutputDevice("Speakers", "speakers-uid");
    hardware.injectStatus(Call::createProcessTap, kAudioHardwarePermissionDenied, 1);
    AudioObjectID tap = 0;
    EXPECT_EQ(hardware.createProcessTap(globalTap(hardware, "A"), tap), 1852797029);
    EXPECT_EQ(tap, 0u);
    EXPECT_EQ(hardware.liveTaps(), 0u);
    EXPECT_EQ(hardware.createProcessTap(globalTap(hardware, "A"), tap), 0);
    EXPECT_EQ(hardware.callCount(Call::createProcessTap), 2);

    hardware.injectStatus(Call::defaultOutputDevice, -1);
    AudioObjectID device = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(hardware.defaultOutputDevice(device), -1);
    hardware.clearInjectedStatuses();
    EXPECT_EQ(hardware.defaultOutputDevice(device), 0);
    EXPECT_NE(device, 0u);

    // Let one call through, fail the second, then succeed again.
    hardware.injectStatus(Call::translatePIDToProcessObject, -7, 1, 1);
    AudioObjectID process = 0;
    EXPECT_EQ(hardware.translatePIDToProcessObject(1, process), 0);
    EXPECT_EQ(hardware.translatePIDToProcessObject(1, process), -7);
    EXPECT_EQ(hardware.translatePIDToProcessObject(1, process), 0);

    hardware.setCreateIOProcLeavesIDEmpty(true);
    Recorder recorder;
    AudioDeviceIOProcID proc = 99;
    EXPECT_EQ(hardware.createIOProcID(device, recordingProc, &recorder, proc), 0);
    EXPECT_EQ(proc, 0u);
    EXPECT_EQ(hardware.liveIOProcs(), 0u);
}

TEST(SimulatedAudioHardware, RunsCyclesOnlyOfStartedProceduresWithTheGivenBuffers)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid");
    Recorder recorder;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(speakers, recordingProc, &recorder, proc), 0);

    float in[4] = { 0.25f, 0, 0, 0 };
    float out[4] = {};
    AudioBuffer inBuffer { 2, sizeof in, in };
    AudioBuffer outBuffer { 2, sizeof out, out };
    AudioBufferList inList { 1, &inBuffer };
    AudioBufferList outList { 1, &outBuffer };

    EXPECT_EQ(hardware.runIOCycle(speakers, &inList, &outList), 0) << "not started yet";
    ASSERT_EQ(hardware.startDevice(speakers, proc), 0);
    EXPECT_EQ(hardware.runningIOProcs(), 1u);
    EXPECT_EQ(hardware.devicesWithRunningIOProcs(), std::vector<AudioObjectID> { speakers });
    EXPECT_EQ(hardware.runIOCycle(speakers, &inList, &outList), 1);
    EXPECT_EQ(recorder.lastInput, &inList);
    EXPECT_EQ(recorder.lastOutput, &outList);
    EXPECT_EQ(out[0], 0.5f);
    EXPECT_EQ(hardware.stopDevice(speakers, proc), 0);
    EXPECT_EQ(hardware.runIOCycle(speakers, &inList, &outList), 0);
    EXPECT_EQ(recorder.cycles.load(), 1);
    EXPECT_EQ(hardware.startDevice(speakers + 100, proc), kAudioHardwareBadObjectError);
    EXPECT_EQ(hardware.destroyIOProcID(speakers, proc), 0);
    EXPECT_EQ(hardware.startDevice(speakers, proc), kAudioHardwareBadObjectError);
}

namespace {

struct BlockingProc {
    std::atomic<bool> entered { false };
    std::atomic<bool> release { false };
    std::atomic<bool> finished { false };
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
    EXPECT_EQ(hardware.destroyIOProcID(speakers, proc), 0);
}

TEST(SimulatedAudioHardware, ChangesFireTheMatchingListenersOnTheirQueues)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid", 48000.0);
    const AudioObjectID headphones = hardware.addOutputDevice("Headphones", "headphones-uid", 44100.0);
    auto queue = std::make_shared<SerialQueue>("test.listeners");

    std::atomic<int> deviceFired { 0 };
    std::atomic<int> rateFired { 0 };
    std::atomic<bool> offQueue { false };
    std::atomic<AudioObjectID> seenDefault { 0 };
    AudioPropertyListenerRegistration deviceRegistration;
    AudioPropertyListenerRegistration rateRegistration;
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice },
                                           queue,
                                           [&] {
                                               if (!queue->isCurrent())
                                                   offQueue.store(true);
                                               AudioObjectID device = 0;
                                               hardware.defaultOutputDevice(device);
                                               seenDefault.store(device);
                                               deviceFired.fetch_add(1);
                                           },
                                           deviceRegistration),
              0);
    ASSERT_EQ(hardware.addPropertyListener(speakers, { kAudioDevicePropertyNominalSampleRate }, queue,
                                           [&] { rateFired.fetch_add(1); }, rateRegistration),
              0);
    AudioPropertyListenerRegistration unsupported;
    EXPECT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioObjectPropertyName }, queue, [] {},
                                           unsupported),
              kAudioHardwareUnknownPropertyError);

    hardware.setDefaultOutputDevice(headphones);
    hardware.setNominalSampleRate(headphones, 96000.0); // not the listened device
    hardware.setNominalSampleRate(speakers, 96000.0);
    queue->drain();
    EXPECT_EQ(deviceFired.load(), 1);
    EXPECT_EQ(seenDefault.load(), headphones);
    EXPECT_EQ(rateFired.load(), 1);
    EXPECT_FALSE(offQueue.load());

    hardware.removeDevice(headphones); // the default vanishes: "dOut" changes to none
    queue->drain();
    EXPECT_EQ(deviceFired.load(), 2);
    EXPECT_EQ(seenDefault.load(), 0u);

    // Held deliveries arrive on resume, in order, each reading the value as it is then.
    hardware.pauseListenerDelivery();
    hardware.setDefaultOutputDevice(speakers);
    hardware.setDefaultOutputDevice(headphones);
    queue->drain();
    EXPECT_EQ(deviceFired.load(), 2);
    hardware.resumeListenerDelivery();
    queue->drain();
    EXPECT_EQ(deviceFired.load(), 4);
    EXPECT_EQ(seenDefault.load(), headphones);

    EXPECT_EQ(hardware.removePropertyListener(deviceRegistration), 0);
    EXPECT_EQ(hardware.removePropertyListener(rateRegistration), 0);
    hardware.setDefaultOutputDevice(speakers);
    hardware.setNominalSampleRate(speakers, 48000.0);
    queue->drain();
    EXPECT_EQ(deviceFired.load(), 4);
    EXPECT_EQ(rateFired.load(), 1);
}

TEST(SimulatedAudioHardware, ListsProcessesAndApplicationsInTheOrderAdded)
{
    SimulatedAudioHardware hardware;
    const AudioObjectID player = hardware.addProcess(4242, true, std::string("org.example.player"));
    hardware.addProcess(4343, false);
    AudioObjectID translated = 0;
    EXPECT_EQ(hardware.translatePIDToProcessObject(4242, translated), 0);
    EXPECT_EQ(translated, player);
    EXPECT_EQ(hardware.translatePIDToProcessObject(static_cast<int32_t>(getpid()), translated), 0);
    EXPECT_EQ(translated, hardware.ownProcessObject());
    EXPECT_EQ(hardware.translatePIDToProcessObject(999999, translated), 0);
    EXPECT_EQ(translated, 0u) << "an unknown PID has no process object";

    uint32_t size = 0;
    ASSERT_EQ(hardware.processObjectListByteSize(size), 0);
    EXPECT_EQ(size, 12u);
    std::vector<AudioObjectID> list(2);
    ASSERT_EQ(hardware.processObjectList(list), 0);
    EXPECT_EQ(list, (std::vector<AudioObjectID> { hardware.ownProcessObject(), player })) << "capacity respected";

    const auto applications = hardware.runningApplications();
    ASSERT_EQ(applications.size(), 1u);
    EXPECT_EQ(applications[0].processIdentifier, 4242);
    EXPECT_EQ(applications[0].bundleIdentifier, "org.example.player");
}

TEST(MusicGenerator, IsRepeatableStereoAndAudibleButNotClipping)
{
    MusicGenerator first(48000.0);
    MusicGenerator second(48000.0);
    std::vector<float> a(48000 * 2);
    std::vector<float> b(48000 * 2);
    // Block size must not matter.
    first.render(a.data(), 48000);
    for (int64_t done = 0; done < 48000; done += 480)
        second.render(b.data() + done * 2, 480);
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

    // 48 frames at 48 kHz: a cycle per millisecond.
    SimulatedRealtimeDriver driver(hardware, 48000.0, 48);
    driver.start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (driver.cycles() < 40 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    driver.stop();
    const int64_t cycles = driver.cycles();
    EXPECT_GE(cycles, 40);
    EXPECT_EQ(recorder.cycles.load(), cycles);
    EXPECT_GT(driver.takeOutputPeak(), 0.0f) << "the procedure doubled non-silent music into the output";
    EXPECT_EQ(hardware.stopDevice(speakers, proc), 0);
}
