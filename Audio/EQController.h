// The one object the user interface and the program shell talk to. It holds
// the equalizer configuration being edited, the A/B bypass, the values shown
// to the user (spectrum, running flag, status, a one-line summary of the
// capture set-up), owns the capture engine, and watches it once a second
// (silence monitor, permission grace period, restart budget, sleep and wake).
// When the engine runs is decided by the lifecycle coordinator, which the
// controller creates on first use and hands its start, stop and publish
// operations.
//
// Threads: every property and operation belongs to the main thread (the Qt
// event loop, reached through the environment's MainExecutor). The engines
// and the coordinator reach the controller only by posting to that executor.
// Every observable property announces each assignment through its signal.
#pragma once

#include "Audio/AudioLifecycleState.h"
#include "Audio/AudioLifecycleTrigger.h"
#include "Models/EQConfig.h"
#include "Models/EQPreset.h"
#include "Platform/MainExecutor.h"
#include "Platform/MonotonicClock.h"
#include "Platform/SerialQueue.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace sorva {

class AudioHardware;
class AudioLifecycleCoordinator;
class BufferedEQProcessor;
class OutputEngine;
class RenderTiming;
class SleepWatcher;
class SpectrumAnalyzer;
class SystemEQProcessor;

class EQController final : public QObject {
    Q_OBJECT
public:
    // What the panel shows about the engine. Compared case by case, payloads
    // included.
    struct Status {
        enum class Case { capturing, failed, off, starting, idle, permissionDenied };

        Case kind = Case::off;
        float peak = 0; // capturing
        int64_t glitches = 0; // capturing
        std::string message; // failed

        static Status capturing(float peak, int64_t glitches) { return { Case::capturing, peak, glitches, {} }; }
        static Status failed(std::string message) { return { Case::failed, 0, 0, std::move(message) }; }
        static Status off() { return { Case::off, 0, 0, {} }; }
        static Status starting() { return { Case::starting, 0, 0, {} }; }
        static Status idle() { return { Case::idle, 0, 0, {} }; }
        static Status permissionDenied() { return { Case::permissionDenied, 0, 0, {} }; }

        bool operator==(const Status&) const = default;
        // The case name with its payload, for logs and tests.
        std::string description() const;
    };

    // Everything the controller takes from its surroundings, so that tests
    // can run it on the simulated backend with a manual executor and clocks.
    struct Environment {
        // Required.
        std::shared_ptr<AudioHardware> hardware;
        // Builds the buffered engine's output; may be empty when the buffered
        // mode is never used.
        std::function<std::unique_ptr<OutputEngine>()> makeOutputEngine;
        // Required.
        std::shared_ptr<MainExecutor> mainExecutor;
        // Wall-clock seconds: the supervision's dates (start time, restarts);
        // empty = wallClockSeconds.
        std::function<double()> now;
        // Monotonic nanoseconds for the coordinator's failure budget.
        NanosecondClock monotonicClock;
        // The coordinator's wait between recovery attempts; empty = real
        // sleeping.
        std::function<void(uint64_t nanoseconds, std::stop_token interruption)> sleeper;
        // The engines' wait before a stopped device is torn down (the fade-out);
        // empty = real sleeping.
        std::function<void(std::chrono::nanoseconds)> engineWait;
        // Builds the sleep/wake source for observeWake(); empty = logind on
        // the system bus.
        std::function<std::unique_ptr<SleepWatcher>()> makeSleepWatcher;
    };

    explicit EQController(Environment environment, QObject* parent = nullptr);
    ~EQController() override;
    EQController(const EQController&) = delete;
    EQController& operator=(const EQController&) = delete;

    // The process's controller, built on first use from the environment
    // given to setSharedEnvironment() or else the production one (PipeWire,
    // the Qt event loop, the user's settings). Main thread only; a
    // QCoreApplication must exist.
    static EQController& shared();
    // Chooses the environment of shared(); only before its first use.
    static void setSharedEnvironment(Environment environment);
    // Tears the shared controller down at the very end of the program, after
    // stopProcessor(), so that its threads end before the process does.
    static void destroyShared();
    // The production environment: PipeWire backend, Qt main executor, system
    // clocks. Settings always come from the user's settings file. When no
    // PipeWire session is reachable, hardware is empty and problem (if given)
    // says so in a sentence for the user.
    static Environment productionEnvironment(std::string* problem = nullptr);
    // Wall-clock seconds, the production `now`.
    static double wallClockSeconds();

    // --- Observable properties ---------------------------------------------

    const EQConfig& config() const { return configValue; }
    void setConfig(EQConfig config);
    bool isBypassed() const { return bypassedValue; }
    void setBypassed(bool bypassed);
    const std::vector<float>& spectrum() const { return spectrumValue; }
    bool isRunning() const { return runningValue; }
    const Status& status() const { return statusValue; }
    const QString& diagnostics() const { return diagnosticsValue; }

    // --- Operations ----------------------------------------------------------

    // The user's power switch: stores "eqEnabled" and asks the coordinator.
    void setRunning(bool on);
    // At launch: switches on again if the user left it on.
    void restorePreviousState();
    void apply(const EQPreset& preset);
    void reset();
    void startSpectrum();
    void stopSpectrum();
    // Subscribes to the machine's sleep and wake; once, at launch.
    void observeWake();
    // Stops and drops the engine and the supervision timer at once, without
    // the coordinator: the program's shut-down.
    void stopProcessor();

    // Supervision constants.
    static constexpr int64_t maxRestartsInWindow = 3;
    static constexpr double restartWindowSeconds = 20.0;
    static constexpr double permissionGraceSeconds = 8.0;
    static constexpr int spectrumBandCount = 16;
    // While the audio service is away: how often its return is checked, and
    // the longest wait between two checks, in those ticks (the waits double
    // from one tick).
    static constexpr std::chrono::milliseconds serviceRetryTick { 250 };
    static constexpr int64_t serviceRetryMaxTicks = 8;
    // Once the service is back, how many ticks to wait for it to offer a
    // default output before starting regardless.
    static constexpr int64_t serviceOutputWaitMaxTicks = 20;
    // The status text while the audio service is away.
    static constexpr const char* serviceAwayMessage = "PipeWire is not running — waiting for it to return";

    // For tests and diagnostics: the coordinator (created on first use), and
    // which engine runs.
    AudioLifecycleCoordinator& lifecycle();
    bool hasSingleDeviceProcessor() const { return processor != nullptr; }
    bool hasBufferedProcessor() const { return buffered != nullptr; }
    bool hasMonitor() const { return monitor != nullptr; }
    bool hasSpectrumTimer() const { return spectrumTimer != nullptr; }
    SystemEQProcessor* singleDeviceProcessor() const { return processor.get(); }
    BufferedEQProcessor* bufferedProcessor() const { return buffered.get(); }

signals:
    void configChanged(const sorva::EQConfig& config);
    void isBypassedChanged(bool isBypassed);
    void spectrumChanged(const std::vector<float>& spectrum);
    void isRunningChanged(bool isRunning);
    void statusChanged(const sorva::EQController::Status& status);
    void diagnosticsChanged(const QString& diagnostics);

private:
    void setSpectrum(std::vector<float> spectrum);
    void setIsRunning(bool running);
    void setStatus(Status status);
    void setDiagnostics(QString diagnostics);

    void pushConfig();
    // Both throw the engine's error (an AudioTapError) on failure.
    void startSingleDeviceProcessor();
    void startBufferedProcessor();
    void requireHardware() const;
    void handleLifecycleState(AudioLifecycleState state);

    void primeMonitorState();
    void startMonitor();
    void poll();
    void logFirstFrame(RenderTiming& timing);
    void requestRestart(AudioLifecycleTrigger trigger);
    // The audio service went away: release the engine without spending the
    // restart or failure budgets, then watch for its return with back-off.
    void waitForService();
    void retryService();

    // Runs job on the main thread later, if this controller still exists.
    void postToMain(std::function<void()> job);
    // Runs then on the main thread once the coordinator has carried out the
    // request behind done (the main thread never waits for it itself).
    void afterCompletion(std::future<void> done, std::function<void()> then);
    // An engine's configuration-change callback: any thread.
    std::function<void()> restartOnConfigurationChange();

    Environment environment;

    // Observable properties.
    EQConfig configValue;
    bool bypassedValue = false;
    std::vector<float> spectrumValue;
    bool runningValue = false;
    Status statusValue = Status::off();
    QString diagnosticsValue;

    std::unique_ptr<MainExecutor::Timer> spectrumTimer;
    // The running engine's analyzer, if an engine runs.
    SpectrumAnalyzer* currentAnalyzer() const;
    // Whether the spectrum display runs; an engine started while it does
    // feeds its analyzer from the start.
    bool spectrumShown = false;
    int64_t lastCapturedFrames = 0;
    std::optional<std::string> lastError;
    std::unique_ptr<SystemEQProcessor> processor;
    std::unique_ptr<BufferedEQProcessor> buffered;
    bool useBufferedMode = false;

    // Supervision.
    std::unique_ptr<MainExecutor::Timer> monitor;
    std::optional<double> startedAt;
    // Set by setRunning(true) until the next poll has seen the engine's first
    // processed block and logged how long sound took.
    bool firstFramePending = false;
    uint64_t switchedOnTicks = 0;
    bool hasEverCapturedSignal = false;
    int64_t silentSeconds = 0;
    bool recoveredThisSilence = false;
    bool refreshedThisSilence = false;
    std::deque<double> restartTimestamps;
    bool failedWithPermissionDenied = false;
    bool waitingForService = false;
    std::unique_ptr<MainExecutor::Timer> serviceRetry;
    int64_t serviceRetryDelay = 1;
    int64_t serviceRetryCountdown = 1;
    int64_t serviceOutputWaitTicks = 0;

    std::unique_ptr<SleepWatcher> sleepWatcher;
    // Waits for the coordinator's completions, in request order, off the
    // main thread.
    std::unique_ptr<SerialQueue> completionQueue;
    // Lets jobs posted to the main thread find out whether the controller
    // still exists when they run.
    std::shared_ptr<EQController*> alive;
    std::unique_ptr<AudioLifecycleCoordinator> lifecycleCoordinator;
};

} // namespace sorva

Q_DECLARE_METATYPE(sorva::EQController::Status)
