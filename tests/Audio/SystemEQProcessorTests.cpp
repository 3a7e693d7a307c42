// The single-device engine on the simulated audio system: what start builds,
// every failed set-up step, stop, the fades, the buffer-size request and the
// listeners; the test mode's tap shows in the real graph's tests. Its render
// path is driven block by block in RenderPathTests.
#include "Audio/BufferedEQProcessor.h"
#include "Audio/SystemEQProcessor.h"
#include "EngineTestSupport.h"
#include "Models/EQConfig.h"
#include "Platform/Simulated/SimulatedOutputEngine.h"
#include "Platform/Simulated/SimulatedRealtimeDriver.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>
#include <tuple>
#include <thread>

using namespace sorva;
using namespace std::chrono_literals;
using Call = SimulatedAudioHardware::Call;

namespace {

// The log folder outlives the engine, whose recorder captures there.
struct Engine : ::testing::Test, LogFolder, SimulatedSystem {
    // A new engine (replacing the last one), started on the default device.
    SystemEQProcessor& started(const std::vector<EQBand>& bands = EQConfig::defaultConfig().bands, double gain = 0.0)
    {
        engine = std::make_unique<SystemEQProcessor>(5, hardware, executor, recordingWait(), testClock());
        engine->onConfigurationChange = [this] {
            callbackOnMainThread = executor.isMainThread();
            ++configurationChanges;
        };
        engine->start(bands, gain);
        return *engine;
    }

    // Plays stereo blocks of 0.5 through the engine's aggregate and returns the
    // first frame whose left sample is level.
    int64_t firstFrameAt(float level)
    {
        for (int64_t frame = 0; frame < 20000; frame += 512) {
            std::vector<float> in(512 * 2, 0.5f), out(in.size(), 0.0f);
            OneBuffer input(in, 2), output(out, 2);
            EXPECT_EQ(hardware.runIOCycle(engine->currentAggregateID(), &input.list, &output.list), 1);
            for (int64_t i = 0; i < 512; ++i)
                if (out[static_cast<size_t>(2 * i)] == level)
                    return frame + i;
        }
        return -1;
    }

    bool callbackOnMainThread = false;
    std::unique_ptr<SystemEQProcessor> engine;
};

} // namespace

TEST_F(Engine, StartBuildsTheTapAndAggregateOnTheDefaultDeviceAndStopRemovesThemOnce)
{
    SystemEQProcessor& eq = started();
    EXPECT_EQ(eq.deviceAtStart(), speakers);
    EXPECT_EQ(hardware.tapDescriptionOf(eq.currentTapID()), systemTap(hardware.ownProcessObject(), eq.tapIdentifier()));
    const AggregateDescription aggregate { .name = "SORVA Output", .uid = "com.sorva.app.aggregate", .isPrivate = true,
                                           .isStacked = false, .tapAutoStart = true, .mainSubDevice = "speakers-uid",
                                           .subDevices = { { "speakers-uid", 0 } },
                                           .taps = { { uppercase(eq.tapIdentifier()), true } } };
    EXPECT_EQ(hardware.aggregateDescriptionOf(eq.currentAggregateID()), aggregate);
    EXPECT_EQ(std::tuple(hardware.runningIOProcs(), hardware.liveListeners(), eq.currentListenerDevice()),
              std::tuple(1u, 2u, speakers));
    EXPECT_EQ(executor.activeTimers(), 1u) << "the recorder's capture timer";
    EXPECT_EQ(log.count("single-device processor started — output Speakers @ 48000.0 Hz"), 1);

    // The device stops only after the wait in which the render path plays the fade-out.
    bool runningDuringWait = false;
    duringWait = [&] { runningDuringWait = hardware.runningIOProcs() == 1; };
    eq.stop();
    EXPECT_TRUE(runningDuringWait);
    EXPECT_EQ(waits, std::vector<std::chrono::nanoseconds> { 150ms });
    EXPECT_TRUE(hardware.nothingAlive());
    EXPECT_EQ(executor.activeTimers(), 0u);
    EXPECT_EQ(eq.currentTapID() + eq.currentAggregateID() + eq.currentIOProcID() + eq.currentListenerDevice(), 0u);
    const int calls = hardware.callCount(Call::destroyProcessTap) + hardware.callCount(Call::removePropertyListener);
    eq.stop();
    engine.reset(); // the destructor stops a third time
    EXPECT_EQ(hardware.callCount(Call::destroyProcessTap) + hardware.callCount(Call::removePropertyListener), calls);
    EXPECT_EQ(waits.size(), 1u) << "no second fade or wait";
}

// Both engines build their tap chain with the same steps; a refused step is reported and undoes what was built.
TEST_F(Engine, BothEnginesReportEveryFailedSetUpStepAndLeaveNothingBehind)
{
    const auto failed = [](const char* call, OSStatus status) {
        return std::string(call) + " failed (OSStatus " + std::to_string(status) + ")";
    };
    const std::string noDevice = failed("No default output device", -1);
    const std::string denied = "System audio recording permission not granted";
    const std::optional<std::string> starts; // not a step of this engine
    struct Row {
        const char* what;
        std::function<void()> arrange;
        std::optional<std::string> single, buffered = single;
    };
    const auto inject = [&](Call call, OSStatus status) { return [=, this] { hardware.injectStatus(call, status); }; };
    const Row rows[] {
        { "default unreadable", inject(Call::defaultOutputDevice, -10851), noDevice },
        { "no default device", [&] { hardware.setDefaultOutputDevice(0); }, noDevice },
        { "UID unreadable", inject(Call::deviceUID, kAudioHardwareBadObjectError), noDevice, starts },
        { "own process unknown", inject(Call::translatePIDToProcessObject, -66),
          failed("TranslatePIDToProcessObject", -66) },
        // The buffered engine reports a refused permission as the status it got.
        { "permission (nope)", inject(Call::createProcessTap, kAudioHardwarePermissionDenied), denied,
          failed("AudioHardwareCreateProcessTap", kAudioHardwarePermissionDenied) },
        { "permission (1)", inject(Call::createProcessTap, 1), denied, failed("AudioHardwareCreateProcessTap", 1) },
        { "tap refused", inject(Call::createProcessTap, -50), failed("AudioHardwareCreateProcessTap", -50) },
        { "tap without a rate", [&] { hardware.setTapSampleRate(0.0); }, starts, failed("Tap sample rate", -50) },
        { "aggregate refused", inject(Call::createAggregateDevice, -50),
          failed("AudioHardwareCreateAggregateDevice", -50) },
        { "IO procedure refused", inject(Call::createIOProcID, kAudioHardwareBadDeviceError),
          failed("AudioDeviceCreateIOProcIDWithBlock", kAudioHardwareBadDeviceError) },
        { "IO procedure without ID", [&] { hardware.setCreateIOProcLeavesIDEmpty(true); },
          failed("AudioDeviceCreateIOProcIDWithBlock", 0) },
        // Stop finds a registered IO procedure: it plays the fade-out first.
        { "device start refused", inject(Call::startDevice, kAudioHardwareNotRunningError),
          failed("AudioDeviceStart", kAudioHardwareNotRunningError) },
    };
    const auto expectFailure = [&](auto& engine, const Row& row, const std::string& description) {
        hardware.clearInjectedStatuses();
        hardware.setCreateIOProcLeavesIDEmpty(false);
        hardware.setDefaultOutputDevice(speakers);
        hardware.setTapSampleRate(48000.0);
        waits.clear();
        row.arrange();
        try {
            engine.start(EQConfig::defaultConfig().bands, 0.0);
            ADD_FAILURE() << "start succeeded";
        } catch (const AudioTapError& error) {
            EXPECT_EQ(error.errorDescription(), description);
            EXPECT_EQ(error.isPermissionDenied(), description == denied);
        }
        EXPECT_TRUE(hardware.nothingAlive());
        EXPECT_EQ(engine.currentTapID() + engine.currentAggregateID() + engine.currentIOProcID(), 0u);
        EXPECT_EQ(waits.size(), std::string_view(row.what) == "device start refused" ? 1u : 0u);
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.single) {
            SystemEQProcessor single(5, hardware, executor, recordingWait(), testClock());
            expectFailure(single, row, *row.single);
            EXPECT_EQ(executor.activeTimers(), 0u) << "the recorder never started capturing";
        }
        if (row.buffered) {
            auto engine = std::make_unique<SimulatedOutputEngine>();
            const SimulatedOutputEngine& output = *engine;
            BufferedEQProcessor buffered(5, 125.0, hardware, std::move(engine), executor, recordingWait(), testClock());
            expectFailure(buffered, row, *row.buffered);
            EXPECT_FALSE(output.isRunning() || output.observerCount());
        }
    }
    for (const std::string& line : log.all())
        EXPECT_EQ(line.find("processor started"), std::string::npos) << line;
}

TEST_F(Engine, BufferSizeIsRequestedOnlyForAnUnsignedNumberAndARefusalIsLogged)
{
    hardware.injectStatus(Call::setBufferFrameSize, -50, 1); // the first request is refused; the engine runs on
    const std::pair<const char*, std::optional<uint32_t>> cases[] = { { "64", {} }, { "256", 256u }, { "+128", 128u },
        { "abc", {} }, { "", {} }, { "-5", {} }, { "4294967296", {} }, { "12 ", {} } };
    for (const auto& [value, request] : cases) {
        ::setenv("SORVA_IOBUF", value, 1);
        EXPECT_EQ(hardware.requestedBufferFrameSize(started().currentAggregateID()), request) << value;
        EXPECT_EQ(hardware.runningIOProcs(), 1u);
    }
    ::unsetenv("SORVA_IOBUF");
    EXPECT_EQ(log.count("IO buffer request 64 frames -> status -50"), 1);
}

TEST_F(Engine, FadesLastOneHundredFiftyMillisecondsInAndOneHundredTwentyOut)
{
    // The speakers' nominal rate (-1: 44.1 kHz but unreadable; 0 and unreadable fall back to 48 kHz), the rate the
    // engine runs at and the fades' lengths.
    const std::tuple<double, double, int64_t, int64_t> cases[] = {
        { 48000.0, 48000.0, 7200, 5760 }, { 44100.0, 44100.0, 6615, 5292 },
        { -1.0, 48000.0, 7200, 5760 },    { 0.0, 48000.0, 7200, 5760 },
    };
    for (const auto& [nominal, rate, fadeIn, fadeOut] : cases) {
        SCOPED_TRACE(nominal);
        hardware.setNominalSampleRate(speakers, nominal < 0 ? 44100.0 : nominal);
        if (nominal < 0)
            hardware.injectStatus(Call::nominalSampleRate, -1, 1);
        EXPECT_EQ(started().sampleRate, rate);
        // Flat bands at 0 dB: the output is the input times the fade gain.
        EXPECT_EQ(firstFrameAt(0.5f), fadeIn);
        int64_t silentFrom = -1;
        duringWait = [&] { silentFrom = firstFrameAt(0.0f); }; // the fade-out plays during stop's wait
        engine->stop();
        duringWait = nullptr;
        EXPECT_EQ(silentFrom, fadeOut);
    }
}

TEST_F(Engine, ListenersRebuildOnlyForRealChangesAfterTheSettleTimeAndNeverAfterStop)
{
    SystemEQProcessor& eq = started();
    const uint64_t startedAt = now.load();
    const auto change = [&](std::function<void()> what, uint64_t atSeconds = 0) {
        if (atSeconds)
            now = startedAt + atSeconds * 1'000'000'000ull;
        what();
        settle();
        return configurationChanges;
    };
    const auto rate = [&](double value) { return [=, this] { hardware.setNominalSampleRate(speakers, value); }; };
    const auto device = [&](AudioObjectID value) { return [=, this] { hardware.setDefaultOutputDevice(value); }; };
    EXPECT_EQ(change(rate(48000.5)), 0) << "a wobble";
    EXPECT_EQ(change(rate(0.0)), 0) << "an unreadable rate";
    int lateCallbacks = 0;
    eq.onConfigurationChange = [&] { ++lateCallbacks; }; // installed handlers keep the one of start
    EXPECT_EQ(change(rate(44100.0)), 1);
    EXPECT_EQ(lateCallbacks, 0);
    EXPECT_EQ(log.count("output sample rate changed — rebuilding"), 1);
    change(rate(48000.0));
    EXPECT_EQ(change(device(headphones), 2), 1) << "device changes are dropped before the settle time";
    EXPECT_EQ(change(device(headphones), 3), 1) << "and at it";
    EXPECT_EQ(change(rate(48000.0)), 2) << "the rate handler reads the new default's 44100";

    change(device(0), 4);
    for (const std::function<void()>& between : std::initializer_list<std::function<void()>> {
             [&] { hardware.setDefaultOutputDevice(speakers); }, // back before the handlers run
             [&] { hardware.injectStatus(Call::defaultOutputDevice, -1); } }) { // unreadable when they run
        hardware.pauseListenerDelivery();
        hardware.setDefaultOutputDevice(headphones);
        between();
        hardware.resumeListenerDelivery();
        settle();
        hardware.clearInjectedStatuses();
    }
    EXPECT_EQ(configurationChanges, 2);
    EXPECT_EQ(log.count("default output device changed", true), 0);

    hardware.setDefaultOutputDevice(headphones);
    hardware.drainListenerQueues();
    EXPECT_EQ(configurationChanges, 2) << "the callback waits for the main thread";
    EXPECT_EQ(log.count("default output device changed — rebuilding"), 1);
    executor.runPending();
    EXPECT_EQ(configurationChanges, 3);
    EXPECT_TRUE(callbackOnMainThread);

    eq.stop();
    change(device(headphones));
    EXPECT_EQ(change(rate(96000.0)), 3);
}

TEST_F(Engine, RunsAgainstAnIOThreadWhileTheMainThreadUpdatesAndPolls)
{
    // Meant for the thread sanitizer: 1 ms cycles against the controller's main-thread work.
    SystemEQProcessor& eq = started();
    eq.spectrum.setActive(true);
    SimulatedRealtimeDriver driver(hardware, 48000.0, 48);
    const auto cyclesPass = [&](int64_t count) {
        for (const int64_t target = driver.cycles() + count; driver.cycles() < target;)
            std::this_thread::yield();
    };
    driver.start();
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    int64_t frames = 0;
    for (int n = 0; n < 25; ++n) {
        bands[static_cast<size_t>(n % 5)].gain = (n % 7) - 3.0;
        eq.eq.update(bands, (n % 3) - 1.0, eq.sampleRate);
        frames += eq.stats.snapshot().frames;
        eq.timing.snapshot();
        eq.spectrum.setActive(n % 4 != 3); // clears the ring while the IO thread pushes
        eq.spectrum.levels();
        cyclesPass(1);
    }
    duringWait = [&] { cyclesPass(3); }; // the fade-out plays for real
    eq.stop();
    driver.stop();
    EXPECT_GT(frames + eq.stats.snapshot().frames, 5 * 48);
    EXPECT_TRUE(hardware.nothingAlive());
}
