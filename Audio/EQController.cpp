#include "Audio/EQController.h"

#include "Audio/AudioLifecycleCoordinator.h"
#include "Audio/AudioTapError.h"
#include "Audio/BufferedEQProcessor.h"
#include "Audio/DeviceListeners.h"
#include "Audio/EQLog.h"
#include "Audio/OutputDevice.h"
#include "Audio/SystemEQProcessor.h"
#include "Models/EQSettings.h"
#include "Platform/PipeWire/PipeWireAudioHardware.h"
#include "Platform/PipeWire/PipeWireOutputEngine.h"
#include "Platform/QtMainExecutor.h"
#include "Platform/SleepWatcher.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace sorva {

namespace {

const char* boolText(bool value) { return value ? "true" : "false"; }

std::string format(const char* pattern, auto... values)
{
    char text[256];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

} // namespace

std::string EQController::Status::description() const
{
    switch (kind) {
    case Case::capturing:
        return format("capturing(peak: %g, glitches: %lld)", static_cast<double>(peak),
                      static_cast<long long>(glitches));
    case Case::failed:
        return "failed(" + message + ")";
    case Case::off:
        return "off";
    case Case::starting:
        return "starting";
    case Case::idle:
        return "idle";
    case Case::permissionDenied:
        return "permissionDenied";
    }
    return "off";
}

namespace {
std::optional<EQController::Environment>& sharedEnvironment()
{
    static std::optional<EQController::Environment> environment;
    return environment;
}
std::unique_ptr<EQController>& sharedInstance()
{
    static std::unique_ptr<EQController> instance;
    return instance;
}
} // namespace

EQController& EQController::shared()
{
    auto& instance = sharedInstance();
    if (!instance) {
        auto& chosen = sharedEnvironment();
        instance = std::make_unique<EQController>(chosen ? std::move(*chosen) : productionEnvironment());
        chosen.reset();
    }
    return *instance;
}

void EQController::setSharedEnvironment(Environment environment)
{
    sharedEnvironment() = std::move(environment);
}

void EQController::destroyShared()
{
    sharedInstance().reset();
}

double EQController::wallClockSeconds()
{
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

EQController::Environment EQController::productionEnvironment(std::string* problem)
{
    Environment environment;
    environment.mainExecutor = std::make_shared<QtMainExecutor>();
    environment.now = wallClockSeconds;
    environment.monotonicClock = monotonicNanoseconds;
    environment.makeOutputEngine = [] { return std::make_unique<PipeWireOutputEngine>(); };
    auto hardware = std::make_shared<PipeWireAudioHardware>();
    // A daemon that refuses us is there: the controller reports the refusal
    // as the permission status instead of the program giving up.
    if (hardware->isConnected() || hardware->accessRefused()) {
        environment.hardware = std::move(hardware);
    } else if (problem) {
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        *problem = std::string("no PipeWire session is reachable (looked in ")
            + (runtime && *runtime ? runtime : "XDG_RUNTIME_DIR, which is not set")
            + "). Start PipeWire for this user, or use `make run`, which starts a private session where there is "
              "none.";
    }
    return environment;
}

EQController::EQController(Environment environment, QObject* parent)
    : QObject(parent)
    , environment(std::move(environment))
    , spectrumValue(spectrumBandCount, 0.0f)
    , alive(std::make_shared<EQController*>(this))
{
    qRegisterMetaType<sorva::EQController::Status>();
    if (!this->environment.now)
        this->environment.now = wallClockSeconds;
    configValue = EQSettings::loadConfig();
    useBufferedMode = EQSettings::bufferedMode();
    completionQueue = std::make_unique<SerialQueue>("com.sorva.app.controller");
}

EQController::~EQController()
{
    // Jobs still queued for the main thread find the controller gone.
    alive.reset();
    // The coordinator fulfils every outstanding request as it goes, which
    // releases the completion queue; the engine is torn down after both.
    lifecycleCoordinator.reset();
    completionQueue.reset();
    stopProcessor();
    spectrumTimer.reset();
}

void EQController::postToMain(std::function<void()> job)
{
    std::weak_ptr<EQController*> weak = alive;
    environment.mainExecutor->post([weak, job = std::move(job)] {
        if (weak.lock())
            job();
    });
}

void EQController::afterCompletion(std::future<void> done, std::function<void()> then)
{
    auto shared = std::make_shared<std::future<void>>(std::move(done));
    std::weak_ptr<EQController*> weak = alive;
    auto executor = environment.mainExecutor;
    completionQueue->async([shared, weak, executor, then = std::move(then)] {
        shared->wait();
        executor->post([weak, then] {
            if (weak.lock())
                then();
        });
    });
}

// --- Observable properties ---------------------------------------------------

void EQController::setConfig(EQConfig config)
{
    configValue = std::move(config);
    emit configChanged(configValue);
    pushConfig();
    EQSettings::saveGains(configValue.bands);
    EQSettings::saveOutputGain(configValue.outputGain);
}

void EQController::setBypassed(bool bypassed)
{
    bypassedValue = bypassed;
    emit isBypassedChanged(bypassedValue);
    pushConfig();
}

void EQController::setSpectrum(std::vector<float> spectrum)
{
    spectrumValue = std::move(spectrum);
    emit spectrumChanged(spectrumValue);
}

void EQController::setIsRunning(bool running)
{
    runningValue = running;
    emit isRunningChanged(runningValue);
}

void EQController::setStatus(Status status)
{
    statusValue = std::move(status);
    emit statusChanged(statusValue);
}

void EQController::setDiagnostics(QString diagnostics)
{
    diagnosticsValue = std::move(diagnostics);
    emit diagnosticsChanged(diagnosticsValue);
}

// --- The coordinator ---------------------------------------------------------

AudioLifecycleCoordinator& EQController::lifecycle()
{
    if (!lifecycleCoordinator) {
        // The operations hold the controller weakly: once it is gone they do
        // nothing and succeed. The coordinator runs them on the main thread.
        std::weak_ptr<EQController*> weak = alive;
        auto start = [weak] {
            auto self = weak.lock();
            if (!self)
                return;
            EQController& controller = **self;
            try {
                if (controller.useBufferedMode)
                    controller.startBufferedProcessor();
                else
                    controller.startSingleDeviceProcessor();
                controller.lastError.reset();
            } catch (const AudioTapError& error) {
                if (error.isPermissionDenied())
                    controller.failedWithPermissionDenied = true;
                controller.lastError = error.errorDescription();
                EQLog::trace("start failed: " + error.errorDescription());
                throw;
            } catch (const std::exception& error) {
                controller.lastError = std::string(error.what());
                EQLog::trace("start failed: " + std::string(error.what()));
                throw;
            }
        };
        auto stop = [weak] {
            if (auto self = weak.lock())
                (**self).stopProcessor();
        };
        auto publish = [weak](AudioLifecycleState state) {
            if (auto self = weak.lock())
                (**self).handleLifecycleState(state);
        };
        lifecycleCoordinator = std::make_unique<AudioLifecycleCoordinator>(
            *environment.mainExecutor, std::move(start), std::move(stop), std::move(publish),
            environment.sleeper ? environment.sleeper : AudioLifecycleCoordinator::defaultSleeper(),
            environment.monotonicClock ? environment.monotonicClock : NanosecondClock(monotonicNanoseconds));
    }
    return *lifecycleCoordinator;
}

// --- Operations --------------------------------------------------------------

void EQController::setRunning(bool on)
{
    if (!on) {
        waitingForService = false;
        serviceRetry.reset();
    }
    EQSettings::setEQEnabled(on);
    EQLog::trace(std::string("setRunning(") + boolText(on) + ") called");
    postToMain([this, on, calledAt = hostTicks()] {
        EQLog::trace("setRunning task started");
        firstFramePending = on;
        switchedOnTicks = calledAt;
        afterCompletion(lifecycle().setUserEnabled(on),
                        [] { EQLog::trace("setRunning task finished awaiting setUserEnabled"); });
    });
}

void EQController::restorePreviousState()
{
    bool wasEnabled = EQSettings::eqEnabled();
    EQLog::trace(std::string("restorePreviousState called, wasEnabled=") + boolText(wasEnabled));
    if (!wasEnabled)
        return;
    postToMain([this] {
        EQLog::trace("restore task started");
        afterCompletion(lifecycle().setUserEnabled(true), [] { EQLog::trace("restore task finished"); });
    });
}

void EQController::pushConfig()
{
    std::vector<EQBand> bands;
    double outputGainDB = 0;
    if (bypassedValue) {
        bands.reserve(configValue.bands.size());
        for (const auto& band : configValue.bands)
            bands.emplace_back(band.label, band.frequency, 0.0);
    } else {
        bands = configValue.bands;
        outputGainDB = configValue.outputGain;
    }
    if (processor)
        processor->eq.update(bands, outputGainDB, processor->sampleRate);
    if (buffered)
        buffered->eq.update(bands, outputGainDB, buffered->sampleRate);
}

void EQController::apply(const EQPreset& preset)
{
    EQConfig next = configValue;
    auto count = std::min(preset.gains.size(), next.bands.size());
    for (size_t i = 0; i < count; ++i)
        next.bands[i].gain = preset.gains[i];
    next.outputGain = preset.outputGain;
    setConfig(std::move(next));
}

void EQController::reset()
{
    EQConfig next = configValue;
    for (auto& band : next.bands)
        band.gain = 0;
    next.outputGain = 0;
    setConfig(std::move(next));
}

std::function<void()> EQController::restartOnConfigurationChange()
{
    // Called by the engine on any thread: only hands the request to the main
    // thread.
    std::weak_ptr<EQController*> weak = alive;
    auto executor = environment.mainExecutor;
    return [weak, executor] {
        executor->post([weak] {
            if (auto self = weak.lock())
                (**self).requestRestart(AudioLifecycleTrigger::deviceChange);
        });
    };
}

void EQController::requireHardware() const
{
    // Only a production environment built without a reachable session lacks
    // it; the start then fails like any other.
    if (!environment.hardware)
        throw std::runtime_error("no PipeWire session is reachable");
}

void EQController::startSingleDeviceProcessor()
{
    requireHardware();
    auto engine = std::make_unique<SystemEQProcessor>(static_cast<int64_t>(configValue.bands.size()),
                                                      *environment.hardware, *environment.mainExecutor,
                                                      environment.engineWait, environment.monotonicClock);
    engine->onConfigurationChange = restartOnConfigurationChange();
    // The engine starts with the real configuration; a bypass that is on
    // takes effect at the next pushConfig().
    engine->spectrum.setActive(spectrumShown);
    engine->start(configValue.bands, configValue.outputGain);
    processor = std::move(engine);
    primeMonitorState();
    setDiagnostics(QString::fromStdString(
        format("%s · %.0f kHz", processor->outputDeviceName.c_str(), processor->sampleRate / 1000)));
    startMonitor();
}

void EQController::startBufferedProcessor()
{
    requireHardware();
    double latency = EQSettings::bufferLatencyMs();
    if (!environment.makeOutputEngine)
        throw std::runtime_error("buffered mode needs an audio output, and this audio system offers none");
    auto engine = std::make_unique<BufferedEQProcessor>(static_cast<int64_t>(configValue.bands.size()), latency,
                                                        *environment.hardware, environment.makeOutputEngine(),
                                                        *environment.mainExecutor, environment.engineWait,
                                                        environment.monotonicClock);
    engine->onConfigurationChange = restartOnConfigurationChange();
    engine->spectrum.setActive(spectrumShown);
    engine->start(configValue.bands, configValue.outputGain);
    buffered = std::move(engine);
    primeMonitorState();
    setDiagnostics(QString::fromStdString(format("%s · %d ms buffer", buffered->outputDeviceName.c_str(),
                                                 static_cast<int>(buffered->latencyMilliseconds))));
    startMonitor();
}

void EQController::stopProcessor()
{
    monitor.reset();
    if (processor) {
        processor->stop();
        processor.reset();
    }
    if (buffered) {
        buffered->stop();
        buffered.reset();
    }
}

void EQController::handleLifecycleState(AudioLifecycleState state)
{
    setIsRunning(state == AudioLifecycleState::running);
    switch (state) {
    case AudioLifecycleState::running:
    case AudioLifecycleState::stopping:
        break;
    case AudioLifecycleState::failed:
        // A start that failed because the daemon is gone is no failure of
        // ours: wait for the daemon instead of retrying against nothing.
        if (waitingForService || (environment.hardware && !environment.hardware->serviceAvailable())) {
            waitForService();
            break;
        }
        if (failedWithPermissionDenied) {
            failedWithPermissionDenied = false;
            setStatus(Status::permissionDenied());
        } else {
            setStatus(Status::failed(lastError.value_or("Couldn't start")));
        }
        break;
    case AudioLifecycleState::inactive:
    case AudioLifecycleState::sleeping:
        if (waitingForService) {
            setStatus(Status::failed(serviceAwayMessage));
        } else if (failedWithPermissionDenied) {
            setStatus(Status::permissionDenied());
            failedWithPermissionDenied = false;
        } else {
            setStatus(Status::off());
        }
        break;
    case AudioLifecycleState::starting:
    case AudioLifecycleState::recovering:
        setStatus(Status::starting());
        break;
    }
}

// --- Spectrum display --------------------------------------------------------

SpectrumAnalyzer* EQController::currentAnalyzer() const
{
    return buffered ? &buffered->spectrum : processor ? &processor->spectrum : nullptr;
}

void EQController::startSpectrum()
{
    if (spectrumTimer)
        return;
    spectrumShown = true;
    if (SpectrumAnalyzer* analyzer = currentAnalyzer())
        analyzer->setActive(true);
    spectrumTimer = environment.mainExecutor->scheduleRepeating(
        std::chrono::nanoseconds(1'000'000'000 / 30), [this] {
            postToMain([this] {
                if (!runningValue)
                    return;
                SpectrumAnalyzer* analyzer = currentAnalyzer();
                if (!analyzer)
                    return;
                auto levels = analyzer->levels();
                setSpectrum(std::vector<float>(levels.begin(), levels.end()));
            });
        });
}

void EQController::stopSpectrum()
{
    spectrumShown = false;
    if (SpectrumAnalyzer* analyzer = currentAnalyzer())
        analyzer->setActive(false);
    spectrumTimer.reset();
    setSpectrum(std::vector<float>(spectrumBandCount, 0.0f));
}

// --- Supervision -------------------------------------------------------------

void EQController::primeMonitorState()
{
    startedAt = environment.now();
    hasEverCapturedSignal = false;
    silentSeconds = 0;
    recoveredThisSilence = false;
    refreshedThisSilence = false;
    lastCapturedFrames = 0;
}

void EQController::startMonitor()
{
    monitor.reset();
    monitor = environment.mainExecutor->scheduleRepeating(std::chrono::seconds(1), [this] {
        postToMain([this] { poll(); });
    });
}

// Once per switch-on: when the first processed block with sound was handed to
// the device, counted from setRunning(true) and from the program's launch.
void EQController::logFirstFrame(RenderTiming& timing)
{
    if (!firstFramePending)
        return;
    const uint64_t first = timing.firstSoundEnd();
    if (first == 0)
        return;
    firstFramePending = false;
    if (first < switchedOnTicks)
        return; // the engine was already running when switched on
    const uint64_t launched = processStartTicks();
    const auto ms = [first](uint64_t from) { return static_cast<long long>((first - from) / 1'000'000); };
    EQLog::trace(format("first equalized frame %lld ms after switch-on, %s", ms(switchedOnTicks),
                        launched != 0 && launched <= first ? format("%lld ms after launch", ms(launched)).c_str()
                                                           : "launch time unknown"));
}

void EQController::poll()
{
    if (!runningValue)
        return;
    if (!environment.hardware->serviceAvailable()) {
        waitForService();
        return;
    }

    int64_t frames = 0;
    float peak = 0;
    int64_t lateCallbacks = 0;
    int64_t callbacks = 0;
    double maxGapMs = 0;
    double maxWorkMs = 0;
    std::string suffix;
    if (buffered) {
        auto s = buffered->ring.snapshot();
        auto t = buffered->timing.snapshot();
        frames = s.framesWritten - lastCapturedFrames;
        lastCapturedFrames = s.framesWritten;
        peak = s.peak;
        suffix = format(" · buffered %lld · underruns %lld", static_cast<long long>(s.buffered),
                        static_cast<long long>(s.underruns));
        callbacks = t.callbacks;
        lateCallbacks = t.lateCallbacks;
        maxGapMs = t.maxGapMs;
        maxWorkMs = t.maxWorkMs;
    } else if (processor) {
        // Reads and resets the per-second counters under the stats' lock.
        auto s = processor->stats.snapshot();
        frames = s.frames;
        peak = s.peak;
        auto t = processor->timing.snapshot();
        callbacks = t.callbacks;
        lateCallbacks = t.lateCallbacks;
        maxGapMs = t.maxGapMs;
        maxWorkMs = t.maxWorkMs;
    } else {
        return;
    }

    logFirstFrame(buffered ? buffered->timing : processor->timing);

    bool signal = peak > 0;
    if (signal)
        hasEverCapturedSignal = true;

    // A PipeWire graph with nothing to play runs no cycles at all: our
    // passive streams are suspended with everything else and the engine sees
    // no frames. Such a second is no observation of the tap, so it neither
    // counts as silence nor runs down the permission grace period; a program
    // that starts after a quiet spell therefore finds the counters at zero.
    bool graphIdle = frames <= 0 && !signal && !AudioActivity::isAnyProcessPlaying(*environment.hardware);
    if (graphIdle) {
        silentSeconds = 0;
        recoveredThisSilence = false;
        refreshedThisSilence = false;
        if (!hasEverCapturedSignal)
            startedAt = environment.now();
    }

    if (!hasEverCapturedSignal && startedAt && environment.now() - *startedAt > permissionGraceSeconds) {
        EQLog::trace("no signal within grace period — permission likely not granted");
        failedWithPermissionDenied = true;
        setStatus(Status::permissionDenied());
        // The stored "eqEnabled" stays as it is, so the next launch tries again.
        postToMain([this] { lifecycle().setUserEnabled(false); });
        return;
    }

    Status next = Status::idle();
    if (signal) {
        silentSeconds = 0;
        recoveredThisSilence = false;
        refreshedThisSilence = false;
        restartTimestamps.clear();
        next = Status::capturing(peak, lateCallbacks);
    } else if (!graphIdle) {
        silentSeconds += 1;
        // Each condition is checked only while the earlier ones hold, so the
        // process list is read only when the counters allow an action.
        if (buffered && silentSeconds >= 2 && !refreshedThisSilence
            && AudioActivity::isAnyProcessPlaying(*environment.hardware)) {
            refreshedThisSilence = true;
            if (buffered->refreshTap()) {
                EQLog::trace("tap silent while audio plays — refreshed in place");
                return;
            }
        }
        int64_t threshold = buffered ? 5 : 2;
        if (silentSeconds >= threshold && !recoveredThisSilence
            && AudioActivity::isAnyProcessPlaying(*environment.hardware)) {
            recoveredThisSilence = true;
            EQLog::trace(format("tap still silent after %llds — restarting", static_cast<long long>(silentSeconds)));
            requestRestart(AudioLifecycleTrigger::tapWedged);
            return;
        }
    }
    // With no output at all the backend links our output to the next sink
    // that appears, so the engine stays; the status says what
    // is missing, in the words of a start that finds no output.
    if (DeviceListeners::currentDefaultDevice(*environment.hardware) == kAudioObjectUnknown)
        next = Status::failed(AudioTapError::osStatus("No default output device", -1).errorDescription());
    setStatus(std::move(next));
    EQLog::trace(format("frames %lld/s · peak %.4f · late %lld/%lld · maxGap %.1fms · work %.2fms%s",
                        static_cast<long long>(frames), static_cast<double>(peak), static_cast<long long>(lateCallbacks),
                        static_cast<long long>(callbacks), maxGapMs, maxWorkMs, suffix.c_str()));
}

void EQController::requestRestart(AudioLifecycleTrigger trigger)
{
    double now = environment.now();
    // Entries exactly one window old stay.
    std::erase_if(restartTimestamps, [&](double at) { return now - at > restartWindowSeconds; });
    if (static_cast<int64_t>(restartTimestamps.size()) >= maxRestartsInWindow) {
        EQLog::trace(format("too many restarts (%lld) in %ds — giving up, turning off",
                            static_cast<long long>(restartTimestamps.size()), static_cast<int>(restartWindowSeconds)));
        restartTimestamps.clear();
        setRunning(false);
        return;
    }
    restartTimestamps.push_back(now);
    postToMain([this, trigger] { lifecycle().restart(trigger); });
}

void EQController::waitForService()
{
    if (waitingForService)
        return;
    waitingForService = true;
    EQLog::trace("audio service lost — engine released, waiting for it to return");
    setStatus(Status::failed(serviceAwayMessage));
    // Switching the coordinator off releases the engine and cancels any
    // recovery; the stored switch stays on, and switching on again when the
    // service is back starts with a fresh failure budget.
    postToMain([this] { afterCompletion(lifecycle().setUserEnabled(false), [] {}); });
    serviceRetryDelay = 1;
    serviceRetryCountdown = 1;
    serviceOutputWaitTicks = 0;
    serviceRetry = environment.mainExecutor->scheduleRepeating(serviceRetryTick, [this] {
        postToMain([this] { retryService(); });
    });
}

void EQController::retryService()
{
    if (!waitingForService || --serviceRetryCountdown > 0)
        return;
    if (!environment.hardware->serviceAvailable()) {
        serviceRetryDelay = std::min(serviceRetryDelay * 2, serviceRetryMaxTicks);
        serviceRetryCountdown = serviceRetryDelay;
        return;
    }
    // A daemon that has just come back has no default output until its
    // session manager has set one up again: starting before that fails for
    // want of a device and stays failed. Wait for it a while; then start
    // anyway, so that a machine without any output shows that status.
    AudioObjectID output = kAudioObjectUnknown;
    bool hasOutput = environment.hardware->defaultOutputDevice(output) == kAudioHardwareNoError
        && output != kAudioObjectUnknown;
    if (!hasOutput && ++serviceOutputWaitTicks < serviceOutputWaitMaxTicks) {
        serviceRetryCountdown = 1;
        return;
    }
    waitingForService = false;
    serviceRetry.reset();
    EQLog::trace("audio service back — starting again");
    postToMain([this] { afterCompletion(lifecycle().setUserEnabled(true), [] {}); });
}

void EQController::observeWake()
{
    if (sleepWatcher)
        return;
    sleepWatcher = environment.makeSleepWatcher ? environment.makeSleepWatcher() : std::make_unique<SleepWatcher>();
    connect(sleepWatcher.get(), &SleepWatcher::willSleep, this, [this] {
        EQLog::trace("willSleepNotification received");
        postToMain([this] { lifecycle().sleep(); });
    });
    connect(sleepWatcher.get(), &SleepWatcher::didWake, this, [this] {
        EQLog::trace("didWakeNotification received");
        postToMain([this] { lifecycle().wake(); });
    });
}

} // namespace sorva
