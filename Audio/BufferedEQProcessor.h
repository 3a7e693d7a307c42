// The buffered capture engine. It taps the mix of every other process
// (muting them at their devices while the tap is read) into a private
// aggregate device "SORVA Capture" that holds only the tap; that device's IO
// procedure writes the captured stereo into a StereoRingBuffer. A separate
// pull-model output (OutputEngine) plays the system's default output device
// and pulls from the ring through a source node whose render procedure
// equalizes, fades, feeds the spectrum analyzer and records timing. The two
// real-time threads are decoupled by the ring, at the price of its latency
// (latencyMilliseconds, primed at 48 kHz whatever the device rate). One
// instance per start: the controller builds a new one each time.
//
// Threads: construction, start(), stop(), refreshTap() and destruction on the
// main thread. The capture procedure runs on the hardware's IO thread and
// touches only the ring; the render procedure runs on the output's render
// thread and touches ring, eq, fade, spectrum and timing, each through its own
// lock (eq through its published coefficient banks). Device and rate listener
// handlers run on a serial queue "com.sorva.app.listeners" of their own; the
// output's configuration observer posts to the main executor. Handlers reach
// the controller only through onConfigurationChange on the main thread. The
// hardware and the executor must outlive the engine.
#pragma once

#include "Audio/AudioTapError.h"
#include "Audio/BiquadEQ.h"
#include "Audio/DeviceListeners.h"
#include "Audio/FadeRamp.h"
#include "Audio/RenderTiming.h"
#include "Audio/SpectrumAnalyzer.h"
#include "Audio/StereoRingBuffer.h"
#include "Audio/TapAggregate.h"
#include "Models/EQBand.h"
#include "Platform/AudioHardware.h"
#include "Platform/HotPath.h"
#include "Platform/MainExecutor.h"
#include "Platform/MonotonicClock.h"
#include "Platform/OutputEngine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorva {

class BufferedEQProcessor {
public:
    // Blocks the calling thread for the given time (stop()'s wait while the
    // fade-out plays). Tests pass one that does not really sleep.
    using Wait = std::function<void(std::chrono::nanoseconds)>;

    // What the render procedure touches: the engine's own blocks.
    struct RenderContext {
        StereoRingBuffer& ring;
        BiquadEQ& eq;
        FadeRamp& fade;
        SpectrumAnalyzer& spectrum;
        RenderTiming& timing;
    };

    static constexpr int64_t ringCapacityFrames = 48000;
    static constexpr int64_t maxReadFrames = 8192;

    // The ring's prime length for a latency: latency x 48000 / 1000 frames,
    // truncated, kept within the ring (0 ... ringCapacityFrames).
    static int64_t primeFrames(double latencyMilliseconds);

    // wait defaults to really sleeping; clock (monotonic nanoseconds, for the
    // engine observer's settle deadline) to monotonicNanoseconds.
    BufferedEQProcessor(int64_t bandCount, double latencyMilliseconds, AudioHardware& hardware,
                        std::unique_ptr<OutputEngine> outputEngine, MainExecutor& mainExecutor, Wait wait = {},
                        NanosecondClock clock = {});
    ~BufferedEQProcessor();
    // Not copyable: it owns a tap chain and installed listeners.

    // Builds and starts the chain. Throws AudioTapError for the audio
    // hardware's failures (whatever was created has been removed again,
    // except after a renderer failure) and OutputEngineError, unchanged, when
    // the output does not start (tap, aggregate and capture then stay until
    // stop()).
    void start(const std::vector<EQBand>& bands, double outputGainDB);
    // Takes the chain down. Never fails; safe at any time and repeatedly.
    void stop();
    // Re-applies the tap's description to the running tap, so that it picks
    // up processes that appeared since. False before start, after stop, or
    // when the hardware refuses (logged).
    bool refreshTap();

    // The capture procedure, one hardware buffer: the input's first buffer,
    // taken as interleaved stereo, into the ring. Real-time safe.
    SORVA_HOT static void captureCycle(StereoRingBuffer& ring, const AudioBufferList* input) noexcept;
    // The render procedure, one output block. Always returns 0 and never sets
    // the silence flag. Real-time safe.
    SORVA_HOT static OSStatus renderCycle(RenderContext& context, uint32_t frameCount, AudioBufferList* output) noexcept;

    // What the engine currently owns (0 = nothing).
    AudioObjectID currentTapID() const { return tapAggregate.currentTapID(); }
    AudioObjectID currentAggregateID() const { return tapAggregate.currentAggregateID(); }
    AudioDeviceIOProcID currentIOProcID() const { return tapAggregate.currentIOProcID(); }
    const std::string& tapIdentifier() const { return tapAggregate.tapIdentifier(); }
    const std::optional<TapDescription>& currentTapDescription() const { return tapDescription; }
    OutputEngine& output() { return *engine; }
    const std::shared_ptr<OutputSourceNode>& currentSourceNode() const { return sourceNode; }
    // The start the listeners watch over (0 = none).
    AudioObjectID currentListenerDevice() const { return listeners.currentListenerDevice(); }
    AudioObjectID deviceAtStart() const { return listeners.deviceAtStart(); }

private:
    void createTap();
    void createTapAggregate();
    void startCapture();
    void startRenderer();
    static void captureProc(void* context, const AudioTimeStamp* now, const AudioBufferList* input,
                            const AudioTimeStamp* inputTime, AudioBufferList* output,
                            const AudioTimeStamp* outputTime) noexcept;
    static OSStatus renderProc(void* context, bool* isSilence, const AudioTimeStamp* time, uint32_t frameCount,
                               AudioBufferList* output) noexcept;

    AudioHardware& hardware;
    Wait wait;

    TapAggregate tapAggregate;
    std::optional<TapDescription> tapDescription;
    std::unique_ptr<OutputEngine> engine;
    std::shared_ptr<OutputSourceNode> sourceNode;

public:
    // The controller calls eq.update and timing.snapshot and reads ring and
    // spectrum; the render procedure owns the rest of them.
    BiquadEQ eq;
    StereoRingBuffer ring;
    FadeRamp fade;
    RenderTiming timing;
    SpectrumAnalyzer spectrum;
    double sampleRate = 48000.0; // Hz, the tap's rate at the last start
    std::string outputDeviceName = "Unknown";
    const double latencyMilliseconds;
    // Set by the controller before start; called on the main thread when the
    // output device or its rate changed and the chain must be rebuilt.
    std::function<void()> onConfigurationChange;

private:
    // Installed at the end of start, removed at the beginning of stop; they
    // observe the output too.
    DeviceListeners listeners;
    // The render procedure's context; lives as long as the source node may
    // be rendered.
    std::unique_ptr<RenderContext> renderContext;
};

} // namespace sorva
