// The nodes of one aggregate device: the capture stream "SORVA System Tap"
// that the routed programs are sent to, and, with an output device, the
// filter node "SORVA Output" that does the work.
//
// With an output the tap only stands for the routing: the session manager
// links the routed programs to it as to any capture stream, but it is made
// inactive, so the graph never runs it. The program links the same ports of
// those programs into the filter's two input ports itself, and the filter's
// two output ports into the output device's playback ports, by channel. The
// filter's ports are the graph's own mono float ports, so no adapter stands
// between them and the graph, and each cycle is one call of the filter's
// process: the registered IO procedure gets the mix of the two input ports as
// input and the two output ports' blocks as output (planar). A tap alone
// (capture only) runs itself and delivers one interleaved stereo buffer.
//
// Private to Platform/PipeWire (it includes PipeWire headers).
//
// Threads: everything but the process callbacks runs with the graph's loop
// lock held (stream and filter events run on the loop thread). The process
// callbacks run on PipeWire's data thread and touch only the real-time fields,
// which change only inside pw_data_loop_invoke, that is while the data thread
// is between cycles. negotiatedRate() and quantum() may be read from any
// thread.
#pragma once

#include "Platform/AudioHardware.h"
#include "Platform/HotPath.h"
#include "Platform/PipeWire/LinkKeeper.h"
#include "Platform/PipeWire/PipeWireGraph.h"

#include <pipewire/filter.h>
#include <pipewire/pipewire.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

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

    // What the owner hears of the nodes (loop thread, lock held).
    class Observer {
    public:
        // The tap's state changed.
        virtual void tapStateChanged() = 0;
        // The nodes settled on a sample rate.
        virtual void rateNegotiated(const DuplexStreams& streams, uint32_t rate) = 0;
        // The device node the output is to play on now: the one named uid,
        // or where that one is away the default device; none when neither
        // is there.
        virtual const PipeWireGraph::Node* playbackDevice(const std::string& uid) const = 0;

    protected:
        ~Observer() = default;
    };

    // outputUID: the node name of the output device; none = capture only.
    DuplexStreams(PipeWireGraph& graph, Observer& observer, std::optional<std::string> outputUID);
    // Withdraws the nodes from the data thread, then destroys them and the
    // links made for them.
    ~DuplexStreams();
    DuplexStreams(const DuplexStreams&) = delete;
    DuplexStreams& operator=(const DuplexStreams&) = delete;

    // Creates and connects the nodes (node group named by group) and waits
    // until the daemon has made them.
    OSStatus connect(const std::string& group);

    // Sets the IO procedure the cycles call and whether they call it.
    void setProcedure(AudioDeviceIOProc proc, void* context, bool running);
    void setRunning(bool running) { setProcedure(rtProc, rtContext, running); }
    // A node.latency request on both nodes.
    void requestLatency(const std::string& latency);
    // Makes the filter's links match the graph: the ports linked to the tap
    // into its inputs, its outputs into the output device. Call after every
    // change of the graph.
    void followLinks();

    const std::optional<std::string>& outputUID() const { return outputDevice; }
    uint32_t tapNodeID() const;
    // Whether the session manager has set the tap up (it has its ports), so
    // that programs sent to it are linked to it.
    bool tapHasPorts() const;
    uint32_t outputNodeID() const;
    uint32_t negotiatedRate() const { return rate.load(); }
    uint32_t quantum() const { return cycleFrames.load(); }

private:
    static const pw_stream_events& tapEvents();
    static const pw_filter_events& filterEvents();

    static void tapStateChanged(void* self, pw_stream_state old, pw_stream_state state, const char* error);
    static void filterStateChanged(void* self, pw_filter_state old, pw_filter_state state, const char* error);
    static void paramChanged(void* self, uint32_t id, const spa_pod* param);
    // The process callbacks (real-time thread).
    SORVA_HOT static void tapProcess(void* self) noexcept;
    SORVA_HOT static void filterProcess(void* self, spa_io_position* position) noexcept;
    void onParamChanged(uint32_t id, const spa_pod* param);
    OSStatus connectFilter(const std::string& group);
    void noteRate(uint32_t negotiated);
    // Publishes (or withdraws) the nodes to the process callbacks.
    void setRealtimeStreams(bool alive);
    bool ready() const;
    // downmix: set when the device takes one channel only.
    std::vector<LinkKeeper::Wanted> wantedLinks(bool& downmix) const;

    // Real-time thread.
    SORVA_HOT void noteQuantum() noexcept;
    // Whether the running node was paused since the last cycle, clearing
    // the mark; a plain load while it is not set.
    bool takeResumed() noexcept
    {
        return resumed.load(std::memory_order_relaxed) && resumed.exchange(false, std::memory_order_relaxed);
    }
    SORVA_HOT void filterCycle(uint32_t frames) noexcept;
    SORVA_HOT void captureCycle() noexcept;

    PipeWireGraph& graph;
    Observer& observer;
    std::optional<std::string> outputDevice;

    pw_stream* tap = nullptr;
    spa_hook tapListener {};
    pw_stream_state tapState = PW_STREAM_STATE_UNCONNECTED;
    pw_filter* filter = nullptr;
    spa_hook filterListener {};
    pw_filter_state filterState = PW_FILTER_STATE_UNCONNECTED;
    // The filter's ports: input FL, input FR, output FL, output FR.
    void* filterPorts[4] = {};
    // Where the filter's driver keeps the graph's clock (loop thread side).
    spa_io_position* filterPosition = nullptr;
    std::string streamError;
    LinkKeeper links;

    // Real-time side: written only from inside pw_data_loop_invoke.
    AudioDeviceIOProc rtProc = nullptr;
    void* rtContext = nullptr;
    bool rtRunning = false;
    // The nodes as the process callbacks see them: set before the nodes
    // connect, cleared before they are destroyed.
    pw_stream* rtTap = nullptr;
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

    // Set when the running node leaves the streaming state (the graph paused
    // or suspended it); the next cycle reports it and clears it.
    std::atomic<bool> resumed { false };
    std::atomic<uint32_t> rate { 0 };
    std::atomic<uint32_t> cycleFrames { 0 };
    // The output device has one playback port, which both outputs feed: the
    // cycle leaves the mean of left and right on the left output and
    // silence on the right.
    std::atomic<bool> downmix { false };
};

} // namespace sorva
