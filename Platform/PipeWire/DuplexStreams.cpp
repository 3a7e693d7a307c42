#include "Platform/PipeWire/DuplexStreams.h"

#include "Audio/EQLog.h"
#include "Platform/HostClock.h"
#include "Platform/PriorityInheritanceMutex.h"

#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <cstring>
#include <set>

namespace sorva {

namespace {

// The part of a dequeued buffer's first block that holds samples
// (interleaved stereo).
struct Filled {
    void* samples = nullptr;
    uint32_t frames = 0;
};

SORVA_HOT std::optional<Filled> filled(const pw_buffer* buffer) noexcept
{
    if (!buffer || buffer->buffer->n_datas == 0 || !buffer->buffer->datas[0].data)
        return std::nullopt;
    const spa_data& data = buffer->buffer->datas[0];
    uint32_t offset = std::min(data.chunk->offset, data.maxsize);
    uint32_t size = std::min(data.chunk->size, data.maxsize - offset);
    return Filled { SPA_PTROFF(data.data, offset, void), size / DuplexStreams::bytesPerFrame };
}

bool isUp(pw_stream_state state)
{
    return state == PW_STREAM_STATE_PAUSED || state == PW_STREAM_STATE_STREAMING;
}

bool isUp(pw_filter_state state)
{
    return state == PW_FILTER_STATE_PAUSED || state == PW_FILTER_STATE_STREAMING;
}

constexpr const char* channelNames[2] = { "FL", "FR" };

// Which of the filter's inputs (bit 0 left, bit 1 right) a program's channel
// goes to. The input ports mix what they are given at unity: a mono program
// plays on both sides, a centre channel on both, the surrounds on their side;
// the bass channel is left out, as a stereo downmix does. Numbered channels
// alternate left and right; unknown ones go to both.
unsigned sidesOf(const std::string& channel)
{
    static const std::set<std::string> left { "FL", "SL", "RL", "FLC", "FLW", "RLC", "TFL", "TSL", "TRL" };
    static const std::set<std::string> right { "FR", "SR", "RR", "FRC", "FRW", "RRC", "TFR", "TSR", "TRR" };
    if (left.count(channel))
        return 1;
    if (right.count(channel))
        return 2;
    if (channel == "LFE" || channel == "LFE2")
        return 0;
    if (channel.size() > 3 && channel.compare(0, 3, "AUX") == 0) {
        auto number = PipeWireGraph::parseInteger(channel.substr(3));
        if (number && *number >= 0)
            return *number % 2 ? 2 : 1;
    }
    return 3;
}

} // namespace

DuplexStreams::DuplexStreams(PipeWireGraph& graph, Observer& observer, std::optional<std::string> outputUID)
    : graph(graph)
    , observer(observer)
    , outputDevice(std::move(outputUID))
    , links(graph)
{
}

DuplexStreams::~DuplexStreams()
{
    setRealtimeStreams(false);
    links.clear();
    if (filter) {
        spa_hook_remove(&filterListener);
        pw_filter_destroy(filter);
    }
    if (tap) {
        spa_hook_remove(&tapListener);
        pw_stream_destroy(tap);
    }
}

uint32_t DuplexStreams::tapNodeID() const
{
    return tap ? pw_stream_get_node_id(tap) : SPA_ID_INVALID;
}

bool DuplexStreams::tapHasPorts() const
{
    uint32_t tapNode = tapNodeID();
    for (auto& [id, port] : graph.ports()) {
        if (port.node == tapNode && port.input)
            return true;
    }
    return false;
}

uint32_t DuplexStreams::outputNodeID() const
{
    return filter ? pw_filter_get_node_id(filter) : SPA_ID_INVALID;
}

// --- Loop thread ------------------------------------------------------------------

void DuplexStreams::setProcedure(AudioDeviceIOProc proc, void* context, bool running)
{
    struct Change {
        DuplexStreams* streams;
        AudioDeviceIOProc proc;
        void* context;
        bool running;
    } change { this, proc, context, running };
    pw_data_loop_invoke(
        pw_context_get_data_loop(graph.context()),
        [](spa_loop*, bool, uint32_t, const void*, size_t, void* user) -> int {
            auto* c = static_cast<Change*>(user);
            c->streams->rtProc = c->proc;
            c->streams->rtContext = c->context;
            c->streams->rtRunning = c->running;
            return 0;
        },
        0, nullptr, 0, true, &change);
}

void DuplexStreams::setRealtimeStreams(bool alive)
{
    struct Change {
        DuplexStreams* streams;
        bool alive;
    } change { this, alive };
    pw_data_loop_invoke(
        pw_context_get_data_loop(graph.context()),
        [](spa_loop*, bool, uint32_t, const void*, size_t, void* user) -> int {
            auto* c = static_cast<Change*>(user);
            // The render path's locks need this thread's ID: fetch it now,
            // not in the first cycle.
            PriorityInheritanceMutex::currentThreadID();
            c->streams->rtTap = c->alive ? c->streams->tap : nullptr;
            c->streams->rtAlive = c->alive;
            return 0;
        },
        0, nullptr, 0, true, &change);
}

void DuplexStreams::requestLatency(const std::string& latency)
{
    spa_dict_item items[] = { { PW_KEY_NODE_LATENCY, latency.c_str() } };
    spa_dict dict { 0, 1, items };
    if (tap)
        pw_stream_update_properties(tap, &dict);
    if (filter)
        pw_filter_update_properties(filter, nullptr, &dict);
}

void DuplexStreams::tapStateChanged(void* self, pw_stream_state, pw_stream_state state, const char* error)
{
    auto& streams = *static_cast<DuplexStreams*>(self);
    streams.tapState = state;
    if (error)
        streams.streamError = error;
    if (!streams.filter && state != PW_STREAM_STATE_STREAMING)
        streams.resumed.store(true, std::memory_order_relaxed);
    streams.observer.tapStateChanged();
    pw_thread_loop_signal(streams.graph.loop(), false);
}

void DuplexStreams::filterStateChanged(void* self, pw_filter_state, pw_filter_state state, const char* error)
{
    auto& streams = *static_cast<DuplexStreams*>(self);
    streams.filterState = state;
    if (error)
        streams.streamError = error;
    if (state != PW_FILTER_STATE_STREAMING)
        streams.resumed.store(true, std::memory_order_relaxed);
    // The daemon writes the graph's new rate into the driver's clock before
    // it starts the nodes again, so it is there to read when the filter
    // streams.
    else if (streams.filterPosition)
        streams.noteRate(streams.filterPosition->clock.rate.denom);
    pw_thread_loop_signal(streams.graph.loop(), false);
}

void DuplexStreams::noteRate(uint32_t negotiated)
{
    if (negotiated == 0 || rate.exchange(negotiated) == negotiated)
        return;
    observer.rateNegotiated(*this, negotiated);
}

void DuplexStreams::paramChanged(void* self, uint32_t id, const spa_pod* param)
{
    static_cast<DuplexStreams*>(self)->onParamChanged(id, param);
}

const pw_stream_events& DuplexStreams::tapEvents()
{
    static const pw_stream_events events = [] {
        pw_stream_events e {};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = tapStateChanged;
        e.param_changed = paramChanged;
        e.io_changed = [](void* d, uint32_t id, void* area, uint32_t) {
            if (id == SPA_IO_Position)
                static_cast<DuplexStreams*>(d)->rtPosition = static_cast<spa_io_position*>(area);
        };
        e.process = tapProcess;
        return e;
    }();
    return events;
}

const pw_filter_events& DuplexStreams::filterEvents()
{
    static const pw_filter_events events = [] {
        pw_filter_events e {};
        e.version = PW_VERSION_FILTER_EVENTS;
        e.state_changed = filterStateChanged;
        e.io_changed = [](void* d, void* port, uint32_t id, void* area, uint32_t) {
            if (!port && id == SPA_IO_Position)
                static_cast<DuplexStreams*>(d)->filterPosition = static_cast<spa_io_position*>(area);
        };
        e.process = filterProcess;
        return e;
    }();
    return events;
}

// The tap's format tells the rate when the tap runs itself (capture only).
void DuplexStreams::onParamChanged(uint32_t id, const spa_pod* param)
{
    if (!param || id != SPA_PARAM_Format)
        return;
    spa_audio_info_raw info {};
    if (spa_format_audio_raw_parse(param, &info) >= 0)
        noteRate(info.rate);
}

bool DuplexStreams::ready() const
{
    const PipeWireGraph::Node* tapNode = graph.node(tapNodeID());
    return isUp(tapState) && (!outputDevice || (filter && isUp(filterState))) && tapNode && tapNode->serial != 0;
}

OSStatus DuplexStreams::connectFilter(const std::string& group)
{
    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Filter", PW_KEY_MEDIA_ROLE, "DSP", PW_KEY_NODE_NAME,
        outputNodeName, PW_KEY_NODE_DESCRIPTION, outputName, PW_KEY_MEDIA_NAME, outputName, PW_KEY_NODE_GROUP,
        group.c_str(), PW_KEY_NODE_LINK_GROUP, group.c_str(), PW_KEY_NODE_AUTOCONNECT, "false", nullptr);
    filter = pw_filter_new(graph.core(), outputName, props);
    if (!filter)
        return kAudioHardwareUnspecifiedError;
    pw_filter_add_listener(filter, &filterListener, &filterEvents(), this);
    for (uint32_t k = 0; k < 4; ++k) {
        bool input = k < 2;
        std::string name = std::string(input ? "input_" : "output_") + channelNames[k % 2];
        pw_properties* portProps = pw_properties_new(PW_KEY_FORMAT_DSP, "32 bit float mono audio", PW_KEY_PORT_NAME,
                                                     name.c_str(), PW_KEY_AUDIO_CHANNEL, channelNames[k % 2], nullptr);
        filterPorts[k] = pw_filter_add_port(filter, input ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT,
                                            PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0, portProps, nullptr, 0);
        if (!filterPorts[k])
            return kAudioHardwareUnspecifiedError;
    }
    if (pw_filter_connect(filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0) < 0)
        return kAudioHardwareUnspecifiedError;
    return kAudioHardwareNoError;
}

OSStatus DuplexStreams::connect(const std::string& group)
{
    uint8_t buffer[1024];
    spa_pod_builder builder {};
    spa_pod_builder_init(&builder, buffer, sizeof buffer);
    spa_audio_info_raw info {};
    // With an output the tap only stands for the routing and never runs;
    // planar like the graph's ports. Alone it is the capture and runs
    // interleaved for the capture-only procedure.
    info.format = outputDevice ? SPA_AUDIO_FORMAT_F32P : SPA_AUDIO_FORMAT_F32;
    info.channels = 2;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[1] = { spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info) };

    // The tap is a capture stream that links to nothing by itself: as an
    // Audio/Sink the session manager would offer it as the default output
    // (and its monitor as the default input) where devices have no
    // priority of their own.
    pw_properties* tapProps = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_CLASS, "Stream/Input/Audio",
        PW_KEY_NODE_NAME, tapNodeName, PW_KEY_NODE_DESCRIPTION, tapName, PW_KEY_MEDIA_NAME, tapName,
        PW_KEY_NODE_AUTOCONNECT, "false", PW_KEY_NODE_GROUP, group.c_str(), PW_KEY_NODE_LINK_GROUP, group.c_str(),
        PW_KEY_AUDIO_CHANNELS, "2", SPA_KEY_AUDIO_POSITION, "[ FL FR ]", PW_KEY_STREAM_DONT_REMIX, "true",
        "resample.prefill", "true", nullptr);
    tap = pw_stream_new(graph.core(), tapName, tapProps);
    if (!tap)
        return kAudioHardwareUnspecifiedError;
    pw_stream_add_listener(tap, &tapListener, &tapEvents(), this);

    if (outputDevice) {
        if (OSStatus status = connectFilter(group))
            return status;
    }
    setRealtimeStreams(true);
    auto tapFlags = PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS;
    if (outputDevice)
        tapFlags = PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_INACTIVE;
    if (pw_stream_connect(tap, PW_DIRECTION_INPUT, PW_ID_ANY, static_cast<pw_stream_flags>(tapFlags), params, 1) < 0)
        return kAudioHardwareUnspecifiedError;

    // Wait until the daemon has made the nodes (a refused client's never
    // get there).
    timespec deadline = graph.setupDeadline();
    while (!ready()) {
        if (tapState == PW_STREAM_STATE_ERROR || filterState == PW_FILTER_STATE_ERROR || graph.disconnected()
            || graph.refused())
            break;
        if (pw_thread_loop_timed_wait_full(graph.loop(), &deadline) != 0)
            break;
    }
    if (!ready()) {
        EQLog::trace("PipeWire streams did not start" + (streamError.empty() ? std::string() : ": " + streamError));
        return graph.refused() ? kAudioHardwarePermissionDenied : kAudioHardwareNotRunningError;
    }
    followLinks();
    return kAudioHardwareNoError;
}

// The filter's outputs go to the output device's playback ports of the same
// channel; a device without front left and right gets them on its first two
// playback ports in order, a device with one port their mean. The inputs take
// the programs linked to the tap, by the channels of the programs' own ports
// (the session manager sets those to the layout of the device the program
// first played on, and links only the ones that match the tap's).
std::vector<LinkKeeper::Wanted> DuplexStreams::wantedLinks(bool& downmix) const
{
    downmix = false;
    std::vector<LinkKeeper::Wanted> wanted;
    uint32_t filterNode = outputNodeID();
    uint32_t tapNode = tapNodeID();
    if (!filter || filterNode == SPA_ID_INVALID || tapNode == SPA_ID_INVALID)
        return wanted;
    uint32_t ours[2][2] = { { 0, 0 }, { 0, 0 } }; // [input?][channel]
    for (auto& [id, port] : graph.ports()) {
        if (port.node != filterNode)
            continue;
        for (int c = 0; c < 2; ++c) {
            if (port.channel == channelNames[c])
                ours[port.input ? 1 : 0][c] = id;
        }
    }

    const PipeWireGraph::Node* device = observer.playbackDevice(*outputDevice);
    if (device) {
        std::vector<const PipeWireGraph::Port*> playback;
        for (auto& [id, port] : graph.ports()) {
            if (port.node == device->id && port.input && !port.monitor)
                playback.push_back(&port);
        }
        if (playback.size() == 1) {
            // A single playback port (a mono speaker) takes both outputs;
            // the cycle leaves the mean of left and right on the left one
            // and silence on the right, which the port adds up.
            downmix = true;
            for (int c = 0; c < 2; ++c) {
                if (ours[0][c])
                    wanted.push_back({ filterNode, ours[0][c], device->id, playback[0]->id, true });
            }
        } else if (playback.size() > 1) {
            bool positioned = false;
            for (const PipeWireGraph::Port* port : playback)
                positioned = positioned || port->channel == channelNames[0] || port->channel == channelNames[1];
            for (int c = 0; c < 2; ++c) {
                const PipeWireGraph::Port* target = positioned ? nullptr : playback[c];
                for (const PipeWireGraph::Port* port : playback) {
                    if (positioned && port->channel == channelNames[c])
                        target = port;
                }
                if (ours[0][c] && target)
                    wanted.push_back({ filterNode, ours[0][c], device->id, target->id, true });
            }
        }
    }

    // Every output port of a program linked to the tap, whichever of its
    // ports the session manager matched with the tap's.
    std::set<uint32_t> sources;
    for (auto& [id, link] : graph.links()) {
        if (link.inputNode == tapNode)
            sources.insert(link.outputNode);
    }
    for (auto& [id, port] : graph.ports()) {
        if (!sources.count(port.node) || port.input || port.monitor)
            continue;
        unsigned sides = sidesOf(port.channel);
        for (int c = 0; c < 2; ++c) {
            if ((sides & (1u << c)) && ours[1][c])
                wanted.push_back({ port.node, id, filterNode, ours[1][c], false });
        }
    }
    return wanted;
}

void DuplexStreams::followLinks()
{
    if (!filter)
        return;
    bool mono = false;
    links.keep(wantedLinks(mono));
    downmix.store(mono, std::memory_order_relaxed);
}

// --- Real-time thread ----------------------------------------------------------------

void DuplexStreams::tapProcess(void* self) noexcept { static_cast<DuplexStreams*>(self)->captureCycle(); }

void DuplexStreams::filterProcess(void* self, spa_io_position* position) noexcept
{
    // The ports live as long as the filter: even while it is being taken
    // down its cycle writes silence rather than leave a stale block.
    if (position)
        static_cast<DuplexStreams*>(self)->filterCycle(static_cast<uint32_t>(position->clock.duration));
}

void DuplexStreams::noteQuantum() noexcept
{
    if (rtPosition)
        cycleFrames.store(static_cast<uint32_t>(rtPosition->clock.duration), std::memory_order_relaxed);
}

// One graph cycle of the filter: the mix of each input port is the input
// list, the output ports' blocks the output list (same size, planar).
void DuplexStreams::filterCycle(uint32_t frames) noexcept
{
    cycleFrames.store(frames, std::memory_order_relaxed);
    if (frames == 0)
        return;
    const uint32_t bytes = frames * bytesPerSample;
    void* out[2] = { pw_filter_get_dsp_buffer(filterPorts[2], frames),
                     pw_filter_get_dsp_buffer(filterPorts[3], frames) };
    if (!out[0] || !out[1]) {
        // One side only is no stereo block: silence on what there is.
        for (void* block : out) {
            if (block)
                std::memset(block, 0, bytes);
        }
        return;
    }
    if (rtAlive && rtRunning && rtProc) {
        for (uint32_t c = 0; c < 2; ++c) {
            void* in = pw_filter_get_dsp_buffer(filterPorts[c], frames);
            if (!in) {
                // No block on this input: silence, processed in place.
                std::memset(out[c], 0, bytes);
                in = out[c];
            }
            inPlanar[c] = { 1, bytes, in };
            outPlanar[c] = { 1, bytes, out[c] };
        }
        AudioTimeStamp now { hostTicks(), rtSampleTime, takeResumed() ? kAudioTimeStampResumed : 0u };
        rtProc(rtContext, &now, &inPlanarList, &now, &outPlanarList, &now);
        if (downmix.load(std::memory_order_relaxed)) {
            auto* left = static_cast<float*>(out[0]);
            auto* right = static_cast<float*>(out[1]);
            for (uint32_t i = 0; i < frames; ++i) {
                left[i] = 0.5f * (left[i] + right[i]);
                right[i] = 0.0f;
            }
        }
    } else {
        std::memset(out[0], 0, bytes);
        std::memset(out[1], 0, bytes);
    }
    rtSampleTime += frames;
}

// Capture without an output device: the procedure gets the tap's mix and
// an empty output list.
void DuplexStreams::captureCycle() noexcept
{
    if (!rtAlive)
        return;
    noteQuantum();
    pw_buffer* in = pw_stream_dequeue_buffer(rtTap);
    if (!in)
        return;
    std::optional<Filled> input = filled(in);
    if (input && rtRunning && rtProc) {
        inBuffer = { 2, input->frames * bytesPerFrame, input->samples };
        AudioTimeStamp now { hostTicks(), rtSampleTime, takeResumed() ? kAudioTimeStampResumed : 0u };
        rtProc(rtContext, &now, &inList, &now, &noBuffers, &now);
        rtSampleTime += input->frames;
    }
    pw_stream_queue_buffer(rtTap, in);
}

} // namespace sorva
