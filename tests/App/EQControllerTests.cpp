// The controller on the simulated audio system: a manual main executor whose
// virtual clock is also the controller's wall clock and the coordinator's
// uptime clock, so that supervision ticks happen exactly when the test
// advances time, and IO cycles run only when the test runs them.
#include "Audio/EQController.h"

#include "Audio/AudioLifecycleCoordinator.h"
#include "Audio/EQLog.h"
#include "Audio/BufferedEQProcessor.h"
#include "Audio/SystemEQProcessor.h"
#include "Models/EQPresets.h"
#include "Models/EQSettings.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedOutputEngine.h"
#include "Platform/SleepWatcher.h"
#include "QtTestSupport.h"
#include "TestFolders.h"

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QSettings>

#include <cmath>
#include <mutex>
#include <regex>
#include <unistd.h>

using namespace std::chrono_literals;

namespace sorva {
namespace {

constexpr uint32_t cycleFrames = 512;

class ControllerTest : public ::testing::Test {
protected:
    ControllerTest()
    {
        sorva::testing::qtApp();
        speakers = hardware->addOutputDevice("Speakers", "speakers", 48000.0, cycleFrames);
        player = hardware->addProcess(static_cast<int32_t>(::getpid()) + 1000, false, std::string("org.example.player"));
        EQLog::setObserver([this](const std::string& line) {
            std::lock_guard guard(linesLock);
            lines.push_back(line);
        });
    }

    ~ControllerTest() override
    {
        controller.reset();
        EQLog::setObserver({});
    }

    EQController::Environment environment()
    {
        EQController::Environment environment;
        environment.hardware = hardware;
        environment.mainExecutor = executor;
        auto clock = executor;
        environment.now = [clock] { return static_cast<double>(clock->now()) / 1e9; };
        environment.monotonicClock = [clock] { return clock->now(); };
        environment.sleeper = [this](uint64_t nanoseconds, std::stop_token) {
            std::lock_guard guard(linesLock);
            sleeps.push_back(nanoseconds);
        };
        environment.engineWait = [](std::chrono::nanoseconds) {};
        environment.makeOutputEngine = [] { return std::make_unique<SimulatedOutputEngine>(); };
        environment.makeSleepWatcher = [this] {
            auto watcher = std::make_unique<SleepWatcher>(QDBusConnection(QStringLiteral("sorva-no-bus")));
            sleepWatcher = watcher.get();
            return watcher;
        };
        return environment;
    }

    EQController& make()
    {
        controller = std::make_unique<EQController>(environment());
        QObject::connect(controller.get(), &EQController::statusChanged,
                         [this](const EQController::Status& status) { statuses.push_back(status); });
        return *controller;
    }

    // The buffered engine, as the expert setting chooses it at launch.
    static void storeBufferedMode(double latencyMs)
    {
        QSettings file(QString::fromStdString(EQSettings::filePath().string()), QSettings::IniFormat);
        file.setValue(QStringLiteral("bufferedMode"), true);
        file.setValue(QStringLiteral("bufferLatencyMs"), latencyMs);
        file.sync();
    }

    bool pumpUntil(const std::function<bool()>& done) { return executor->runUntil(done, 5s); }

    // Switches on and waits until the request has been carried out through.
    void switchOn()
    {
        auto finished = [&] { return logged("setRunning task finished awaiting setUserEnabled"); };
        auto before = finished();
        controller->setRunning(true);
        ASSERT_TRUE(pumpUntil([&] { return controller->isRunning() && controller->hasMonitor(); }));
        ASSERT_TRUE(pumpUntil([&] { return finished() > before; }));
    }

    // Runs a second's worth of IO cycles on the running single-device engine,
    // then one supervision tick.
    void tick(bool signal)
    {
        AudioObjectID aggregate = 0;
        if (auto* engine = controller->singleDeviceProcessor())
            aggregate = engine->currentAggregateID();
        else if (auto* engine = controller->bufferedProcessor())
            aggregate = engine->currentAggregateID();
        if (aggregate) {
            std::vector<float> input(cycleFrames * 2, signal ? 0.25f : 0.0f);
            std::vector<float> output(cycleFrames * 2, 0.0f);
            AudioBuffer in { 2, static_cast<uint32_t>(input.size() * sizeof(float)), input.data() };
            AudioBuffer out { 2, static_cast<uint32_t>(output.size() * sizeof(float)), output.data() };
            AudioBufferList inList { 1, &in };
            AudioBufferList outList { 1, &out };
            for (int i = 0; i < 4; ++i)
                hardware->runIOCycle(aggregate, &inList, &outList);
        }
        executor->advance(1s);
        executor->runPending();
    }

    void setPlaying(bool playing) { hardware->setProcessRunningOutput(player, playing); }

    // How often a line was logged since the last takeLines().
    size_t logged(const std::string& text)
    {
        std::lock_guard guard(linesLock);
        return count(lines, text);
    }

    // The lines logged so far, without the coordinator's own ("actor: ..."),
    // which come from its thread at their own pace.
    std::vector<std::string> takeLines()
    {
        std::lock_guard guard(linesLock);
        std::vector<std::string> taken;
        for (auto& line : lines)
            if (line.rfind("actor: ", 0) != 0)
                taken.push_back(std::move(line));
        lines.clear();
        return taken;
    }

    static size_t count(const std::vector<std::string>& lines, const std::string& text)
    {
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), text));
    }
    static size_t countPrefix(const std::vector<std::string>& lines, const std::string& prefix)
    {
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(),
                                                 [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }));
    }

    sorva::testing::ConfigHome configHome;
    std::shared_ptr<SimulatedAudioHardware> hardware = std::make_shared<SimulatedAudioHardware>();
    std::shared_ptr<ManualMainExecutor> executor = std::make_shared<ManualMainExecutor>();
    AudioObjectID speakers = 0;
    AudioObjectID player = 0;
    std::unique_ptr<EQController> controller;
    SleepWatcher* sleepWatcher = nullptr;
    std::vector<EQController::Status> statuses;
    std::mutex linesLock;
    std::vector<std::string> lines;
    std::vector<uint64_t> sleeps;
};

using Status = EQController::Status;

TEST_F(ControllerTest, SwitchingOnStoresTheWishStartsTheEngineAndSummarizesTheSetUp)
{
    auto& eq = make();
    EXPECT_EQ(eq.status(), Status::off());
    EXPECT_EQ(eq.spectrum(), std::vector<float>(16, 0.0f));
    eq.setRunning(true);
    // Stored at once, before the coordinator has done anything.
    EXPECT_TRUE(EQSettings::eqEnabled());
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning(); }));
    EXPECT_TRUE(eq.hasSingleDeviceProcessor());
    EXPECT_EQ(eq.status(), Status::starting());
    EXPECT_EQ(eq.diagnostics().toStdString(), "Speakers · 48 kHz");
    ASSERT_TRUE(pumpUntil([&] { return logged("setRunning task finished awaiting setUserEnabled") == 1; }));
    auto log = takeLines();
    EXPECT_EQ(log[0], "setRunning(true) called");
    EXPECT_EQ(count(log, "setRunning task started"), 1u);

    // Off again: engine and monitor gone, no other program's audio held.
    eq.setRunning(false);
    ASSERT_TRUE(pumpUntil([&] { return !eq.hasSingleDeviceProcessor() && eq.status() == Status::off(); }));
    EXPECT_FALSE(eq.isRunning());
    EXPECT_FALSE(eq.hasMonitor());
    EXPECT_FALSE(EQSettings::eqEnabled());
    EXPECT_TRUE(hardware->nothingAlive());
}

TEST_F(ControllerTest, RestoreStartsOnlyWhenTheUserLeftItOn)
{
    {
        auto& eq = make();
        eq.restorePreviousState();
        executor->runPending();
        executor->advance(2s);
        EXPECT_FALSE(eq.hasSingleDeviceProcessor());
        EXPECT_EQ(eq.status(), Status::off());
        EXPECT_EQ(takeLines(), std::vector<std::string> { "restorePreviousState called, wasEnabled=false" });
    }
    EQSettings::setEQEnabled(true);
    controller.reset();
    auto& eq = make();
    eq.restorePreviousState();
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning(); }));
    ASSERT_TRUE(pumpUntil([&] { return logged("restore task finished") == 1; }));
    auto log = takeLines();
    EXPECT_EQ(log[0], "restorePreviousState called, wasEnabled=true");
    EXPECT_EQ(count(log, "restore task started"), 1u);
    EXPECT_TRUE(EQSettings::eqEnabled());
}

TEST_F(ControllerTest, FirstSignalAfterSevenSecondsIsCapturingNotAPermissionProblem)
{
    auto& eq = make();
    switchOn();
    takeLines();
    for (int second = 1; second <= 6; ++second) {
        tick(false);
        EXPECT_EQ(eq.status(), Status::idle()) << "tick " << second;
    }
    tick(true);
    EXPECT_EQ(eq.status().kind, Status::Case::capturing);
    EXPECT_FLOAT_EQ(eq.status().peak, 0.25f);
    for (int second = 8; second <= 12; ++second)
        tick(false);
    EXPECT_EQ(eq.status(), Status::idle());
    EXPECT_TRUE(eq.isRunning());
    auto log = takeLines();
    EXPECT_EQ(countPrefix(log, "no signal within grace period"), 0u);
    // One statistics line per tick, in the described format.
    std::regex format(R"(frames -?\d+/s · peak \d+\.\d{4} · late \d+/\d+ · maxGap \d+\.\dms · work \d+\.\d{2}ms)");
    std::vector<std::string> statistics;
    for (const auto& line : log)
        if (line.rfind("frames ", 0) == 0) {
            EXPECT_TRUE(std::regex_match(line, format)) << line;
            statistics.push_back(line);
        }
    ASSERT_EQ(statistics.size(), 12u);
    // Four cycles of 512 frames ran before each tick.
    EXPECT_EQ(statistics[6].rfind("frames 2048/s · peak 0.2500 · late 0/4 · maxGap ", 0), 0u) << statistics[6];
    EXPECT_EQ(statistics[7].rfind("frames 2048/s · peak 0.0000 · ", 0), 0u) << statistics[7];
}

TEST_F(ControllerTest, NoSignalPastTheGracePeriodMeansPermissionDeniedWithoutForgettingTheSwitch)
{
    auto& eq = make();
    switchOn();
    takeLines();
    for (int second = 1; second <= 8; ++second) {
        tick(false);
        EXPECT_EQ(eq.status(), Status::idle()) << "tick " << second;
    }
    EXPECT_EQ(countPrefix(takeLines(), "no signal within grace period"), 0u);
    // Tick 9 is the first more than 8 s after the start.
    tick(false);
    auto log = takeLines();
    EXPECT_EQ(count(log, "no signal within grace period — permission likely not granted"), 1u);
    EXPECT_EQ(countPrefix(log, "frames "), 0u);
    EXPECT_EQ(eq.status(), Status::permissionDenied());
    ASSERT_TRUE(pumpUntil([&] { return !eq.isRunning() && !eq.hasSingleDeviceProcessor(); }));
    ASSERT_TRUE(pumpUntil([&] { return eq.lifecycle().currentState() == AudioLifecycleState::inactive; }));
    executor->runPending();
    // The coordinator's "inactive" shows the permission problem, not "off".
    EXPECT_EQ(eq.status(), Status::permissionDenied());
    EXPECT_EQ(statuses.back(), Status::permissionDenied());
    EXPECT_TRUE(EQSettings::eqEnabled());
    EXPECT_TRUE(hardware->nothingAlive());
}

TEST_F(ControllerTest, AnIdleGraphThatDeliversNoFramesIsNotAPermissionProblem)
{
    auto& eq = make();
    switchOn();
    takeLines();
    // Nothing plays: the graph runs no cycles at all.
    for (int second = 1; second <= 30; ++second) {
        executor->advance(1s);
        executor->runPending();
    }
    EXPECT_EQ(eq.status(), Status::idle());
    EXPECT_EQ(countPrefix(takeLines(), "no signal within grace period"), 0u);
    // Then the tap delivers silence: the grace period runs from the last
    // tick without frames, and ends at the ninth tick of delivered silence.
    for (int second = 1; second <= 8; ++second)
        tick(false);
    EXPECT_EQ(countPrefix(takeLines(), "no signal within grace period"), 0u);
    tick(false);
    EXPECT_EQ(count(takeLines(), "no signal within grace period — permission likely not granted"), 1u);
    EXPECT_EQ(eq.status(), Status::permissionDenied());
}

TEST_F(ControllerTest, SilenceWhileNothingPlaysIsOnlyIdle)
{
    auto& eq = make();
    switchOn();
    tick(true);
    takeLines();
    int tapsBefore = hardware->callCount(SimulatedAudioHardware::Call::createProcessTap);
    for (int second = 0; second < 30; ++second)
        tick(false);
    EXPECT_EQ(eq.status(), Status::idle());
    auto log = takeLines();
    EXPECT_EQ(countPrefix(log, "frames "), 30u);
    EXPECT_EQ(log.size(), 30u) << "nothing but the statistics lines";
    EXPECT_EQ(hardware->callCount(SimulatedAudioHardware::Call::createProcessTap), tapsBefore);
}

TEST_F(ControllerTest, SilentTapWhilePlayingRestartsAtTickTwoAndTheFourthRestartGivesUp)
{
    auto& eq = make();
    switchOn();
    setPlaying(true);
    for (int restart = 1; restart <= 3; ++restart) {
        auto aggregate = eq.singleDeviceProcessor()->currentAggregateID();
        takeLines();
        tick(false);
        EXPECT_EQ(eq.status(), Status::idle());
        EXPECT_EQ(countPrefix(takeLines(), "tap still silent"), 0u);
        tick(false);
        auto log = takeLines();
        EXPECT_EQ(count(log, "tap still silent after 2s — restarting"), 1u) << "restart " << restart;
        EXPECT_EQ(countPrefix(log, "frames "), 0u);
        // The coordinator stops the engine and starts a new one, which primes
        // the counters again.
        ASSERT_TRUE(pumpUntil([&] {
            return eq.isRunning() && eq.singleDeviceProcessor()
                && eq.singleDeviceProcessor()->currentAggregateID() != aggregate;
        }));
    }
    tick(false);
    takeLines();
    tick(false);
    auto log = takeLines();
    EXPECT_EQ(count(log, "tap still silent after 2s — restarting"), 1u);
    EXPECT_EQ(count(log, "too many restarts (3) in 20s — giving up, turning off"), 1u);
    EXPECT_EQ(count(log, "setRunning(false) called"), 1u);
    ASSERT_TRUE(pumpUntil([&] { return !eq.hasSingleDeviceProcessor() && eq.status() == Status::off(); }));
    EXPECT_FALSE(EQSettings::eqEnabled());
    EXPECT_TRUE(hardware->nothingAlive());
}

TEST_F(ControllerTest, BufferedSilenceWhilePlayingRefreshesAtTwoAndRestartsAtFiveOncePerSilence)
{
    storeBufferedMode(80);
    auto& eq = make();
    switchOn();
    ASSERT_TRUE(eq.hasBufferedProcessor());
    EXPECT_FALSE(eq.hasSingleDeviceProcessor());
    EXPECT_EQ(eq.diagnostics().toStdString(), "Speakers · 80 ms buffer");
    tick(true);
    EXPECT_EQ(eq.status().kind, Status::Case::capturing);
    setPlaying(true);
    auto refreshes = [&] { return hardware->callCount(SimulatedAudioHardware::Call::setTapDescription); };
    int before = refreshes();
    auto aggregate = eq.bufferedProcessor()->currentAggregateID();
    takeLines();

    tick(false); // 1
    EXPECT_EQ(eq.status(), Status::idle());
    auto log = takeLines();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].rfind("frames 2048/s · peak 0.0000 · late ", 0), 0u) << log[0];
    EXPECT_NE(log[0].find(" · buffered "), std::string::npos) << log[0];
    EXPECT_NE(log[0].find(" · underruns "), std::string::npos) << log[0];

    statuses.clear();
    tick(false); // 2: the tap is refreshed in place, and that is all
    EXPECT_EQ(takeLines(), std::vector<std::string> { "tap silent while audio plays — refreshed in place" });
    EXPECT_EQ(refreshes(), before + 1);
    EXPECT_TRUE(statuses.empty()) << "no status update in a refresh tick";

    tick(false); // 3
    tick(false); // 4
    log = takeLines();
    EXPECT_EQ(countPrefix(log, "frames "), 2u);
    EXPECT_EQ(refreshes(), before + 1) << "one refresh per silence";

    tick(false); // 5
    EXPECT_EQ(count(takeLines(), "tap still silent after 5s — restarting"), 1u);
    ASSERT_TRUE(pumpUntil([&] {
        return eq.isRunning() && eq.bufferedProcessor() && eq.bufferedProcessor()->currentAggregateID() != aggregate;
    }));

    // On the new engine a refresh that fails lets the tick go on as usual.
    hardware->injectStatus(SimulatedAudioHardware::Call::setTapDescription, 1, 1);
    takeLines();
    tick(false);
    tick(false);
    log = takeLines();
    EXPECT_EQ(count(log, "tap refresh failed (OSStatus 1)"), 1u);
    EXPECT_EQ(countPrefix(log, "tap silent while audio plays"), 0u);
    EXPECT_EQ(countPrefix(log, "frames "), 2u);
    EXPECT_EQ(eq.status(), Status::idle());
}

TEST_F(ControllerTest, RestartsOlderThanTheWindowNoLongerCountAndASignalClearsThem)
{
    auto& eq = make();
    switchOn();
    setPlaying(true);
    auto restartOnce = [&] {
        auto aggregate = eq.singleDeviceProcessor()->currentAggregateID();
        tick(false);
        tick(false);
        ASSERT_TRUE(pumpUntil([&] {
            return eq.isRunning() && eq.singleDeviceProcessor()
                && eq.singleDeviceProcessor()->currentAggregateID() != aggregate;
        }));
    };
    auto switchOffFor = [&](std::chrono::seconds pause) {
        eq.setRunning(false);
        ASSERT_TRUE(pumpUntil([&] { return !eq.hasSingleDeviceProcessor() && eq.status() == Status::off(); }));
        executor->advance(pause);
        switchOn();
    };
    restartOnce(); // t = 2
    restartOnce(); // t = 4
    restartOnce(); // t = 6
    // A signal empties the list: three more restarts are allowed.
    tick(true); // t = 7
    restartOnce(); // t = 9
    restartOnce(); // t = 11
    restartOnce(); // t = 13
    EXPECT_EQ(countPrefix(takeLines(), "too many restarts"), 0u);

    // The window spans engine runs and off periods, and an entry exactly
    // 20 s old still counts: the request at t = 29 finds 9, 11 and 13.
    switchOffFor(14s); // on again at t = 27
    tick(false);
    tick(false); // t = 29
    EXPECT_EQ(count(takeLines(), "too many restarts (3) in 20s — giving up, turning off"), 1u);
    ASSERT_TRUE(pumpUntil([&] { return !eq.hasSingleDeviceProcessor() && eq.status() == Status::off(); }));

    // Giving up emptied the list; entries more than 20 s old drop out.
    switchOn(); // t = 29
    restartOnce(); // t = 31
    restartOnce(); // t = 33
    restartOnce(); // t = 35
    switchOffFor(15s); // on again at t = 50
    takeLines();
    tick(false);
    tick(false); // t = 52: 31 is 21 s old; 33 and 35 remain
    auto log = takeLines();
    EXPECT_EQ(countPrefix(log, "too many restarts"), 0u);
    EXPECT_EQ(count(log, "tap still silent after 2s — restarting"), 1u);
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning() && eq.hasSingleDeviceProcessor(); }));
}

TEST_F(ControllerTest, BypassSendsFlatBandsWhileTheSavedGainsStay)
{
    auto& eq = make();
    switchOn();
    EQConfig config = eq.config();
    const double gains[] = { 6, -3, 4, -2, 5 };
    for (size_t i = 0; i < config.bands.size(); ++i)
        config.bands[i].gain = gains[i];
    config.outputGain = 2;
    eq.setConfig(config);
    auto* engine = eq.singleDeviceProcessor();
    auto sections = [&] {
        std::vector<bool> identity;
        for (int64_t band = 0; band < 5; ++band)
            identity.push_back(engine->eq.section(engine->eq.publishedBank(), band).isIdentity());
        return identity;
    };
    EXPECT_EQ(sections(), std::vector<bool>(5, false));
    EXPECT_NEAR(engine->eq.currentOutputGain(), std::pow(10.0, 2.0 / 20), 1e-6);

    eq.setBypassed(true);
    EXPECT_EQ(sections(), std::vector<bool>(5, true));
    EXPECT_FLOAT_EQ(engine->eq.currentOutputGain(), 1.0f);
    // What is stored and what the panel edits keep the real gains.
    auto stored = EQSettings::loadConfig();
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_DOUBLE_EQ(stored.bands[i].gain, gains[i]);
        EXPECT_DOUBLE_EQ(eq.config().bands[i].gain, gains[i]);
    }
    EXPECT_DOUBLE_EQ(stored.outputGain, 2.0);

    eq.setBypassed(false);
    EXPECT_EQ(sections(), std::vector<bool>(5, false));
    EXPECT_NEAR(engine->eq.currentOutputGain(), std::pow(10.0, 2.0 / 20), 1e-6);
}

TEST_F(ControllerTest, PresetsFillTheLeadingBandsAndResetFlattensEverything)
{
    auto& eq = make();
    EQConfig config = eq.config();
    for (auto& band : config.bands)
        band.gain = 1.5;
    eq.setConfig(config);

    eq.apply(EQPreset { "Short", { 3, -3 }, -1 });
    std::vector<double> expected { 3, -3, 1.5, 1.5, 1.5 };
    for (size_t i = 0; i < 5; ++i)
        EXPECT_DOUBLE_EQ(eq.config().bands[i].gain, expected[i]) << i;
    EXPECT_DOUBLE_EQ(eq.config().outputGain, -1);

    eq.apply(EQPreset { "Long", { 1, 2, 3, 4, 5, 6, 7 }, 0.5 });
    for (size_t i = 0; i < 5; ++i)
        EXPECT_DOUBLE_EQ(eq.config().bands[i].gain, static_cast<double>(i + 1));
    EXPECT_EQ(eq.config().bands.size(), 5u);
    auto stored = EQSettings::loadConfig();
    EXPECT_DOUBLE_EQ(stored.bands[4].gain, 5);
    EXPECT_DOUBLE_EQ(stored.outputGain, 0.5);
    // Labels and frequencies are not the preset's business.
    EXPECT_EQ(eq.config().bands[0].label, "Bass");
    EXPECT_DOUBLE_EQ(eq.config().bands[4].frequency, 8000);

    eq.reset();
    for (const auto& band : eq.config().bands)
        EXPECT_DOUBLE_EQ(band.gain, 0);
    EXPECT_DOUBLE_EQ(eq.config().outputGain, 0);
    EXPECT_DOUBLE_EQ(EQSettings::loadConfig().bands[0].gain, 0);
}

TEST_F(ControllerTest, PermissionRefusalShowsOnceThenTheNextFailureShowsItsMessage)
{
    auto& eq = make();
    hardware->injectStatus(SimulatedAudioHardware::Call::createProcessTap, 1852797029, 1);
    eq.setRunning(true);
    ASSERT_TRUE(pumpUntil([&] { return eq.lifecycle().currentState() == AudioLifecycleState::failed; }));
    ASSERT_TRUE(pumpUntil([&] { return eq.status() == Status::permissionDenied(); }));
    EXPECT_EQ(count(takeLines(), "start failed: System audio recording permission not granted"), 1u);

    // Next: a failure of another kind, shown with its message.
    hardware->injectStatus(SimulatedAudioHardware::Call::createAggregateDevice, -50, 1);
    eq.setRunning(false);
    ASSERT_TRUE(pumpUntil([&] { return eq.lifecycle().currentState() == AudioLifecycleState::inactive; }));
    executor->runPending();
    EXPECT_EQ(eq.status(), Status::off()) << "the permission flag was consumed by the failed publication";
    eq.setRunning(true);
    ASSERT_TRUE(pumpUntil([&] { return eq.status().kind == Status::Case::failed; }));
    EXPECT_EQ(eq.status().message.rfind("AudioHardwareCreateAggregateDevice failed", 0) == 0
                  || eq.status().message.find("failed (OSStatus -50)") != std::string::npos,
              true)
        << eq.status().message;
    EXPECT_FALSE(eq.isRunning());

    // With nothing failing any more, the switch works again.
    eq.setRunning(false);
    ASSERT_TRUE(pumpUntil([&] { return eq.lifecycle().currentState() == AudioLifecycleState::inactive; }));
    eq.setRunning(true);
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning(); }));
    EXPECT_EQ(eq.status(), Status::starting());
}

TEST_F(ControllerTest, StatusFollowsTheCoordinatorsStates)
{
    auto& eq = make();
    switchOn();
    // Sleep and wake arrive through the watcher (logind on a real system).
    eq.observeWake();
    ASSERT_NE(sleepWatcher, nullptr);
    statuses.clear();
    sleepWatcher->handlePrepareForSleep(true);
    ASSERT_TRUE(pumpUntil([&] { return eq.lifecycle().currentState() == AudioLifecycleState::sleeping; }));
    executor->runPending();
    EXPECT_FALSE(eq.isRunning());
    EXPECT_FALSE(eq.hasSingleDeviceProcessor());
    EXPECT_EQ(eq.status(), Status::off());
    sleepWatcher->handlePrepareForSleep(false);
    ASSERT_TRUE(pumpUntil([&] { return eq.isRunning(); }));
    // sleeping: off; recovering and starting: starting; running leaves it.
    EXPECT_EQ(statuses, (std::vector<Status> { Status::off(), Status::starting(), Status::starting() }));
    auto log = takeLines();
    EXPECT_EQ(count(log, "willSleepNotification received"), 1u);
    EXPECT_EQ(count(log, "didWakeNotification received"), 1u);

    // A failing start without a stored message would read "Couldn't start";
    // here the engine's own message is shown.
    hardware->injectStatus(SimulatedAudioHardware::Call::createProcessTap, 7, -1);
    eq.setRunning(false);
    ASSERT_TRUE(pumpUntil([&] { return eq.lifecycle().currentState() == AudioLifecycleState::inactive; }));
    eq.setRunning(true);
    ASSERT_TRUE(pumpUntil([&] { return eq.status().kind == Status::Case::failed; }));
    EXPECT_NE(eq.status().message.find("(OSStatus 7)"), std::string::npos) << eq.status().message;
}

TEST_F(ControllerTest, ADefaultDeviceSwitchRebuildsOnceOnTheNewDevice)
{
    auto second = hardware->addOutputDevice("Second Speakers", "speakers-2", 44100.0, cycleFrames);
    auto& eq = make();
    switchOn();
    tick(true);
    tick(true);
    tick(true);
    tick(true); // past the engine's settle time after its start
    auto aggregate = eq.singleDeviceProcessor()->currentAggregateID();
    takeLines();
    hardware->setDefaultOutputDevice(second);
    ASSERT_TRUE(pumpUntil([&] {
        return eq.isRunning() && eq.singleDeviceProcessor()
            && eq.singleDeviceProcessor()->currentAggregateID() != aggregate;
    }));
    EXPECT_EQ(eq.diagnostics().toStdString(), "Second Speakers · 44 kHz");
    executor->runPending();
    EXPECT_EQ(hardware->liveAggregates(), 1u);
    EXPECT_EQ(hardware->liveTaps(), 1u);
}

TEST_F(ControllerTest, SpectrumFollowsTheEngineOnlyWhileRunningAndStopResetsIt)
{
    auto& eq = make();
    eq.startSpectrum();
    EXPECT_TRUE(eq.hasSpectrumTimer());
    int changes = 0;
    QObject::connect(&eq, &EQController::spectrumChanged, [&] { ++changes; });
    executor->advance(100ms);
    EXPECT_EQ(changes, 0) << "not running: nothing changes";
    switchOn();
    for (int i = 0; i < 10; ++i)
        tick(true);
    EXPECT_GE(changes, 250); // about 30 per second
    auto levels = eq.spectrum();
    ASSERT_EQ(levels.size(), 16u);
    EXPECT_GT(*std::max_element(levels.begin(), levels.end()), 0.0f);
    eq.stopSpectrum();
    EXPECT_FALSE(eq.hasSpectrumTimer());
    EXPECT_EQ(eq.spectrum(), std::vector<float>(16, 0.0f));
    int atStop = changes;
    executor->advance(1s);
    EXPECT_EQ(changes, atStop + 0) << "no timer any more (poll changes no spectrum)";
}

TEST_F(ControllerTest, StopProcessorTearsDownAtOnceAndPollThenDoesNothing)
{
    auto& eq = make();
    switchOn();
    eq.stopProcessor();
    EXPECT_FALSE(eq.hasSingleDeviceProcessor());
    EXPECT_FALSE(eq.hasMonitor());
    EXPECT_TRUE(hardware->nothingAlive());
    takeLines();
    executor->advance(3s);
    EXPECT_EQ(countPrefix(takeLines(), "frames "), 0u);
    eq.stopProcessor(); // twice is harmless
}

} // namespace
} // namespace sorva
