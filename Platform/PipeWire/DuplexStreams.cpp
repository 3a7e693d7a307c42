#include "Platform/PipeWire/DuplexStreams.h"

#include "Audio/EQLog.h"
#include "Platform/HostClock.h"
#include "Platform/PriorityInheritanceMutex.h"

#include <spa/param/audio/format-utils.h>
#include <spa/param/latency-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <cstring>

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

// The samples of a dequeued planar stereo buffer: one block per channel,
// as many frames as both hold.
struct FilledPlanar {
    void* channels[2] = { nullptr, nullptr };
    uint32_t frames = 0;
};

SORVA_HOT std::optional<FilledPlanar> filledPlanar(const pw_buffer* buffer) noexcept
{
    if (!buffer || buffer->buffer->n_datas < 2)
        return std::nullopt;
    FilledPlanar result;
    for (uint32_t c = 0; c < 2; ++c) {
        const spa_data& data = buffer->buffer->datas[c];
        if (!data.data)
            return std::nullopt;
        uint32_t offset = std::min(data.chunk->offset, data.maxsize);
        uint32_t frames = std::min(data.chunk->size, data.maxsize - offset) / DuplexStreams::bytesPerSample;
        result.channels[c] = SPA_PTROFF(data.data, offset, void);
        result.frames = c == 0 ? frames : std::min(result.frames, frames);
    }
    return result;
}

bool isUp(pw_stream_state state)
{
    return state == PW_STREAM_STATE_PAUSED || state == PW_STREAM_STATE_STREAMING;
}

} // namespace

DuplexStreams::DuplexStreams(PipeWireGraph& graph, Observer& observer, std::optional<std::string> outputUID)
    : graph(graph)
    , observer(observer)
    , outputDevice(std::move(outputUID))
{
}

DuplexStreams::~DuplexStreams()
{
    setRealtimeStreams(false);
    if (output) {
        spa_hook_remove(&outputListener);
        pw_stream_destroy(output);
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

uint32_t DuplexStreams::outputNodeID() const
{
    return output ? pw_stream_get_node_id(output) : SPA_ID_INVALID;
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
            c->streams->rtOutput = c->alive ? c->streams->output : nullptr;
            c->streams->rtAlive = c->alive;
            return 0;
        },
        0, nullptr, 0, true, &change);
}

void DuplexStreams::requestLatency(const std::string& latency)
{
    spa_dict_item items[] = { { PW_KEY_NODE_LATENCY, latency.c_str() } };
    spa_dict dict { 0, 1, items };
    for (pw_stream* stream : { tap, output }) {
        if (stream)
            pw_stream_update_properties(stream, &dict);
    }
}

template <pw_stream_state DuplexStreams::*field>
void DuplexStreams::stateChanged(void* self, pw_stream_state, pw_stream_state state, const char* error)
{
    auto& streams = *static_cast<DuplexStreams*>(self);
    streams.*field = state;
    if (error)
        streams.streamError = error;
    if (field == &DuplexStreams::tapState) {
        if (state != PW_STREAM_STATE_STREAMING)
            streams.resumed.store(true, std::memory_order_relaxed);
        streams.observer.tapStateChanged();
    }
    pw_thread_loop_signal(streams.graph.loop(), false);
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
        e.state_changed = stateChanged<&DuplexStreams::tapState>;
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

const pw_stream_events& DuplexStreams::outputEvents()
{
    static const pw_stream_events events = [] {
        pw_stream_events e {};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = stateChanged<&DuplexStreams::outputState>;
        e.param_changed = paramChanged;
        e.process = outputProcess;
        return e;
    }();
    return events;
}

void DuplexStreams::onParamChanged(uint32_t id, const spa_pod* param)
{
    if (!param)
        return;
    if (id == SPA_PARAM_Format) {
        spa_audio_info_raw info {};
        if (spa_format_audio_raw_parse(param, &info) >= 0 && info.rate > 0) {
            rate.store(info.rate);
            observer.rateNegotiated(*this, info.rate);
        }
    } else if (id == SPA_PARAM_Latency && output) {
        // The pair is one filter to the graph: latency reported downstream
        // of the output travels upstream of the tap, and back.
        spa_latency_info latency {};
        if (spa_latency_parse(param, &latency) < 0)
            return;
        uint8_t buffer[1024];
        spa_pod_builder builder {};
        spa_pod_builder_init(&builder, buffer, sizeof buffer);
        const spa_pod* params[1] = { spa_latency_build(&builder, SPA_PARAM_Latency, &latency) };
        pw_stream_update_params(latency.direction == SPA_DIRECTION_INPUT ? tap : output, params, 1);
    }
}

bool DuplexStreams::ready() const
{
    const PipeWireGraph::Node* tapNode = graph.node(tapNodeID());
    return isUp(tapState) && (!output || isUp(outputState)) && tapNode && tapNode->serial != 0;
}

OSStatus DuplexStreams::connect(const std::string& group)
{
    uint8_t buffer[1024];
    spa_pod_builder builder {};
    spa_pod_builder_init(&builder, buffer, sizeof buffer);
    spa_audio_info_raw info {};
    // With an output the pair runs planar, as the graph's own ports do, so
    // that neither stream's adapter converts; the tap alone stays
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
        PW_KEY_AUDIO_CHANNELS, "2", SPA_KEY_AUDIO_POSITION, "[ FL FR ]", "resample.prefill", "true", nullptr);
    tap = pw_stream_new(graph.core(), tapName, tapProps);
    if (!tap)
        return kAudioHardwareUnspecifiedError;
    pw_stream_add_listener(tap, &tapListener, &tapEvents(), this);

    if (outputDevice) {
        pw_properties* outputProps = pw_properties_new(
            PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_CLASS,
            "Stream/Output/Audio", PW_KEY_NODE_NAME, outputNodeName, PW_KEY_NODE_DESCRIPTION, outputName,
            PW_KEY_MEDIA_NAME, outputName, PW_KEY_NODE_PASSIVE, "true", PW_KEY_NODE_GROUP, group.c_str(),
            PW_KEY_NODE_LINK_GROUP, group.c_str(), PW_KEY_TARGET_OBJECT, outputDevice->c_str(),
            PW_KEY_AUDIO_CHANNELS, "2", SPA_KEY_AUDIO_POSITION, "[ FL FR ]", "resample.prefill", "true", nullptr);
        output = pw_stream_new(graph.core(), outputName, outputProps);
        if (!output)
            return kAudioHardwareUnspecifiedError;
        pw_stream_add_listener(output, &outputListener, &outputEvents(), this);
    }
    setRealtimeStreams(true);
    if (output) {
        // The output first: it is triggered by the tap, so it must exist
        // before the tap's first cycle.
        int res = pw_stream_connect(output, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                    static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS
                                                                 | PW_STREAM_FLAG_RT_PROCESS | PW_STREAM_FLAG_TRIGGER),
                                    params, 1);
        if (res < 0)
            return kAudioHardwareUnspecifiedError;
    }
    int res = pw_stream_connect(tap, PW_DIRECTION_INPUT, PW_ID_ANY,
                                static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
                                params, 1);
    if (res < 0)
        return kAudioHardwareUnspecifiedError;

    // Wait until the daemon has made both nodes (a refused client's
    // streams never get there).
    timespec deadline = graph.setupDeadline();
    while (!ready()) {
        if (tapState == PW_STREAM_STATE_ERROR || outputState == PW_STREAM_STATE_ERROR || graph.disconnected()
            || graph.refused())
            break;
        if (pw_thread_loop_timed_wait_full(graph.loop(), &deadline) != 0)
            break;
    }
    if (!ready()) {
        EQLog::trace("PipeWire streams did not start" + (streamError.empty() ? std::string() : ": " + streamError));
        return graph.refused() ? kAudioHardwarePermissionDenied : kAudioHardwareNotRunningError;
    }
    return kAudioHardwareNoError;
}

// --- Real-time thread ----------------------------------------------------------------

// The tap's cycle triggers the output's, which then takes both buffers;
// without an output the tap's cycle is the capture.
void DuplexStreams::tapProcess(void* self) noexcept
{
    auto* streams = static_cast<DuplexStreams*>(self);
    if (!streams->rtAlive)
        return;
    if (streams->rtOutput)
        pw_stream_trigger_process(streams->rtOutput);
    else
        streams->captureCycle();
}

void DuplexStreams::outputProcess(void* self) noexcept { static_cast<DuplexStreams*>(self)->duplexCycle(); }

void DuplexStreams::noteQuantum() noexcept
{
    if (rtPosition)
        cycleFrames.store(static_cast<uint32_t>(rtPosition->clock.duration), std::memory_order_relaxed);
}

// The tap and the output of one graph cycle, both planar: the tap's two
// channel blocks are the input list, the output stream's two (same size) the
// output list.
void DuplexStreams::duplexCycle() noexcept
{
    if (!rtAlive)
        return;
    noteQuantum();
    pw_buffer* in = pw_stream_dequeue_buffer(rtTap);
    pw_buffer* out = pw_stream_dequeue_buffer(rtOutput);
    if (!out) {
        if (in)
            pw_stream_queue_buffer(rtTap, in);
        return;
    }
    spa_buffer& ob = *out->buffer;
    uint32_t capacity = 0;
    if (ob.n_datas >= 2 && ob.datas[0].data && ob.datas[1].data)
        capacity = std::min(ob.datas[0].maxsize, ob.datas[1].maxsize) / bytesPerSample;
    std::optional<FilledPlanar> input = filledPlanar(in);
    uint32_t frames = input ? input->frames
                            : (out->requested ? static_cast<uint32_t>(out->requested)
                                              : cycleFrames.load(std::memory_order_relaxed));
    frames = std::min(frames, capacity);
    if (frames > 0) {
        if (rtRunning && rtProc && input) {
            // Input and output have the same size and layout, so the
            // procedure writes every sample of the output.
            for (uint32_t c = 0; c < 2; ++c) {
                inPlanar[c] = { 1, frames * bytesPerSample, input->channels[c] };
                outPlanar[c] = { 1, frames * bytesPerSample, ob.datas[c].data };
            }
            AudioTimeStamp now { hostTicks(), rtSampleTime, takeResumed() ? kAudioTimeStampResumed : 0u };
            rtProc(rtContext, &now, &inPlanarList, &now, &outPlanarList, &now);
        } else {
            std::memset(ob.datas[0].data, 0, frames * bytesPerSample);
            std::memset(ob.datas[1].data, 0, frames * bytesPerSample);
        }
        rtSampleTime += frames;
    }
    for (uint32_t c = 0; c < ob.n_datas; ++c) {
        ob.datas[c].chunk->offset = 0;
        ob.datas[c].chunk->size = c < 2 ? frames * bytesPerSample : 0;
        ob.datas[c].chunk->stride = static_cast<int32_t>(bytesPerSample);
    }
    if (in)
        pw_stream_queue_buffer(rtTap, in);
    pw_stream_queue_buffer(rtOutput, out);
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
