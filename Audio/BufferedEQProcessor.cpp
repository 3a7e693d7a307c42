#include "Audio/BufferedEQProcessor.h"

#include "Audio/DecimalText.h"
#include "Audio/EQLog.h"
#include "Audio/OutputDevice.h"
#include "Platform/HostClock.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <thread>
#include <unistd.h>

namespace sorva {

namespace {

constexpr uint64_t settleNanoseconds = 3'000'000'000ull; // engine notifications right after start are dropped
constexpr std::chrono::milliseconds fadeOutWait { 150 };
constexpr double ringRate = 48000.0; // the prime length always assumes it

// The current default output device, or 0 when it cannot be read.
AudioObjectID currentDefaultDevice(AudioHardware& hardware)
{
    AudioObjectID device = kAudioObjectUnknown;
    if (hardware.defaultOutputDevice(device) != kAudioHardwareNoError)
        return kAudioObjectUnknown;
    return device;
}

} // namespace

int64_t BufferedEQProcessor::primeFrames(double latencyMilliseconds)
{
    const double frames = latencyMilliseconds * ringRate / 1000.0;
    if (!(frames > 0))
        return 0;
    if (frames >= static_cast<double>(ringCapacityFrames))
        return ringCapacityFrames;
    return static_cast<int64_t>(frames);
}

BufferedEQProcessor::BufferedEQProcessor(int64_t bandCount, double latency, AudioHardware& audioHardware,
                                         std::unique_ptr<OutputEngine> outputEngine, MainExecutor& executor,
                                         Wait waitFunction, NanosecondClock nanosecondClock)
    : hardware(audioHardware)
    , mainExecutor(executor)
    , wait(waitFunction ? std::move(waitFunction)
                        : Wait([](std::chrono::nanoseconds duration) { std::this_thread::sleep_for(duration); }))
    , clock(nanosecondClock ? std::move(nanosecondClock) : NanosecondClock(monotonicNanoseconds))
    , tapUUID(makeUuid())
    , engine(std::move(outputEngine))
    , eq(bandCount, 2)
    , ring(ringCapacityFrames, primeFrames(latency), maxReadFrames)
    , latencyMilliseconds(latency)
{
}

BufferedEQProcessor::~BufferedEQProcessor()
{
    stop();
}

// --- Start -------------------------------------------------------------------

void BufferedEQProcessor::start(const std::vector<EQBand>& bands, double outputGainDB)
{
    AudioObjectID device = kAudioObjectUnknown;
    if (hardware.defaultOutputDevice(device) != kAudioHardwareNoError || device == kAudioObjectUnknown)
        throw AudioTapError::osStatus("No default output device", -1);
    outputDeviceName = OutputDevice::name(hardware, device);
    startedDeviceID = device;
    startedAt = clock();

    createTap();
    // Neither the equalizer nor an output can run without a rate; a tap that
    // reports none is refused here, before anything else is built on it.
    if (!OutputFormat::planarFloat(sampleRate, 2)) {
        stop();
        throw AudioTapError::osStatus("Tap sample rate", kAudio_ParamError);
    }
    createTapAggregate();
    startCapture();

    eq.reset();
    eq.update(bands, outputGainDB, sampleRate);
    fade.start(static_cast<int64_t>(sampleRate * 0.15), 1.0f);

    startRenderer();
    installListeners(device);

    EQLog::trace("buffered processor started — " + outputDeviceName + " @ " + decimalText(sampleRate) + " Hz, "
                 + std::to_string(static_cast<int64_t>(latencyMilliseconds)) + " ms buffer");
}

void BufferedEQProcessor::createTap()
{
    AudioObjectID own = kAudioObjectUnknown;
    const OSStatus translated = hardware.translatePIDToProcessObject(static_cast<int32_t>(::getpid()), own);
    if (translated != kAudioHardwareNoError)
        throw AudioTapError::osStatus("TranslatePIDToProcessObject", translated);

    TapDescription description = TapDescription::stereoGlobalTapButExcludeProcesses({ own });
    description.uuid = tapUUID;
    description.name = "SORVA System Tap";
    description.isPrivate = true;
    description.muteBehavior = TapDescription::MuteBehavior::mutedWhenTapped;

    AudioObjectID tap = kAudioObjectUnknown;
    const OSStatus status = hardware.createProcessTap(description, tap);
    if (status != kAudioHardwareNoError)
        throw AudioTapError::osStatus("AudioHardwareCreateProcessTap", status);
    tapID = tap;
    tapDescription = description;

    AudioStreamBasicDescription format;
    if (hardware.tapFormat(tapID, format) == kAudioHardwareNoError)
        sampleRate = format.mSampleRate;
}

void BufferedEQProcessor::createTapAggregate()
{
    AggregateDescription description;
    description.name = "SORVA Capture";
    description.uid = "com.sorva.app.capture";
    description.isPrivate = true;
    description.isStacked = false;
    description.tapAutoStart = true;
    // The device is the tap alone: no main sub-device, no sub-devices.
    std::string uuid = tapUUID;
    std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    description.taps = { AggregateDescription::SubTap { uuid, true } };

    AudioObjectID device = kAudioObjectUnknown;
    const OSStatus status = hardware.createAggregateDevice(description, device);
    if (status != kAudioHardwareNoError) {
        stop();
        throw AudioTapError::osStatus("AudioHardwareCreateAggregateDevice", status);
    }
    aggregateID = device;
}

void BufferedEQProcessor::startCapture()
{
    AudioDeviceIOProcID procID = 0;
    const OSStatus created = hardware.createIOProcID(aggregateID, &BufferedEQProcessor::captureProc, &ring, procID);
    if (created != kAudioHardwareNoError || procID == 0) {
        stop();
        throw AudioTapError::osStatus("AudioDeviceCreateIOProcIDWithBlock", created);
    }
    ioProcID = procID;

    const OSStatus started = hardware.startDevice(aggregateID, ioProcID);
    if (started != kAudioHardwareNoError) {
        stop();
        throw AudioTapError::osStatus("AudioDeviceStart", started);
    }
}

void BufferedEQProcessor::startRenderer()
{
    const OutputFormat format = *OutputFormat::planarFloat(sampleRate, 2); // checked at start
    renderContext.reset(new RenderContext { ring, eq, fade, spectrum, timing });
    sourceNode = std::make_shared<OutputSourceNode>(format, &BufferedEQProcessor::renderProc, renderContext.get());
    engine->attach(sourceNode);
    engine->connect(sourceNode, format);
    engine->start();
}

// --- Listeners ------------------------------------------------------------------

void BufferedEQProcessor::installListeners(AudioObjectID device)
{
    listenerDevice = device;
    const uint64_t deadline = startedAt + settleNanoseconds;

    // The handlers work on copies only: they never read the engine, which may
    // be gone by the time a queued handler runs.
    AudioHardware* audioHardware = &hardware;
    MainExecutor* executor = &mainExecutor;
    const std::function<void()> callback = onConfigurationChange;
    const AudioObjectID started = startedDeviceID;
    const NanosecondClock now = clock;

    // The output's notification arrives on its own thread; the decision is
    // taken on the main thread, where the callback is called directly.
    engineObserver = engine->addConfigurationObserver([audioHardware, executor, callback, deadline, started, now] {
        executor->post([audioHardware, callback, deadline, started, now] {
            if (now() <= deadline)
                return;
            const AudioObjectID current = currentDefaultDevice(*audioHardware);
            if (current == kAudioObjectUnknown || current == started)
                return;
            EQLog::trace("engine configuration changed — rebuilding");
            if (callback)
                callback();
        });
    });

    auto listenerQueue = std::make_shared<SerialQueue>("com.sorva.app.listeners");

    const double startedRate = sampleRate;
    auto rateHandler = [audioHardware, executor, callback, startedRate] {
        const AudioObjectID current = currentDefaultDevice(*audioHardware);
        if (current == kAudioObjectUnknown)
            return;
        double rate = 0.0;
        if (audioHardware->nominalSampleRate(current, rate) != kAudioHardwareNoError)
            return;
        if (rate > 0.0 && std::fabs(rate - startedRate) > 1.0) {
            EQLog::trace("output sample rate changed — rebuilding");
            executor->post([callback] {
                if (callback)
                    callback();
            });
        }
    };
    AudioPropertyListenerRegistration rateRegistration;
    if (hardware.addPropertyListener(device, { kAudioDevicePropertyNominalSampleRate }, listenerQueue, rateHandler,
                                     rateRegistration)
        == kAudioHardwareNoError)
        rateListener = rateRegistration;

    // No settle deadline here: the output follows the default device at once,
    // so the chain must be rebuilt at once too.
    auto deviceHandler = [audioHardware, executor, callback, started] {
        const AudioObjectID current = currentDefaultDevice(*audioHardware);
        if (current == kAudioObjectUnknown || current == started)
            return;
        EQLog::trace("default output device changed — rebuilding");
        executor->post([callback] {
            if (callback)
                callback();
        });
    };
    AudioPropertyListenerRegistration deviceRegistration;
    if (hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice },
                                     listenerQueue, deviceHandler, deviceRegistration)
        == kAudioHardwareNoError)
        deviceListener = deviceRegistration;
}

void BufferedEQProcessor::removeListeners()
{
    if (engineObserver) {
        engine->removeConfigurationObserver(*engineObserver);
        engineObserver.reset();
    }
    if (rateListener && listenerDevice != kAudioObjectUnknown) {
        hardware.removePropertyListener(*rateListener);
        rateListener.reset();
    }
    if (deviceListener) {
        hardware.removePropertyListener(*deviceListener);
        deviceListener.reset();
    }
    listenerDevice = kAudioObjectUnknown;
}

// --- Stop and refresh ------------------------------------------------------------

void BufferedEQProcessor::stop()
{
    removeListeners();

    if (ioProcID != 0 || engine->isRunning()) {
        fade.start(static_cast<int64_t>(sampleRate * 0.12), -1.0f);
        // The renderer is still pulling: let it play the fade-out to silence.
        wait(fadeOutWait);
    }
    engine->stop();
    if (ioProcID != 0 && aggregateID != kAudioObjectUnknown) {
        hardware.stopDevice(aggregateID, ioProcID);
        hardware.destroyIOProcID(aggregateID, ioProcID);
        ioProcID = 0;
    }
    if (aggregateID != kAudioObjectUnknown) {
        hardware.destroyAggregateDevice(aggregateID);
        aggregateID = kAudioObjectUnknown;
    }
    if (tapID != kAudioObjectUnknown) {
        hardware.destroyProcessTap(tapID);
        tapID = kAudioObjectUnknown;
    }
}

bool BufferedEQProcessor::refreshTap()
{
    if (tapID == kAudioObjectUnknown || !tapDescription)
        return false;
    const OSStatus status = hardware.setTapDescription(tapID, *tapDescription);
    if (status == kAudioHardwareNoError)
        return true;
    EQLog::trace("tap refresh failed (OSStatus " + std::to_string(status) + ")");
    return false;
}

// --- Real-time procedures ----------------------------------------------------------

void BufferedEQProcessor::captureProc(void* context, const AudioTimeStamp*, const AudioBufferList* input,
                                      const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*) noexcept
{
    captureCycle(*static_cast<StereoRingBuffer*>(context), input);
}

void BufferedEQProcessor::captureCycle(StereoRingBuffer& ring, const AudioBufferList* input) noexcept
{
    if (input == nullptr || input->mNumberBuffers == 0)
        return;
    const AudioBuffer& buffer = input->mBuffers[0];
    if (buffer.mData == nullptr)
        return;
    ring.write(static_cast<const float*>(buffer.mData), buffer.mDataByteSize / 4);
}

OSStatus BufferedEQProcessor::renderProc(void* context, bool*, const AudioTimeStamp*, uint32_t frameCount,
                                         AudioBufferList* output) noexcept
{
    return renderCycle(*static_cast<RenderContext*>(context), frameCount, output);
}

OSStatus BufferedEQProcessor::renderCycle(RenderContext& context, uint32_t frameCount, AudioBufferList* output) noexcept
{
    const uint64_t began = hostTicks();
    if (output == nullptr || output->mNumberBuffers < 2)
        return 0;
    auto* left = static_cast<float*>(output->mBuffers[0].mData);
    auto* right = static_cast<float*>(output->mBuffers[1].mData);
    if (left == nullptr || right == nullptr)
        return 0;
    const auto frames = static_cast<int64_t>(frameCount);
    context.ring.read(left, right, frames);
    context.eq.processPlanar(left, right, frames);
    context.fade.applyPlanar(left, right, frames);
    if (frames != 0)
        context.spectrum.pushPlanar(left, right, frames);
    context.timing.record(began, hostTicks(), frames);
    return 0;
}

} // namespace sorva
