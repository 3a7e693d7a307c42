// The controller on the simulated audio system; the manual executor's virtual clock drives every tick.
#include "Audio/EQController.h"

#include "Audio/AudioLifecycleCoordinator.h"
#include "Audio/BufferedEQProcessor.h"
#include "Audio/SystemEQProcessor.h"
#include "Models/EQSettings.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedOutputEngine.h"
#include "Platform/SleepWatcher.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QDBusConnection>

#include <cmath>
#include <regex>
#include <unistd.h>

using namespace std::chrono_literals;

namespace sorva {

void PrintTo(const EQController::Status& status, std::ostream* out) { *out << status.description(); }

namespace {

constexpr uint32_t cycleFrames = 512;
using Status = EQController::Status;
using Call = SimulatedAudioHardware::Call;
const std::string restartLine = "tap still silent after 2s — restarting";

size_t count(const std::vector<std::string>& lines, const std::string& text) { return size_t(std::ranges::count(lines, text)); }

size_t countPrefix(const std::vector<std::string>& lines, const std::string& prefix)
{
    return size_t(std::ranges::count_if(lines, [&](const std::string& line) { return line.starts_with(prefix); }));
}

class ControllerTest : public ::testing::Test {
protected:
    ControllerTest()
    {
        sorva::testing::qtApp();
        hardware->addOutputDevice("Speakers", "speakers", 48000.0, cycleFrames);
        player = hardware->addProcess(static_cast<int32_t>(::getpid()) + 1000, false, std::string("org.example.player"));
    }

    EQController& make()
    {
        controller.reset();
        EQController::Environment environment;
        environment.hardware = hardware;
        environment.mainExecutor = executor;
        environment.now = [clock = executor] { return static_cast<double>(clock->now()) / 1e9; };
        environment.monotonicClock = [clock = executor] { return clock->now(); };
        environment.sleeper = [](uint64_t, std::stop_token) {};
        environment.engineWait = [](std::chrono::nanoseconds) {};
        environment.makeOutputEngine = [] { return std::make_unique<SimulatedOutputEngine>(); };
        environment.makeSleepWatcher = [this] {
            auto watcher = std::make_unique<SleepWatcher>(QDBusConnection(QStringLiteral("sorva-no-bus")));
            sleepWatcher = watcher.get();
            return watcher;
        };
        controller = std::make_unique<EQController>(environment);
        QObject::connect(controller.get(), &EQController::statusChanged,
                         [this](const Status& status) { statuses.push_back(status); });
        return *controller;
    }

    bool pumpUntil(const std::function<bool()>& done) { return executor->runUntil(done, 5s); }

    // Switches on and waits until the request has been carried out.
    void switchOn()
    {
        const size_t before = logged("setRunning task finished awaiting setUserEnabled");
        controller->setRunning(true);
        ASSERT_TRUE(pumpUntil([&] { return controller->isRunning() && controller->hasMonitor(); }));
        ASSERT_TRUE(pumpUntil([&] { return logged("setRunning task finished awaiting setUserEnabled") > before; }));
    }

    void switchOff()
    {
        controller->setRunning(false);
        ASSERT_TRUE(pumpUntil([&] { return !controller->hasSingleDeviceProcessor() && controller->status() == Status::off(); }));
    }

    void waitForState(AudioLifecycleState state)
    {
        ASSERT_TRUE(pumpUntil([&] { return controller->lifecycle().currentState() == state; }));
        executor->runPending();
    }

    AudioObjectID aggregate()
    {
        if (auto* engine = controller->singleDeviceProcessor())
            return engine->currentAggregateID();
        if (auto* engine = controller->bufferedProcessor())
            return engine->currentAggregateID();
        return 0;
    }

    // Waits until the coordinator has replaced the engine built on `old`.
    void waitForRebuild(AudioObjectID old)
    {
        ASSERT_TRUE(pumpUntil([&] { return controller->isRunning() && aggregate() != 0 && aggregate() != old; }));
    }

    // A second's worth of IO cycles on the running engine, then one supervision tick.
    void tick(bool signal)
    {
        if (auto id = aggregate()) {
            std::vector<float> input(cycleFrames * 2, signal ? 0.25f : 0.0f), output(cycleFrames * 2, 0.0f);
            AudioBuffer in { 2, static_cast<uint32_t>(input.size() * sizeof(float)), input.data() };
            AudioBuffer out { 2, static_cast<uint32_t>(output.size() * sizeof(float)), output.data() };
            AudioBufferList inList { 1, &in }, outList { 1, &out };
            for (int i = 0; i < 4; ++i)
                hardware->runIOCycle(id, &inList, &outList);
        }
        idle(1s);
    }

    // `count` steps of the virtual clock, each followed by the jobs it made due.
    void idle(std::chrono::nanoseconds step, int count = 1)
    {
        for (int i = 0; i < count; ++i) {
            executor->advance(step);
            executor->runPending();
        }
    }

    std::string state()
    {
        return std::string(controller->isRunning() ? "on" : "off") + (controller->hasSingleDeviceProcessor() ? " engine" : "")
            + (controller->hasBufferedProcessor() ? " buffered" : "") + (controller->hasMonitor() ? " monitor" : "")
            + (EQSettings::eqEnabled() ? " stored" : "") + (hardware->nothingAlive() ? "" : " alive") + ": "
            + controller->status().description();
    }

    // How often `text` was logged since the last takeLines().
    size_t logged(const std::string& text) { return count(log.taken(), text); }

    // The lines logged since the last call, without the coordinator thread's own ("actor: ...").
    std::vector<std::string> takeLines()
    {
        std::vector<std::string> taken = log.take();
        std::erase_if(taken, [](const std::string& line) { return line.starts_with("actor: "); });
        return taken;
    }

    sorva::testing::ConfigHome configHome;
    sorva::testing::LogCapture log;
    std::shared_ptr<SimulatedAudioHardware> hardware = std::make_shared<SimulatedAudioHardware>();
    std::shared_ptr<ManualMainExecutor> executor = std::make_shared<ManualMainExecutor>();
    AudioObjectID player = 0;
    SleepWatcher* sleepWatcher = nullptr;
    std::vector<Status> statuses;
    std::unique_ptr<EQController> controller; // last: goes first
};

TEST_F(ControllerTest, SwitchRestoreAndStopStartTheEngineAndTearItDown)
{
    make().restorePreviousState();
    executor->runPending();
    executor->advance(2s);
    EXPECT_EQ(state(), "off: off");
    EXPECT_EQ(takeLines(), std::vector<std::string> { "restorePreviousState called, wasEnabled=false" });

    controller->setRunning(true);
    EXPECT_TRUE(EQSettings::eqEnabled()) << "stored before the coordinator has done anything";
    ASSERT_TRUE(pumpUntil([&] { return controller->isRunning(); }));
    EXPECT_TRUE(controller->hasSingleDeviceProcessor());
    EXPECT_EQ(controller->status(), Status::starting());
    EXPECT_EQ(controller->diagnostics().toStdString(), "Speakers · 48 kHz");
    ASSERT_TRUE(pumpUntil([&] { return logged("setRunning task finished awaiting setUserEnabled") == 1; }));
    EXPECT_EQ(takeLines().front(), "setRunning(true) called");
    switchOff();
    EXPECT_EQ(state(), "off: off");

    // Launched again, it restores the stored wish.
    EQSettings::setEQEnabled(true);
    takeLines();
    auto& eq = make();
    eq.restorePreviousState();
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning() && logged("restore task finished") == 1; }));
    EXPECT_EQ(takeLines().front(), "restorePreviousState called, wasEnabled=true");

    // stopProcessor tears down at once, and the poll then does nothing.
    eq.stopProcessor();
    EXPECT_EQ(state(), "on stored: starting") << "torn down, nothing left alive";
    takeLines();
    executor->advance(3s);
    EXPECT_EQ(countPrefix(takeLines(), "frames "), 0u);
    eq.stopProcessor();
}

// The spectrum display follows the engine only while it runs.
TEST_F(ControllerTest, FirstSignalAfterSevenSecondsIsCapturingAndLaterSilenceWithNothingPlayingIsOnlyIdle)
{
    auto& eq = make();
    eq.startSpectrum();
    int spectra = 0;
    QObject::connect(&eq, &EQController::spectrumChanged, [&] { ++spectra; });
    executor->advance(100ms);
    EXPECT_EQ(spectra, 0) << "not running: no spectrum";
    switchOn();
    takeLines();
    int taps = hardware->callCount(Call::createProcessTap);
    for (int second = 1; second <= 37; ++second) {
        tick(second == 7);
        if (second != 7) {
            EXPECT_EQ(eq.status(), Status::idle()) << "tick " << second;
        } else {
            EXPECT_EQ(eq.status(), Status::capturing(0.25f, 0));
            EXPECT_GT(std::ranges::max(eq.spectrum()), 0.0f);
        }
    }
    EXPECT_TRUE(eq.isRunning());
    EXPECT_EQ(hardware->callCount(Call::createProcessTap), taps) << "no restart";
    // Nothing but the layout line at the first cycle, one statistics line per
    // tick, and once, at the tick that first saw sound, the time that took.
    auto log = takeLines();
    ASSERT_EQ(log.size(), 39u);
    EXPECT_TRUE(log[0].starts_with("IOProc layout — ")) << log[0];
    EXPECT_TRUE(log[7].starts_with("first equalized frame ")) << log[7];
    EXPECT_EQ(countPrefix(log, "frames "), 37u);
    // Four cycles of 512 frames ran before each tick.
    EXPECT_TRUE(log[8].starts_with("frames 2048/s · peak 0.2500 · late 0/4 · maxGap ")) << log[8];
    EXPECT_TRUE(log[9].starts_with("frames 2048/s · peak 0.0000 · ")) << log[9];
    EXPECT_GE(spectra, 30 * 30);
    eq.stopSpectrum();
    EXPECT_EQ(eq.spectrum(), std::vector<float>(16, 0.0f));
    // A second of sound with the display closed: nothing shown, and the
    // engine kept nothing for it either.
    const int atStop = spectra;
    tick(true);
    EXPECT_EQ(spectra, atStop);
    EXPECT_EQ(eq.singleDeviceProcessor()->spectrum.levels(), SpectrumAnalyzer::Levels {});
}

TEST_F(ControllerTest, NoSignalForNineTicksMeansPermissionDeniedWithoutForgettingTheSwitch)
{
    // The grace period runs from the start, or from the last tick without
    // frames when an idle graph ran no cycles at all.
    for (int idleSeconds : { 0, 30 }) {
        auto& eq = make();
        switchOn();
        idle(1s, idleSeconds);
        for (int second = 1; second <= 8; ++second) {
            tick(false);
            EXPECT_EQ(eq.status(), Status::idle()) << "tick " << second << " after " << idleSeconds;
        }
        EXPECT_EQ(countPrefix(takeLines(), "no signal within grace period"), 0u);
        tick(false);
        auto log = takeLines();
        EXPECT_EQ(count(log, "no signal within grace period — permission likely not granted"), 1u);
        EXPECT_EQ(countPrefix(log, "frames "), 0u);
        EXPECT_EQ(eq.status(), Status::permissionDenied());
        ASSERT_TRUE(pumpUntil([&] { return !eq.isRunning() && !eq.hasSingleDeviceProcessor(); }));
        waitForState(AudioLifecycleState::inactive);
        // The coordinator's "inactive" shows the permission problem, not "off".
        EXPECT_EQ(statuses.back(), Status::permissionDenied());
        EXPECT_EQ(state(), "off stored: permissionDenied");
    }
}

TEST_F(ControllerTest, SilentTapWhilePlayingRestartsAtTickTwoAndTheFourthRestartIn20sGivesUp)
{
    auto& eq = make();
    switchOn();
    // Ten seconds of an idle graph (no cycles, nothing playing) count as no
    // silence: the program that starts afterwards gets the full two ticks.
    idle(1s, 10);
    hardware->setProcessRunningOutput(player, true);
    auto restartOnce = [&] {
        auto old = aggregate();
        takeLines();
        tick(false);
        EXPECT_EQ(eq.status(), Status::idle());
        EXPECT_EQ(countPrefix(takeLines(), "tap still silent"), 0u);
        tick(false);
        auto log = takeLines();
        EXPECT_EQ(count(log, restartLine), 1u);
        EXPECT_EQ(countPrefix(log, "frames "), 0u);
        EXPECT_EQ(countPrefix(log, "too many restarts"), 0u);
        waitForRebuild(old);
    };
    auto switchOffFor = [&](std::chrono::seconds pause) {
        switchOff();
        executor->advance(pause);
        switchOn();
        takeLines();
    };
    for (int i = 0; i < 3; ++i)
        restartOnce(); // t = 2, 4, 6
    tick(true); // t = 7: a signal empties the list
    for (int i = 0; i < 3; ++i)
        restartOnce(); // t = 9, 11, 13
    // The window spans off periods, and an entry exactly 20 s old still
    // counts: the request at t = 29 finds 9, 11 and 13.
    switchOffFor(14s);
    tick(false);
    tick(false);
    auto log = takeLines();
    EXPECT_EQ(count(log, restartLine), 1u);
    EXPECT_EQ(count(log, "too many restarts (3) in 20s — giving up, turning off"), 1u);
    EXPECT_EQ(count(log, "setRunning(false) called"), 1u);
    ASSERT_TRUE(pumpUntil([&] { return !eq.hasSingleDeviceProcessor() && eq.status() == Status::off(); }));
    EXPECT_EQ(state(), "off: off");
    // Giving up emptied the list; entries more than 20 s old drop out.
    switchOn();
    for (int i = 0; i < 3; ++i)
        restartOnce(); // t = 31, 33, 35
    switchOffFor(15s);
    restartOnce(); // t = 52: 31 is 21 s old
}

TEST_F(ControllerTest, BufferedSilenceWhilePlayingRefreshesAtTwoAndRestartsAtFiveOncePerSilence)
{
    sorva::testing::writeFile(EQSettings::filePath(), "[General]\nbufferedMode=true\nbufferLatencyMs=80\n");
    auto& eq = make();
    switchOn();
    ASSERT_TRUE(eq.hasBufferedProcessor());
    EXPECT_FALSE(eq.hasSingleDeviceProcessor());
    EXPECT_EQ(eq.diagnostics().toStdString(), "Speakers · 80 ms buffer");
    tick(true);
    hardware->setProcessRunningOutput(player, true);
    auto refreshes = [&] { return hardware->callCount(Call::setTapDescription); };
    int before = refreshes();
    auto old = aggregate();
    takeLines();
    statuses.clear();
    for (int second = 1; second <= 5; ++second) {
        tick(false);
        auto log = takeLines();
        if (second == 2) { // refreshed in place, and that is all
            EXPECT_EQ(log, std::vector<std::string> { "tap silent while audio plays — refreshed in place" });
            EXPECT_EQ(statuses, std::vector<Status> { Status::idle() }) << "no status update in a refresh tick";
        } else if (second == 5) {
            EXPECT_EQ(count(log, "tap still silent after 5s — restarting"), 1u);
        } else {
            ASSERT_EQ(log.size(), 1u);
            EXPECT_TRUE(std::regex_match(log[0], std::regex(R"(frames 2048/s · peak 0\.0000 · late .* · buffered \d+ · underruns \d+)")))
                << log[0];
        }
        EXPECT_EQ(refreshes(), before + (second >= 2)) << "one refresh per silence";
    }
    waitForRebuild(old);

    // On the new engine a refresh that fails lets the tick go on as usual.
    hardware->injectStatus(Call::setTapDescription, 1, 1);
    takeLines();
    tick(false);
    tick(false);
    auto log = takeLines();
    EXPECT_EQ(count(log, "tap refresh failed (OSStatus 1)"), 1u);
    EXPECT_EQ(countPrefix(log, "tap silent while audio plays"), 0u);
    EXPECT_EQ(countPrefix(log, "frames "), 2u);
    EXPECT_EQ(eq.status(), Status::idle());
}

TEST_F(ControllerTest, BypassSendsFlatBandsWhileTheSavedGainsStayAndPresetsFillTheLeadingBands)
{
    auto& eq = make();
    switchOn();
    // The output gain, then the band gains.
    auto expectSaved = [&](const std::vector<double>& expected) {
        for (const EQConfig& saved : { eq.config(), EQSettings::loadConfig() }) {
            std::vector<double> gains { saved.outputGain };
            for (const EQBand& band : saved.bands)
                gains.push_back(band.gain);
            EXPECT_EQ(gains, expected);
        }
    };
    auto* engine = eq.singleDeviceProcessor();
    auto expectApplied = [&](bool flat) {
        for (int64_t band = 0; band < 5; ++band)
            EXPECT_EQ(engine->eq.section(engine->eq.publishedBank(), band).isIdentity(), flat) << band;
        EXPECT_NEAR(engine->eq.currentOutputGain(), flat ? 1.0 : std::pow(10.0, 2.0 / 20), 1e-6);
    };
    EQConfig config = eq.config();
    const std::vector<double> gains { 6, -3, 4, -2, 1.5 };
    for (size_t i = 0; i < 5; ++i)
        config.bands[i].gain = gains[i];
    config.outputGain = 2;
    eq.setConfig(config);
    expectApplied(false);
    eq.setBypassed(true);
    expectApplied(true);
    expectSaved({ 2, 6, -3, 4, -2, 1.5 }); // what is stored and what the panel edits keep the real gains
    eq.setBypassed(false);
    expectApplied(false);

    eq.apply(EQPreset { "Short", { 3, -3 }, -1 });
    expectSaved({ -1, 3, -3, 4, -2, 1.5 });
    eq.apply(EQPreset { "Long", { 1, 2, 3, 4, 5, 6, 7 }, 0.5 });
    expectSaved({ 0.5, 1, 2, 3, 4, 5 });
    EXPECT_EQ(eq.config().bands[0].label, "Bass"); // labels and frequencies stay
    EXPECT_DOUBLE_EQ(eq.config().bands[4].frequency, 8000);
    eq.reset();
    expectSaved({ 0, 0, 0, 0, 0, 0 });
}

TEST_F(ControllerTest, PermissionRefusalShowsOnceThenTheNextFailureShowsItsMessage)
{
    auto& eq = make();
    hardware->injectStatus(Call::createProcessTap, 1852797029, 1);
    eq.setRunning(true);
    waitForState(AudioLifecycleState::failed);
    ASSERT_TRUE(pumpUntil([&] { return eq.status() == Status::permissionDenied(); }));
    EXPECT_EQ(count(takeLines(), "start failed: System audio recording permission not granted"), 1u);

    hardware->injectStatus(Call::createAggregateDevice, -50, 1);
    eq.setRunning(false);
    waitForState(AudioLifecycleState::inactive);
    EXPECT_EQ(eq.status(), Status::off()) << "the permission flag was consumed by the failed publication";
    eq.setRunning(true);
    ASSERT_TRUE(pumpUntil([&] { return eq.status().kind == Status::Case::failed; }));
    EXPECT_NE(eq.status().message.find("(OSStatus -50)"), std::string::npos) << eq.status().message;
    EXPECT_FALSE(eq.isRunning());
}

TEST_F(ControllerTest, SleepAndWakeFromTheWatcherStopAndRestartWithMatchingStatuses)
{
    auto& eq = make();
    switchOn();
    eq.observeWake();
    ASSERT_NE(sleepWatcher, nullptr);
    statuses.clear();
    sleepWatcher->handlePrepareForSleep(true);
    waitForState(AudioLifecycleState::sleeping);
    EXPECT_EQ(state(), "off stored: off");
    sleepWatcher->handlePrepareForSleep(false);
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning(); }));
    // sleeping: off; recovering and starting: starting; running leaves it.
    EXPECT_EQ(statuses, (std::vector<Status> { Status::off(), Status::starting(), Status::starting() }));
    auto log = takeLines();
    EXPECT_EQ(count(log, "willSleepNotification received"), 1u);
    EXPECT_EQ(count(log, "didWakeNotification received"), 1u);
    // The watcher here has no bus to listen on, and says so once.
    EXPECT_EQ(countPrefix(log, "sleep and wake notifications unavailable: no system bus"), 1u);
}

TEST_F(ControllerTest, LostServiceReleasesTheEngineAndStartsAgainOnlyOnceAnOutputIsBack)
{
    auto& eq = make();
    switchOn();
    AudioObjectID speakers = kAudioObjectUnknown;
    ASSERT_EQ(hardware->defaultOutputDevice(speakers), kAudioHardwareNoError);
    hardware->setServiceAvailable(false);
    tick(false);
    ASSERT_TRUE(pumpUntil([&] { return !eq.hasSingleDeviceProcessor(); }));
    EXPECT_EQ(eq.status(), Status::failed(EQController::serviceAwayMessage));
    // The daemon is back before its session manager has named a default
    // output: starting now would fail and stay failed, so nothing starts.
    idle(EQController::serviceRetryTick, 12);
    hardware->setDefaultOutputDevice(kAudioObjectUnknown);
    hardware->setServiceAvailable(true);
    takeLines();
    idle(EQController::serviceRetryTick, 12);
    EXPECT_EQ(count(takeLines(), "audio service back — starting again"), 0u);
    hardware->setDefaultOutputDevice(speakers);
    idle(EQController::serviceRetryTick);
    ASSERT_TRUE(pumpUntil([&] { return eq.hasSingleDeviceProcessor(); }));
    auto log = takeLines();
    EXPECT_EQ(count(log, "audio service back — starting again"), 1u);
    EXPECT_EQ(countPrefix(log, "start failed"), 0u) << "no failed start spent while the output was missing";
}

} // namespace
} // namespace sorva
