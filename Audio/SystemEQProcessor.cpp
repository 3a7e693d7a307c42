#include "Audio/SystemEQProcessor.h"

#include "Audio/BlockLevel.h"
#include "Audio/DecimalText.h"
#include "Audio/EQLog.h"
#include "Audio/OutputDevice.h"
#include "Platform/HostClock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>
#include <unistd.h>

namespace sorva {

namespace {

constexpr std::chrono::milliseconds fadeOutWait { 150 };

// "SORVA_IOBUF": an unsigned 32-bit decimal, optionally signed as the standard
// integer parse allows ("+256"; "-0"). Anything else is no request.
std::optional<uint32_t> parseBufferRequest(const char* text)
{
    if (text == nullptr || *text == '\0')
        return std::nullopt;
    const char* digits = text;
    bool negative = false;
    if (*digits == '+' || *digits == '-') {
        negative = *digits == '-';
        ++digits;
    }
    if (*digits == '\0')
        return std::nullopt;
    uint64_t value = 0;
    for (const char* c = digits; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<uint64_t>(*c - '0');
        if (value > std::numeric_limits<uint32_t>::max())
            return std::nullopt;
    }
    if (negative && value != 0)
        return std::nullopt;
    return static_cast<uint32_t>(value);
}
} // namespace

SystemEQProcessor::SystemEQProcessor(int64_t bandCount, AudioHardware& audioHardware, MainExecutor& executor,
                                     Wait waitFunction, NanosecondClock nanosecondClock)
    : hardware(audioHardware)
    , wait(waitFunction ? std::move(waitFunction)
                        : Wait([](std::chrono::nanoseconds duration) { std::this_thread::sleep_for(duration); }))
    , tapAggregate(audioHardware)
    , eq(bandCount, 2)
    , recorder(12.0, 2, 48000.0, executor)
    , diagnosticScratch(new float[diagnosticScratchCapacity]())
    , listeners(audioHardware, executor, std::move(nanosecondClock), DeviceListeners::EarlyDeviceChange::ignored)
{
}

SystemEQProcessor::~SystemEQProcessor()
{
    stop();
    // diagnosticScratch is freed with the members, after the IO procedure that
    // wrote it has been destroyed by stop().
}

AudioObjectID SystemEQProcessor::translatePIDToProcessObject(AudioHardware& hardware, int32_t pid)
{
    return TapAggregate::translatePIDToProcessObject(hardware, pid);
}

std::optional<std::string> SystemEQProcessor::deviceUID(AudioHardware& hardware, AudioObjectID device)
{
    return OutputDevice::deviceUID(hardware, device);
}

// --- Start -------------------------------------------------------------------

void SystemEQProcessor::start(const std::vector<EQBand>& bands, double outputGainDB)
{
    AudioObjectID device = kAudioObjectUnknown;
    const OSStatus deviceStatus = hardware.defaultOutputDevice(device);
    // A client the audio system refuses sees no devices at all; that is a
    // permission problem, not a missing output.
    if (deviceStatus == kAudioHardwarePermissionDenied)
        throw AudioTapError::permissionDenied();
    if (deviceStatus != kAudioHardwareNoError || device == kAudioObjectUnknown)
        throw AudioTapError::osStatus("No default output device", -1);
    const std::optional<std::string> outputUID = deviceUID(hardware, device);
    if (!outputUID)
        throw AudioTapError::osStatus("No default output device", -1);
    outputDeviceName = OutputDevice::name(hardware, device);

    double rate = 0.0;
    sampleRate = (hardware.nominalSampleRate(device, rate) == kAudioHardwareNoError && rate > 0.0) ? rate : 48000.0;

    listeners.recordStart(device);

    createTap();
    // A failure from here on takes down what was built before it is reported.
    try {
        createAggregate(*outputUID);

        if (const std::optional<uint32_t> request = parseBufferRequest(std::getenv("SORVA_IOBUF"))) {
            const OSStatus status = hardware.setBufferFrameSize(tapAggregate.currentAggregateID(), *request);
            EQLog::trace("IO buffer request " + std::to_string(*request) + " frames -> status "
                         + std::to_string(status));
        }

        eq.reset();
        eq.update(bands, outputGainDB, sampleRate);

        fade.start(static_cast<int64_t>(sampleRate * 0.15), 1.0f);

        startIOProc();
    } catch (...) {
        stop();
        throw;
    }
    listeners.install(device, sampleRate, onConfigurationChange);

    const std::string name = outputDeviceName;
    const std::string rateText = decimalText(sampleRate);
    std::optional<std::filesystem::path> directory = EQLog::diagnosticsDirectory();
    // Without a safe temporary folder there is nowhere to write captures.
    if (directory)
        recorder.startContinuousCapture(*directory, 60.0, 20, [name, rateText] {
            return "Architecture: single-device\nOutput device: " + name + "\nSample rate: " + rateText + " Hz";
        });

    EQLog::trace("single-device processor started — output " + outputDeviceName + " @ " + rateText + " Hz");
}

void SystemEQProcessor::createTap()
{
    const AudioObjectID own = translatePIDToProcessObject(hardware, static_cast<int32_t>(::getpid()));

    std::optional<TapDescription> description;
    if (const char* only = std::getenv("SORVA_TAP_ONLY_BUNDLE_ID")) {
        const std::string wanted = only;
        for (const RunningApplication& application : hardware.runningApplications()) {
            if (application.bundleIdentifier != wanted)
                continue;
            const int32_t pid = application.processIdentifier;
            const AudioObjectID process = translatePIDToProcessObject(hardware, pid);
            description = TapDescription::stereoMixdownOfProcesses({ process });
            EQLog::trace([pid] {
                const char* still = std::getenv("SORVA_TAP_ONLY_BUNDLE_ID");
                return "TEST MODE — tapping only pid " + std::to_string(pid) + " for "
                    + (still ? std::string(still) : std::string("?"));
            });
            break;
        }
    }
    if (!description)
        description = TapDescription::stereoGlobalTapButExcludeProcesses({ own });

    tapAggregate.createTap(*description, TapAggregate::DeniedPermission::reported);
}

void SystemEQProcessor::createAggregate(const std::string& outputUID)
{
    AggregateDescription description = tapAggregate.aggregateDescription("SORVA Output", "com.sorva.app.aggregate");
    // The output device is the clock source and contributes no input; the tap
    // is drift-compensated against it.
    description.mainSubDevice = outputUID;
    description.subDevices = { AggregateDescription::SubDevice { outputUID, 0 } };
    tapAggregate.createAggregate(description);
}

void SystemEQProcessor::startIOProc()
{
    ioContext.reset(new IOCycleContext {
        {}, stats, diagnosticScratchCapacity, diagnosticScratch.get(), gate, sampleRate, eq, recorder, timing, fade,
        spectrum });
    tapAggregate.startIOProc(&SystemEQProcessor::ioProc, ioContext.get());
}

// --- Stop -------------------------------------------------------------------------

void SystemEQProcessor::stop()
{
    recorder.stopContinuousCapture();
    listeners.remove();

    if (tapAggregate.currentIOProcID() != 0) {
        fade.start(static_cast<int64_t>(sampleRate * 0.12), -1.0f);
        // The render path is still running: let it play the fade-out to silence.
        wait(fadeOutWait);
    }
    tapAggregate.teardown();
    // The render path's context outlives its procedure, never the reverse.
    if (tapAggregate.currentIOProcID() == 0)
        ioContext.reset();
}

// --- Render path ---------------------------------------------------------------------

void SystemEQProcessor::ioProc(void* context, const AudioTimeStamp* now, const AudioBufferList* input,
                               const AudioTimeStamp*, AudioBufferList* output, const AudioTimeStamp*) noexcept
{
    auto& cycle = *static_cast<IOCycleContext*>(context);
    // After a pause the graph did not schedule us: that time is no late callback.
    if (now && (now->mFlags & kAudioTimeStampResumed))
        cycle.timing.forgetLastCallback();
    // The device's own stamp of the cycle, where it gives one, saves a
    // clock read per cycle.
    processIOCycle(cycle, input, output, now ? now->mHostTime : 0);
}

void SystemEQProcessor::processIOCycle(IOCycleContext& context, const AudioBufferList* input,
                                       AudioBufferList* output, uint64_t began) noexcept
{
    if (began == 0)
        began = hostTicks();
    if (input == nullptr || output == nullptr || input->mNumberBuffers < 1 || output->mNumberBuffers < 1)
        return;

    const AudioBuffer& in = input->mBuffers[0];
    AudioBuffer& out = output->mBuffers[0];

    if (context.layoutLog.claim()) {
        // The one line the IO thread ever logs, once per start.
        EQLog::trace("IOProc layout — in " + std::to_string(input->mNumberBuffers) + " buf / "
                     + std::to_string(in.mNumberChannels) + " ch / " + std::to_string(in.mDataByteSize) + " B, out "
                     + std::to_string(output->mNumberBuffers) + " buf / " + std::to_string(out.mNumberChannels)
                     + " ch / " + std::to_string(out.mDataByteSize) + " B");
    }

    if (input->mNumberBuffers >= 2 && output->mNumberBuffers >= 2 && in.mNumberChannels == 1
        && out.mNumberChannels == 1) {
        processPlanarCycle(context, input->mBuffers, output->mBuffers, began);
        return;
    }
    if (in.mData == nullptr || out.mData == nullptr)
        return;
    const auto* inSamples = static_cast<const float*>(in.mData);
    auto* outSamples = static_cast<float*>(out.mData);

    const int64_t inCh = in.mNumberChannels;
    const int64_t outCh = out.mNumberChannels;
    const int64_t inFrames = in.mDataByteSize / (4 * std::max<int64_t>(1, inCh));
    const int64_t outFrames = out.mDataByteSize / (4 * std::max<int64_t>(1, outCh));
    const int64_t frames = std::min(inFrames, outFrames);
    if (frames == 0)
        return;

    const int64_t count = frames * outCh;
    // One pass copies the input (where the output lies elsewhere) and
    // measures it; the recorder then takes the untouched input as the raw
    // side instead of a copy of it.
    BlockLevel level;
    const float* raw = nullptr;
    if (inCh == outCh && BlockLevel::disjoint(inSamples, outSamples, count)) {
        level.scan(inSamples, outSamples, count);
        raw = inSamples;
    } else {
        if (inCh == outCh) {
            if (inSamples != outSamples)
                std::memmove(outSamples, inSamples, static_cast<size_t>(count) * sizeof(float));
        } else {
            // Mono is spread over every output channel; more channels are
            // reduced to the first.
            for (int64_t f = 0; f < frames; ++f) {
                const float v = inSamples[f * inCh];
                for (int64_t c = 0; c < outCh; ++c)
                    outSamples[f * outCh + c] = v;
            }
        }
        level.scan(outSamples, nullptr, count);
    }
    context.stats.add(frames, level.peak);

    const bool captureDiag = outCh == 2 && count <= context.scratchCapacity;
    if (captureDiag && raw == nullptr) {
        if (context.diagnosticScratch != outSamples)
            std::memcpy(context.diagnosticScratch, outSamples, static_cast<size_t>(count) * sizeof(float));
        raw = context.diagnosticScratch;
    }

    const bool silent = level.silent;
    const auto limit = static_cast<int64_t>(context.sampleRate);
    const bool gated = context.gate.observe(silent, frames, limit);

    if (!gated) {
        context.eq.processInterleaved(outSamples, frames, outCh);
        context.fade.apply(outSamples, frames, outCh);
        context.spectrum.push(outSamples, frames, outCh);
    } else {
        // A second of exact digital silence: stop filtering and let the
        // filter tails die, so that nothing rings on when sound returns.
        context.eq.reset();
        std::fill(outSamples, outSamples + count, 0.0f);
    }

    if (captureDiag)
        context.recorder.push(raw, outSamples, frames);

    context.timing.record(began, hostTicks(), frames, !silent && !gated);
}

// Planar stereo (two buffers of one channel on each side): the same steps as
// the interleaved path, each channel in its own block. The graph hands over
// separate input and output blocks, so the usual cycle reads each input
// sample once, writes each output sample once before the equalizer, and
// records the input itself as the raw side.
void SystemEQProcessor::processPlanarCycle(IOCycleContext& context, const AudioBuffer* in, AudioBuffer* out,
                                           uint64_t began) noexcept
{
    if (in[0].mData == nullptr || in[1].mData == nullptr || out[0].mData == nullptr || out[1].mData == nullptr)
        return;
    const int64_t frames = std::min({ in[0].mDataByteSize, in[1].mDataByteSize, out[0].mDataByteSize,
                                      out[1].mDataByteSize })
        / 4;
    if (frames == 0)
        return;
    float* channels[2] = { static_cast<float*>(out[0].mData), static_cast<float*>(out[1].mData) };
    const float* raw[2] = { nullptr, nullptr };
    BlockLevel level;
    for (int c = 0; c < 2; ++c) {
        const auto* from = static_cast<const float*>(in[c].mData);
        if (BlockLevel::disjoint(from, channels[0], frames) && BlockLevel::disjoint(from, channels[1], frames)) {
            level.scan(from, channels[c], frames);
            raw[c] = from;
        } else {
            if (from != channels[c])
                std::memmove(channels[c], from, static_cast<size_t>(frames) * sizeof(float));
            level.scan(channels[c], nullptr, frames);
        }
    }
    float* left = channels[0];
    float* right = channels[1];
    context.stats.add(frames, level.peak);

    const bool captureDiag = 2 * frames <= context.scratchCapacity;
    if (captureDiag) {
        for (int c = 0; c < 2; ++c) {
            if (raw[c] == nullptr) {
                float* copy = context.diagnosticScratch + c * frames;
                std::memcpy(copy, channels[c], static_cast<size_t>(frames) * sizeof(float));
                raw[c] = copy;
            }
        }
    }

    const bool silent = level.silent;
    const bool gated = context.gate.observe(silent, frames, static_cast<int64_t>(context.sampleRate));

    if (!gated) {
        context.eq.processPlanar(left, right, frames);
        context.fade.applyPlanar(left, right, frames);
        context.spectrum.pushPlanar(left, right, frames);
    } else {
        context.eq.reset();
        std::fill(left, left + frames, 0.0f);
        std::fill(right, right + frames, 0.0f);
    }

    if (captureDiag)
        context.recorder.pushPlanar(raw[0], raw[1], left, right, frames);

    context.timing.record(began, hostTicks(), frames, !silent && !gated);
}

} // namespace sorva
