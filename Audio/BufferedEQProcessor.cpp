#include "Audio/BufferedEQProcessor.h"

#include "Audio/DecimalText.h"
#include "Audio/EQLog.h"
#include "Audio/OutputDevice.h"
#include "Platform/HostClock.h"

#include <thread>
#include <unistd.h>

namespace sorva {

namespace {

constexpr std::chrono::milliseconds fadeOutWait { 150 };
constexpr double ringRate = 48000.0; // the prime length always assumes it
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
    , wait(waitFunction ? std::move(waitFunction)
                        : Wait([](std::chrono::nanoseconds duration) { std::this_thread::sleep_for(duration); }))
    , tapAggregate(audioHardware)
    , engine(std::move(outputEngine))
    , eq(bandCount, 2)
    , ring(ringCapacityFrames, primeFrames(latency), maxReadFrames)
    , latencyMilliseconds(latency)
    , listeners(audioHardware, executor, std::move(nanosecondClock), DeviceListeners::EarlyDeviceChange::rebuilds,
                engine.get())
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
    const OSStatus deviceStatus = hardware.defaultOutputDevice(device);
    if (deviceStatus == kAudioHardwarePermissionDenied)
        throw AudioTapError::permissionDenied();
    if (deviceStatus != kAudioHardwareNoError || device == kAudioObjectUnknown)
        throw AudioTapError::osStatus("No default output device", -1);
    outputDeviceName = OutputDevice::name(hardware, device);
    listeners.recordStart(device);

    createTap();
    // A failure from here up to the renderer takes down what was built
    // before it is reported.
    try {
        // Neither the equalizer nor an output can run without a rate; a tap
        // that reports none is refused here, before anything else is built
        // on it.
        if (!OutputFormat::planarFloat(sampleRate, 2))
            throw AudioTapError::osStatus("Tap sample rate", kAudio_ParamError);
        createTapAggregate();
        startCapture();
    } catch (...) {
        stop();
        throw;
    }

    eq.reset();
    eq.update(bands, outputGainDB, sampleRate);
    fade.start(static_cast<int64_t>(sampleRate * 0.15), 1.0f);

    startRenderer();
    listeners.install(device, sampleRate, onConfigurationChange);

    EQLog::trace("buffered processor started — " + outputDeviceName + " @ " + decimalText(sampleRate) + " Hz, "
                 + std::to_string(static_cast<int64_t>(latencyMilliseconds)) + " ms buffer");
}

void BufferedEQProcessor::createTap()
{
    const AudioObjectID own = TapAggregate::translatePIDToProcessObject(hardware, static_cast<int32_t>(::getpid()));
    tapDescription = tapAggregate.createTap(TapDescription::stereoGlobalTapButExcludeProcesses({ own }),
                                            TapAggregate::DeniedPermission::asStatus);

    AudioStreamBasicDescription format;
    if (hardware.tapFormat(tapAggregate.currentTapID(), format) == kAudioHardwareNoError)
        sampleRate = format.mSampleRate;
}

void BufferedEQProcessor::createTapAggregate()
{
    // The device is the tap alone: no main sub-device, no sub-devices.
    tapAggregate.createAggregate(tapAggregate.aggregateDescription("SORVA Capture", "com.sorva.app.capture"));
}

void BufferedEQProcessor::startCapture()
{
    tapAggregate.startIOProc(&BufferedEQProcessor::captureProc, &ring);
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

// --- Stop and refresh ------------------------------------------------------------

void BufferedEQProcessor::stop()
{
    listeners.remove();

    if (tapAggregate.currentIOProcID() != 0 || engine->isRunning()) {
        fade.start(static_cast<int64_t>(sampleRate * 0.12), -1.0f);
        // The renderer is still pulling: let it play the fade-out to silence.
        wait(fadeOutWait);
    }
    engine->stop();
    tapAggregate.teardown();
}

bool BufferedEQProcessor::refreshTap()
{
    if (tapAggregate.currentTapID() == kAudioObjectUnknown || !tapDescription)
        return false;
    const OSStatus status = hardware.setTapDescription(tapAggregate.currentTapID(), *tapDescription);
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
