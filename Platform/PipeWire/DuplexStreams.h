// The two streams of one aggregate device: the capture stream "SORVA System
// Tap" that the routed programs play into and, with an output device, the
// playback stream "SORVA Output", triggered by the tap's cycle so that both
// run in the same graph cycle. Each cycle calls the registered IO procedure
// with the tap's mix as input and the output stream's buffer as output: with
// an output both are planar (two buffers of one channel each, the graph's own
// layout, so PipeWire converts nothing on the way); a tap alone delivers one
// interleaved stereo buffer.
//
// Private to Platform/PipeWire (it includes PipeWire headers).
//
// Threads: everything but the process callbacks runs with the graph's loop
// lock held (stream events run on the loop thread). The process callbacks run
// on PipeWire's data thread and touch only the real-time fields, which change
// only inside pw_data_loop_invoke, that is while the data thread is between
// cycles. negotiatedRate() and quantum() may be read from any thread.
#pragma once

#include "Platform/AudioHardware.h"
#include "Platform/HotPath.h"
#include "Platform/PipeWire/PipeWireGraph.h"

#include <pipewire/pipewire.h>

#include <atomic>
#include <optional>
#include <string>

struct spa_io_position;

namespace sorva {

class DuplexStreams {
public:
    static constexpr const char* tapName = "SORVA System Tap";
    static constexpr const char* tapNodeName = "sorva_system_tap";
    static constexpr const char* outputName = "SORVA Output";
    static constexpr const char* outputNodeName = "sorva_output";
    // 32-bit float stereo.
    static constexpr uint32_t bytesPerSample = sizeof(float);
    static constexpr uint32_t bytesPerFrame = 2 * bytesPerSample;

    // What the owner hears of the streams (loop thread, lock held).
    class Observer {
    public:
        // The tap's state changed.
        virtual void tapStateChanged() = 0;
        // The streams settled on a sample rate.
        virtual void rateNegotiated(const DuplexStreams& streams, uint32_t rate) = 0;

    protected:
        ~Observer() = default;
    };

    // outputUID: the node name of the output device; none = capture only.
    DuplexStreams(PipeWireGraph& graph, Observer& observer, std::optional<std::string> outputUID);
    // Withdraws the streams from the data thread, then destroys them.
    ~DuplexStreams();
    DuplexStreams(const DuplexStreams&) = delete;
    DuplexStreams& operator=(const DuplexStreams&) = delete;

    // Creates and connects the streams (node group named by group) and waits
    // until the daemon has made both nodes.
    OSStatus connect(const std::string& group);

    // Sets the IO procedure the cycles call and whether they call it.
    void setProcedure(AudioDeviceIOProc proc, void* context, bool running);
    void setRunning(bool running) { setProcedure(rtProc, rtContext, running); }
    // A node.latency request on both streams.
    void requestLatency(const std::string& latency);

    const std::optional<std::string>& outputUID() const { return outputDevice; }
    uint32_t tapNodeID() const;
    uint32_t outputNodeID() const;
    uint32_t negotiatedRate() const { return rate.load(); }
    uint32_t quantum() const { return cycleFrames.load(); }

private:
    static const pw_stream_events& tapEvents();
    static const pw_stream_events& outputEvents();

    template <pw_stream_state DuplexStreams::*field>
    static void stateChanged(void* self, pw_stream_state old, pw_stream_state state, const char* error);
    static void paramChanged(void* self, uint32_t id, const spa_pod* param);
    // The streams' process callbacks (real-time thread).
    SORVA_HOT static void tapProcess(void* self) noexcept;
    SORVA_HOT static void outputProcess(void* self) noexcept;
    void onParamChanged(uint32_t id, const spa_pod* param);
    // Publishes (or withdraws) the streams to the process callbacks.
    void setRealtimeStreams(bool alive);
    bool ready() const;

    // Real-time thread.
    SORVA_HOT void noteQuantum() noexcept;
    // Whether the tap was paused since the last cycle, clearing the mark;
    // a plain load while it is not set.
    bool takeResumed() noexcept
    {
        return resumed.load(std::memory_order_relaxed) && resumed.exchange(false, std::memory_order_relaxed);
    }
    SORVA_HOT void duplexCycle() noexcept;
    SORVA_HOT void captureCycle() noexcept;

    PipeWireGraph& graph;
    Observer& observer;
    std::optional<std::string> outputDevice;

    pw_stream* tap = nullptr;
    pw_stream* output = nullptr;
    spa_hook tapListener {};
    spa_hook outputListener {};
    pw_stream_state tapState = PW_STREAM_STATE_UNCONNECTED;
    pw_stream_state outputState = PW_STREAM_STATE_UNCONNECTED;
    std::string streamError;

    // Real-time side: written only from inside pw_data_loop_invoke.
    AudioDeviceIOProc rtProc = nullptr;
    void* rtContext = nullptr;
    bool rtRunning = false;
    // The streams as the process callbacks see them: set before the streams
    // connect, cleared before they are destroyed.
    pw_stream* rtTap = nullptr;
    pw_stream* rtOutput = nullptr;
    bool rtAlive = false;
    spa_io_position* rtPosition = nullptr;
    double rtSampleTime = 0.0;
    AudioBuffer inBuffer {};
    AudioBufferList inList { 1, &inBuffer };
    AudioBufferList noBuffers { 0, nullptr };
    AudioBuffer inPlanar[2] {};
    AudioBuffer outPlanar[2] {};
    AudioBufferList inPlanarList { 2, inPlanar };
    AudioBufferList outPlanarList { 2, outPlanar };

    // Set when the tap leaves the streaming state (the graph paused or
    // suspended it); the next cycle reports it and clears it.
    std::atomic<bool> resumed { false };
    std::atomic<uint32_t> rate { 0 };
    std::atomic<uint32_t> cycleFrames { 0 };
};

} // namespace sorva
