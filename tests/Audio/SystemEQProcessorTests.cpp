// The single-device engine on the simulated audio system: what start builds,
// every failure of the set-up, stop, the fades, the environment switches, the
// listeners and the recorder's capture.
#include "Audio/SystemEQProcessor.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedRealtimeDriver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace sorva;
using namespace std::chrono_literals;
using Call = SimulatedAudioHardware::Call;

namespace {

// Sets an environment variable for one test and restores it afterwards.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value)
        : variable(name)
    {
        if (const char* old = std::getenv(name))
            previous = old;
        if (value)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnvironment()
    {
        if (previous)
            ::setenv(variable.c_str(), previous->c_str(), 1);
        else
            ::unsetenv(variable.c_str());
    }

private:
    std::string variable;
    std::optional<std::string> previous;
};

struct Engine : ::testing::Test {
    Engine()
    {
        folder = std::filesystem::path(::testing::TempDir()) / ("sorva-engine-" + std::to_string(::getpid()));
        std::filesystem::create_directories(folder);
        EQLog::setDirectoryForTesting(folder);
        EQLog::setObserver([this](const std::string& line) {
            std::lock_guard guard(linesLock);
            lines.push_back(line);
        });
        speakers = hardware.addOutputDevice("Speakers", "speakers-uid", 48000.0);
        headphones = hardware.addOutputDevice("Headphones", "headphones-uid", 44100.0);
    }

    ~Engine() override
    {
        engine.reset();
        EQLog::setObserver({});
        EQLog::flush();
        EQLog::setDirectoryForTesting(std::nullopt);
        std::filesystem::remove_all(folder);
    }

    SystemEQProcessor& makeEngine()
    {
        engine = std::make_unique<SystemEQProcessor>(
            5, hardware, executor,
            [this](std::chrono::nanoseconds duration) {
                waits.push_back(duration);
                if (duringWait)
                    duringWait();
            },
            [this] { return now.load(); });
        engine->onConfigurationChange = [this] {
            callbackOnMainThread = executor.isMainThread();
            ++configurationChanges;
        };
        return *engine;
    }

    void start(const std::vector<EQBand>& bands = EQConfig::defaultConfig().bands, double outputGainDB = 0.0)
    {
        engine->start(bands, outputGainDB);
    }

    // Runs one cycle of the engine's aggregate with a stereo input block.
    std::vector<float> cycle(const std::vector<float>& input)
    {
        std::vector<float> in = input;
        std::vector<float> out(in.size(), 0.0f);
        AudioBuffer inBuffer { 2, static_cast<uint32_t>(in.size() * 4), in.data() };
        AudioBuffer outBuffer { 2, static_cast<uint32_t>(out.size() * 4), out.data() };
        AudioBufferList inList { 1, &inBuffer };
        AudioBufferList outList { 1, &outBuffer };
        EXPECT_EQ(hardware.runIOCycle(engine->currentAggregateID(), &inList, &outList), 1);
        return out;
    }

    std::vector<std::string> logged()
    {
        std::lock_guard guard(linesLock);
        return lines;
    }
    bool loggedLine(const std::string& line)
    {
        auto all = logged();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
    int countLines(const std::string& prefix)
    {
        int count = 0;
        for (const auto& line : logged())
            count += line.rfind(prefix, 0) == 0 ? 1 : 0;
        return count;
    }

    // Fires the listeners' pending work and runs what they posted.
    void settle()
    {
        hardware.drainListenerQueues();
        executor.runPending();
    }

    std::filesystem::path folder;
    SimulatedAudioHardware hardware;
    ManualMainExecutor executor;
    AudioObjectID speakers = 0;
    AudioObjectID headphones = 0;
    std::atomic<uint64_t> now { 100'000'000'000ull };
    std::vector<std::chrono::nanoseconds> waits;
    std::function<void()> duringWait;
    std::mutex linesLock;
    std::vector<std::string> lines;
    int configurationChanges = 0;
    bool callbackOnMainThread = false;
    std::unique_ptr<SystemEQProcessor> engine;
};

} // namespace

TEST_F(Engine, StartBuildsThePrivateTapAndAggregateOnTheDefaultDevice)
{
    SystemEQProcessor& eq = makeEngine();
    start();
    EXPECT_EQ(eq.outputDeviceName, "Speakers");
    EXPECT_EQ(eq.sampleRate, 48000.0);
    EXPECT_EQ(eq.deviceAtStart(), speakers);

    const auto tap = hardware.tapDescriptionOf(eq.currentTapID());
    ASSERT_TRUE(tap);
    EXPECT_EQ(tap->processSelection, TapDescription::ProcessSelection::stereoGlobalTapButExcludeProcesses);
    EXPECT_EQ(tap->processes, std::vector<AudioObjectID> { hardware.ownProcessObject() });
    EXPECT_EQ(tap->uuid, eq.tapIdentifier());
    EXPECT_EQ(tap->name, "SORVA System Tap");
    EXPECT_TRUE(tap->isPrivate);
    EXPECT_EQ(tap->muteBehavior, TapDescription::MuteBehavior::mutedWhenTapped);

    const auto aggregate = hardware.aggregateDescriptionOf(eq.currentAggregateID());
    ASSERT_TRUE(aggregate);
    EXPECT_EQ(aggregate->keys(), (std::vector<std::string> { "name", "uid", "private", "stacked", "tapautostart",
                                                            "master", "subdevices", "taps" }));
    EXPECT_EQ(aggregate->name, "SORVA Output");
    EXPECT_EQ(aggregate->uid, "com.sorva.app.aggregate");
    EXPECT_TRUE(aggregate->isPrivate);
    EXPECT_FALSE(aggregate->isStacked);
    EXPECT_TRUE(aggregate->tapAutoStart);
    EXPECT_EQ(aggregate->mainSubDevice, "speakers-uid");
    EXPECT_EQ(aggregate->subDevices, (std::vector<AggregateDescription::SubDevice> { { "speakers-uid", 0 } }));
    std::string upper = eq.tapIdentifier();
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(aggregate->taps, (std::vector<AggregateDescription::SubTap> { { upper, true } }));

    EXPECT_EQ(hardware.runningIOProcs(), 1u);
    EXPECT_EQ(hardware.liveListeners(), 2u);
    EXPECT_EQ(eq.currentListenerDevice(), speakers);
    EXPECT_EQ(executor.activeTimers(), 1u) << "the recorder's capture timer";
    EXPECT_TRUE(loggedLine("single-device processor started — output Speakers @ 48000.0 Hz"));
    EXPECT_EQ(countLines("IO buffer request"), 0);
    EXPECT_EQ(countLines("TEST MODE"), 0);
}

TEST_F(Engine, StopTearsEverythingDownAfterTheFadeOutAndIsSafeTwice)
{
    SystemEQProcessor& eq = makeEngine();
    start();
    // Stop while the render path still runs: the device is stopped only after
    // the wait, and the wait is the one moment the render path plays the fade.
    bool runningDuringWait = false;
    duringWait = [&] { runningDuringWait = hardware.runningIOProcs() == 1; };
    eq.stop();
    EXPECT_TRUE(runningDuringWait);
    EXPECT_EQ(waits, std::vector<std::chrono::nanoseconds> { 150ms });
    EXPECT_TRUE(hardware.nothingAlive());
    EXPECT_EQ(executor.activeTimers(), 0u);
    EXPECT_EQ(eq.currentTapID(), 0u);
    EXPECT_EQ(eq.currentAggregateID(), 0u);
    EXPECT_EQ(eq.currentIOProcID(), 0u);
    EXPECT_EQ(eq.currentListenerDevice(), 0u);

    const int destroys = hardware.callCount(Call::destroyAggregateDevice) + hardware.callCount(Call::destroyProcessTap)
        + hardware.callCount(Call::stopDevice) + hardware.callCount(Call::removePropertyListener);
    eq.stop();
    EXPECT_EQ(waits.size(), 1u) << "no second fade or wait";
    EXPECT_EQ(hardware.callCount(Call::destroyAggregateDevice) + hardware.callCount(Call::destroyProcessTap)
                  + hardware.callCount(Call::stopDevice) + hardware.callCount(Call::removePropertyListener),
              destroys);
    engine.reset(); // the destructor stops a third time
    EXPECT_EQ(waits.size(), 1u);
}

TEST_F(Engine, EveryFailedSetUpStepReportsItsErrorAndLeavesNothingBehind)
{
    struct Row {
        const char* what;
        std::function<void()> inject;
        std::string description;
        bool permission;
        bool fadedOut; // stop found a registered IO procedure
    };
    const std::vector<Row> rows {
        { "default device unreadable", [&] { hardware.injectStatus(Call::defaultOutputDevice, -10851); },
          "No default output device failed (OSStatus -1)", false, false },
        { "no default device", [&] { hardware.setDefaultOutputDevice(0); },
          "No default output device failed (OSStatus -1)", false, false },
        { "UID unreadable", [&] { hardware.injectStatus(Call::deviceUID, kAudioHardwareBadObjectError); },
          "No default output device failed (OSStatus -1)", false, false },
        { "own process unknown", [&] { hardware.injectStatus(Call::translatePIDToProcessObject, -66); },
          "TranslatePIDToProcessObject failed (OSStatus -66)", false, false },
        { "permission (nope)",
          [&] { hardware.injectStatus(Call::createProcessTap, kAudioHardwarePermissionDenied); },
          "System audio recording permission not granted", true, false },
        { "permission (1)", [&] { hardware.injectStatus(Call::createProcessTap, 1); },
          "System audio recording permission not granted", true, false },
        { "tap refused", [&] { hardware.injectStatus(Call::createProcessTap, -50); },
          "AudioHardwareCreateProcessTap failed (OSStatus -50)", false, false },
        { "aggregate refused", [&] { hardware.injectStatus(Call::createAggregateDevice, -50); },
          "AudioHardwareCreateAggregateDevice failed (OSStatus -50)", false, false },
        { "IO procedure refused", [&] { hardware.injectStatus(Call::createIOProcID, kAudioHardwareBadDeviceError); },
          "AudioDeviceCreateIOProcIDWithBlock failed (OSStatus " + std::to_string(kAudioHardwareBadDeviceError) + ")",
          false, false },
        { "IO procedure without ID", [&] { hardware.setCreateIOProcLeavesIDEmpty(true); },
          "AudioDeviceCreateIOProcIDWithBlock failed (OSStatus 0)", false, false },
        { "device start refused", [&] { hardware.injectStatus(Call::startDevice, kAudioHardwareNotRunningError); },
          "AudioDeviceStart failed (OSStatus " + std::to_string(kAudioHardwareNotRunningError) + ")", false, true },
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        hardware.clearInjectedStatuses();
        hardware.setCreateIOProcLeavesIDEmpty(false);
        hardware.setDefaultOutputDevice(speakers);
        waits.clear();
        makeEngine();
        row.inject();
        try {
            start();
            ADD_FAILURE() << "start succeeded";
        } catch (const AudioTapError& error) {
            EXPECT_EQ(error.errorDescription(), row.description);
            EXPECT_EQ(error.isPermissionDenied(), row.permission);
        }
        EXPECT_TRUE(hardware.nothingAlive());
        EXPECT_EQ(executor.activeTimers(), 0u) << "the recorder never started capturing";
        EXPECT_EQ(waits.size(), row.fadedOut ? 1u : 0u);
        EXPECT_EQ(engine->currentTapID(), 0u);
        EXPECT_EQ(engine->currentAggregateID(), 0u);
        EXPECT_EQ(engine->currentIOProcID(), 0u);
        engine.reset();
    }
    EXPECT_EQ(countLines("single-device processor started"), 0);
}

TEST_F(Engine, TestModeTapsOnlyTheNamedApplication)
{
    const AudioObjectID player = hardware.addProcess(4242, true, std::string("org.example.player"));
    hardware.addProcess(4343, true, std::string("org.example.other"));
    {
        ScopedEnvironment only("SORVA_TAP_ONLY_BUNDLE_ID", "org.example.player");
        SystemEQProcessor& eq = makeEngine();
        start();
        const auto tap = hardware.tapDescriptionOf(eq.currentTapID());
        ASSERT_TRUE(tap);
        EXPECT_EQ(tap->processSelection, TapDescription::ProcessSelection::stereoMixdownOfProcesses);
        EXPECT_EQ(tap->processes, std::vector<AudioObjectID> { player });
        EXPECT_EQ(tap->name, "SORVA System Tap");
        EXPECT_TRUE(loggedLine("TEST MODE — tapping only pid 4242 for org.example.player"));
        eq.stop();
    }
    {
        // Nobody has that identifier: the normal global tap, no test-mode line.
        ScopedEnvironment only("SORVA_TAP_ONLY_BUNDLE_ID", "org.example.absent");
        SystemEQProcessor& eq = makeEngine();
        start();
        const auto tap = hardware.tapDescriptionOf(eq.currentTapID());
        ASSERT_TRUE(tap);
        EXPECT_EQ(tap->processSelection, TapDescription::ProcessSelection::stereoGlobalTapButExcludeProcesses);
        EXPECT_EQ(countLines("TEST MODE"), 1);
        eq.stop();
    }
    {
        // The application's process object cannot be found: start fails, nothing made.
        ScopedEnvironment only("SORVA_TAP_ONLY_BUNDLE_ID", "org.example.player");
        makeEngine();
        hardware.injectStatus(Call::translatePIDToProcessObject, -3, 1, 1); // own PID passes, the player's fails
        EXPECT_THROW(
            try { start(); } catch (const AudioTapError& error) {
                EXPECT_EQ(error.errorDescription(), "TranslatePIDToProcessObject failed (OSStatus -3)");
                throw;
            },
            AudioTapError);
        EXPECT_TRUE(hardware.nothingAlive());
    }
}

TEST_F(Engine, BufferSizeRequestIsMadeOnlyForAnUnsignedNumber)
{
    struct Case {
        const char* value;
        std::optional<uint32_t> request;
    };
    const Case cases[] = { { "256", 256u }, { "+128", 128u }, { "abc", std::nullopt }, { "", std::nullopt },
                           { "-5", std::nullopt }, { "4294967296", std::nullopt }, { "12 ", std::nullopt } };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        ScopedEnvironment request("SORVA_IOBUF", c.value);
        const int before = countLines("IO buffer request");
        SystemEQProcessor& eq = makeEngine();
        start();
        EXPECT_EQ(hardware.requestedBufferFrameSize(eq.currentAggregateID()), c.request);
        if (c.request) {
            EXPECT_TRUE(loggedLine("IO buffer request " + std::to_string(*c.request) + " frames -> status 0"));
        }
        EXPECT_EQ(countLines("IO buffer request"), before + (c.request ? 1 : 0));
        eq.stop();
    }
    // A refused request is logged with its status and changes nothing else.
    ScopedEnvironment request("SORVA_IOBUF", "64");
    hardware.injectStatus(Call::setBufferFrameSize, -50);
    SystemEQProcessor& eq = makeEngine();
    start();
    EXPECT_TRUE(loggedLine("IO buffer request 64 frames -> status -50"));
    EXPECT_EQ(hardware.runningIOProcs(), 1u);
    eq.stop();
}

TEST_F(Engine, FadesLastOneHundredFiftyMillisecondsInAndOneHundredTwentyOut)
{
    struct Case {
        std::function<void()> setUp;
        double rate;
        int64_t fadeIn, fadeOut;
    };
    const Case cases[] = {
        { [] {}, 48000.0, 7200, 5760 },
        { [&] { hardware.setNominalSampleRate(speakers, 44100.0); }, 44100.0, 6615, 5292 },
        { [&] { hardware.injectStatus(Call::nominalSampleRate, -1, 1); }, 48000.0, 7200, 5760 },
        { [&] { hardware.setNominalSampleRate(speakers, 0.0); }, 48000.0, 7200, 5760 },
    };
    const std::vector<float> constant(512 * 2, 0.5f);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rate);
        hardware.clearInjectedStatuses();
        hardware.setNominalSampleRate(speakers, 48000.0);
        c.setUp();
        SystemEQProcessor& eq = makeEngine();
        start();
        EXPECT_EQ(eq.sampleRate, c.rate);
        // Flat bands at 0 dB: the output is the input times the fade gain, so
        // the first frame at full level is the fade-in's length.
        int64_t frame = 0;
        int64_t firstFull = -1;
        while (firstFull < 0 && frame < 20000) {
            const auto out = cycle(constant);
            for (int64_t i = 0; i < 512 && firstFull < 0; ++i)
                if (out[static_cast<size_t>(2 * i)] == 0.5f)
                    firstFull = frame + i;
            frame += 512;
        }
        EXPECT_EQ(firstFull, c.fadeIn);
        // The fade-out plays during stop's wait; the first silent frame is its length.
        int64_t firstSilent = -1;
        duringWait = [&] {
            int64_t played = 0;
            while (firstSilent < 0 && played < 20000) {
                const auto out = cycle(constant);
                for (int64_t i = 0; i < 512 && firstSilent < 0; ++i)
                    if (out[static_cast<size_t>(2 * i)] == 0.0f)
                        firstSilent = played + i;
                played += 512;
            }
        };
        eq.stop();
        duringWait = nullptr;
        EXPECT_EQ(firstSilent, c.fadeOut);
    }
}

TEST_F(Engine, RendersTheEqualizedTapMixOnTheAggregate)
{
    const std::vector<EQBand> bands { EQBand("Bass", 30, 9), EQBand("Low-Mid", 125, -4), EQBand("Mid", 500, 2),
                                      EQBand("High-Mid", 2000, 0), EQBand("Treble", 8000, -6) };
    SystemEQProcessor& eq = makeEngine();
    start(bands, 1.5);
    BiquadEQ reference(5, 2);
    reference.update(bands, 1.5, 48000.0);
    FadeRamp referenceFade;
    referenceFade.start(7200, 1.0f);
    std::vector<float> block(512 * 2);
    uint32_t seed = 7;
    for (int n = 0; n < 30; ++n) {
        for (float& sample : block) {
            seed = seed * 1664525u + 1013904223u;
            sample = static_cast<float>(seed >> 8) / 16777216.0f - 0.5f;
        }
        auto want = block;
        reference.processInterleaved(want.data(), 512, 2);
        referenceFade.apply(want.data(), 512, 2);
        ASSERT_EQ(cycle(block), want) << "block " << n;
    }
    EXPECT_EQ(eq.stats.snapshot().frames, 30 * 512);
    EXPECT_EQ(eq.timing.snapshot().callbacks, 30);
    EXPECT_EQ(countLines("IOProc layout — in 1 buf / 2 ch / 4096 B, out 1 buf / 2 ch / 4096 B"), 1);

    // A new engine logs the layout again.
    eq.stop();
    makeEngine();
    start();
    cycle(block);
    EXPECT_EQ(countLines("IOProc layout"), 2);
}

TEST_F(Engine, DeviceChangesWithinThreeSecondsOfStartAreDropped)
{
    makeEngine();
    const uint64_t startedAt = now.load();
    start();
    now = startedAt + 2'000'000'000ull;
    hardware.setDefaultOutputDevice(headphones);
    settle();
    now = startedAt + 3'000'000'000ull; // not later than the deadline either
    hardware.setDefaultOutputDevice(headphones);
    settle();
    EXPECT_EQ(configurationChanges, 0);
    EXPECT_EQ(countLines("default output device changed"), 0);

    now = startedAt + 4'000'000'000ull;
    hardware.setDefaultOutputDevice(headphones);
    hardware.drainListenerQueues();
    EXPECT_EQ(configurationChanges, 0) << "the callback waits for the main thread";
    EXPECT_EQ(countLines("default output device changed — rebuilding"), 1);
    executor.runPending();
    EXPECT_EQ(configurationChanges, 1);
    EXPECT_TRUE(callbackOnMainThread);
}

TEST_F(Engine, DeviceListenerIgnoresNoDeviceAndASwitchBack)
{
    makeEngine();
    const uint64_t startedAt = now.load();
    start();
    now = startedAt + 5'000'000'000ull;
    hardware.setDefaultOutputDevice(0);
    settle();
    hardware.pauseListenerDelivery();
    hardware.setDefaultOutputDevice(headphones);
    hardware.setDefaultOutputDevice(speakers); // back before the handlers run
    hardware.resumeListenerDelivery();
    settle();
    // An unreadable default device ends the handler.
    hardware.pauseListenerDelivery();
    hardware.setDefaultOutputDevice(headphones);
    hardware.injectStatus(Call::defaultOutputDevice, -1);
    hardware.resumeListenerDelivery();
    settle();
    hardware.clearInjectedStatuses();
    EXPECT_EQ(configurationChanges, 0);
    EXPECT_EQ(countLines("default output device changed"), 0);
}

TEST_F(Engine, RateListenerRebuildsOnlyForARealChangeOfTheCurrentDevicesRate)
{
    SystemEQProcessor& eq = makeEngine();
    start();
    hardware.setNominalSampleRate(speakers, 48000.5);
    settle();
    EXPECT_EQ(configurationChanges, 0);
    hardware.setNominalSampleRate(speakers, 0.0);
    settle();
    EXPECT_EQ(configurationChanges, 0);

    // Changing the callback after start does not reach installed handlers.
    int lateCallbacks = 0;
    eq.onConfigurationChange = [&] { ++lateCallbacks; };
    hardware.setNominalSampleRate(speakers, 44100.0);
    settle();
    EXPECT_EQ(configurationChanges, 1);
    EXPECT_EQ(lateCallbacks, 0);
    EXPECT_EQ(countLines("output sample rate changed — rebuilding"), 1);

    // The handler reads the rate of the current default device: here the
    // headphones (44100) after a switch within the settle time.
    hardware.setNominalSampleRate(speakers, 48000.0);
    settle();
    EXPECT_EQ(configurationChanges, 1);
    hardware.setDefaultOutputDevice(headphones);
    hardware.setNominalSampleRate(speakers, 48000.0);
    settle();
    EXPECT_EQ(configurationChanges, 2);
    EXPECT_EQ(countLines("default output device changed"), 0);
}

TEST_F(Engine, NothingFiresAfterStop)
{
    SystemEQProcessor& eq = makeEngine();
    start();
    eq.stop();
    EXPECT_EQ(hardware.liveListeners(), 0u);
    now = now.load() + 10'000'000'000ull;
    hardware.setDefaultOutputDevice(headphones);
    hardware.setNominalSampleRate(speakers, 96000.0);
    settle();
    EXPECT_EQ(configurationChanges, 0);

    // A second engine's listeners are its own.
    hardware.setDefaultOutputDevice(speakers);
    SystemEQProcessor& second = makeEngine();
    start();
    EXPECT_EQ(hardware.liveListeners(), 2u);
    second.stop();
}

TEST_F(Engine, CapturesOnceAMinuteWithTheDeviceInTheContext)
{
    hardware.setNominalSampleRate(speakers, 44100.0);
    SystemEQProcessor& eq = makeEngine();
    start();
    for (int n = 0; n < 10; ++n)
        cycle(std::vector<float>(512 * 2, 0.1f));
    executor.advance(59s);
    eq.recorder.waitForCaptures();
    const auto directory = *EQLog::diagnosticsDirectory();
    EXPECT_FALSE(std::filesystem::exists(directory) && !std::filesystem::is_empty(directory));
    executor.advance(1s);
    eq.recorder.waitForCaptures();
    std::vector<std::filesystem::path> contexts;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.path().string().ends_with("-context.txt"))
            contexts.push_back(entry.path());
    ASSERT_EQ(contexts.size(), 1u);
    std::ifstream file(contexts[0]);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_TRUE(text.str().ends_with("Architecture: single-device\nOutput device: Speakers\nSample rate: 44100.0 Hz"))
        << text.str();
    EXPECT_NE(text.str().find("Captured: 0.1 s (5120 frames)"), std::string::npos) << text.str();
}

TEST_F(Engine, RunsAgainstAnIOThreadWhileTheMainThreadUpdatesAndPolls)
{
    // A real IO thread (one 48-frame cycle per millisecond) while the main
    // thread does what the controller does: configuration updates and the
    // once-a-second snapshots, here as fast as it can. Meant for the thread
    // sanitizer as much as for the assertions.
    SystemEQProcessor& eq = makeEngine();
    start();
    SimulatedRealtimeDriver driver(hardware, 48000.0, 48);
    driver.start();
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    int64_t frames = 0;
    const auto until = std::chrono::steady_clock::now() + 25ms;
    for (int n = 0; std::chrono::steady_clock::now() < until; ++n) {
        bands[static_cast<size_t>(n % 5)].gain = (n % 7) - 3.0;
        eq.eq.update(bands, (n % 3) - 1.0, eq.sampleRate);
        frames += eq.stats.snapshot().frames;
        eq.timing.snapshot();
        eq.spectrum.levels();
        std::this_thread::sleep_for(1ms);
    }
    duringWait = [] { std::this_thread::sleep_for(5ms); }; // the fade-out plays for real
    eq.stop();
    const int64_t cyclesAtStop = driver.cycles();
    std::this_thread::sleep_for(3ms);
    EXPECT_EQ(driver.cycles(), cyclesAtStop) << "no cycle after stop";
    driver.stop();
    EXPECT_GT(cyclesAtStop, 5);
    EXPECT_GT(frames + eq.stats.snapshot().frames, 5 * 48);
    EXPECT_TRUE(hardware.nothingAlive());
}
