// The single-device capture engine. It taps the mix of every other process
// (muting them at their devices while the tap is read), builds a private
// aggregate device "SORVA Output" whose input side is that tap and whose
// output side is the default output device, and runs the render path
// (processIOCycle) as that device's IO procedure: the tapped mix is copied to
// the output, equalized in place, faded, fed to the spectrum analyzer and the
// diagnostic recorder, and timed. start() builds the chain, stop() takes it
// down after a short fade-out. One instance per start: the controller builds a
// new one each time.
//
// Threads: construction, start(), stop() and destruction on the main thread.
// processIOCycle() runs on the hardware's IO thread from the IO procedure's
// start until stop() has stopped the device; the main thread then touches the
// shared blocks only through their own locks (eq publishes its coefficients
// lock-free). Listener handlers run on a serial queue "com.sorva.app.listeners"
// of their own and reach the controller only by posting onConfigurationChange
// to the main executor. The hardware and the executor must outlive the engine.
#pragma once

#include "Audio/AudioTapError.h"
#include "Audio/BiquadEQ.h"
#include "Audio/DeviceListeners.h"
#include "Audio/DiagnosticRecorder.h"
#include "Audio/FadeRamp.h"
#include "Audio/LogOnce.h"
#include "Audio/RenderTiming.h"
#include "Audio/SilenceGate.h"
#include "Audio/SpectrumAnalyzer.h"
#include "Audio/StreamStats.h"
#include "Audio/TapAggregate.h"
#include "Models/EQBand.h"
#include "Platform/AudioHardware.h"
#include "Platform/HotPath.h"
#include "Platform/MainExecutor.h"
#include "Platform/MonotonicClock.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorva {

class SystemEQProcessor {
public:
    // Blocks the calling thread for the given time (stop()'s wait while the
    // fade-out plays). Tests pass one that does not really sleep.
    using Wait = std::function<void(std::chrono::nanoseconds)>;

    // Everything the render path touches, built by startIOProc. All members
    // but layoutLog, scratchCapacity and sampleRate refer to the engine's own
    // blocks.
    struct IOCycleContext {
        LogOnce layoutLog;
        StreamStats& stats;
        int64_t scratchCapacity;
        float* diagnosticScratch;
        SilenceGate& gate;
        double sampleRate;
        BiquadEQ& eq;
        DiagnosticRecorder& recorder;
        RenderTiming& timing;
        FadeRamp& fade;
        SpectrumAnalyzer& spectrum;
    };

    static constexpr int64_t diagnosticScratchCapacity = 16384; // samples

    // wait defaults to really sleeping; clock (monotonic nanoseconds, for the
    // listeners' settle deadline) to monotonicNanoseconds.
    SystemEQProcessor(int64_t bandCount, AudioHardware& hardware, MainExecutor& mainExecutor, Wait wait = {},
                      NanosecondClock clock = {});
    ~SystemEQProcessor();
    // Not copyable: it owns a tap chain and installed listeners.

    // Builds and starts the chain. Throws AudioTapError; whatever was created
    // before the failure has been removed again by then.
    void start(const std::vector<EQBand>& bands, double outputGainDB);
    // Takes the chain down. Never fails; safe at any time and repeatedly.
    void stop();

    // The process object of a PID. Throws AudioTapError
    // ("TranslatePIDToProcessObject", status) when the read fails; a 0 read
    // with status 0 is returned as it is.
    static AudioObjectID translatePIDToProcessObject(AudioHardware& hardware, int32_t pid);
    // The device's UID, or nothing when it cannot be read.
    static std::optional<std::string> deviceUID(AudioHardware& hardware, AudioObjectID device);

    // The render path, one hardware buffer: interleaved (one buffer a side) or
    // planar stereo (two buffers of one channel a side). Real-time safe:
    // allocates and logs nothing except the context's one layout line.
    // began: the cycle's start in host ticks, as the device stamped it; 0
    // reads the clock here.
    SORVA_HOT static void processIOCycle(IOCycleContext& context, const AudioBufferList* input,
                                         AudioBufferList* output, uint64_t began = 0) noexcept;

    // What the engine currently owns (0 / 0 / 0 = nothing).
    AudioObjectID currentTapID() const { return tapAggregate.currentTapID(); }
    AudioObjectID currentAggregateID() const { return tapAggregate.currentAggregateID(); }
    AudioDeviceIOProcID currentIOProcID() const { return tapAggregate.currentIOProcID(); }
    const std::string& tapIdentifier() const { return tapAggregate.tapIdentifier(); }
    // The start the listeners watch over (0 = none).
    AudioObjectID currentListenerDevice() const { return listeners.currentListenerDevice(); }
    AudioObjectID deviceAtStart() const { return listeners.deviceAtStart(); }

private:
    void createTap();
    void createAggregate(const std::string& outputUID);
    void startIOProc();
    SORVA_HOT static void processPlanarCycle(IOCycleContext& context, const AudioBuffer* input, AudioBuffer* output,
                                   uint64_t began) noexcept;
    SORVA_HOT static void ioProc(void* context, const AudioTimeStamp* now, const AudioBufferList* input,
                       const AudioTimeStamp* inputTime, AudioBufferList* output,
                       const AudioTimeStamp* outputTime) noexcept;

    AudioHardware& hardware;
    Wait wait;

    TapAggregate tapAggregate;

public:
    // The controller calls eq.update, stats.snapshot and timing.snapshot, and
    // reads spectrum and recorder; the render path owns the rest of them.
    BiquadEQ eq;
    RenderTiming timing;
    StreamStats stats;
    FadeRamp fade;

private:
    SilenceGate gate;

public:
    DiagnosticRecorder recorder;
    SpectrumAnalyzer spectrum;

private:
    std::unique_ptr<float[]> diagnosticScratch;

public:
    // Set by the controller before start; called on the main thread when the
    // output device or its rate changed and the chain must be rebuilt.
    std::function<void()> onConfigurationChange;

private:
    // Installed at the end of start, removed at the beginning of stop.
    DeviceListeners listeners;

public:
    double sampleRate = 48000.0; // Hz, of the output device at the last start
    std::string outputDeviceName = "Unknown";

private:
    // The render path's context; replaced by each startIOProc, dropped once
    // the IO procedure is destroyed.
    std::unique_ptr<IOCycleContext> ioContext;
};

} // namespace sorva
