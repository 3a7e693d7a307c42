#include "Platform/PipeWire/PipeWireOutputEngine.h"

#include "Platform/HotPath.h"
#include "Platform/PriorityInheritanceMutex.h"
#include "Platform/PipeWire/PipeWireRAII.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>

namespace sorva {

namespace {

constexpr auto linkTimeout = std::chrono::seconds(3);

struct LinkEnds {
    uint32_t outputNode = 0;
    uint32_t inputNode = 0;
};

void disconnectCore(pw_core* core)
{
    pw_core_disconnect(core);
}

void destroyProxy(pw_registry* registry)
{
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
}

uint32_t parseID(const char* text)
{
    if (!text)
        return 0;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    return end != text && *end == '\0' ? static_cast<uint32_t>(value) : 0;
}

} // namespace

struct PipeWireOutputEngine::Data {
    std::shared_ptr<OutputSourceNode> attached;
    std::shared_ptr<OutputSourceNode> connected;
    std::optional<OutputFormat> format;

    // Everything below exists only between start() and stop(), in this
    // order of creation (destroyed in reverse).
    PipeWirePtr<pw_thread_loop, pw_thread_loop_destroy> loop;
    PipeWirePtr<pw_context, pw_context_destroy> context;
    PipeWirePtr<pw_core, disconnectCore> core;
    PipeWirePtr<pw_registry, destroyProxy> registry;
    PipeWirePtr<pw_stream, pw_stream_destroy> stream;
    spa_hook coreListener {};
    spa_hook registryListener {};
    spa_hook streamListener {};

    // Loop thread only (or under the loop lock).
    pw_stream_state state = PW_STREAM_STATE_UNCONNECTED;
    std::string streamError;
    int coreError = 0;
    std::map<uint32_t, LinkEnds> links; // link global ID -> its ends
    uint32_t streamNode = 0;
    uint32_t target = 0;
    bool running = false;

    std::mutex observersLock; // held while observers run, so removal waits for them
    std::map<uint64_t, ConfigurationObserver> observers;
    uint64_t nextToken = 1;

    // Render thread only.
    OutputSourceNode* renderNode = nullptr;

    void teardown();
    void updateTarget();
    void notifyObservers();

    // A node ID the loop thread writes, read under the loop lock; 0 when
    // not running.
    uint32_t readLocked(const uint32_t& node) const
    {
        if (!loop)
            return 0;
        LoopLock lock(loop.get());
        return node;
    }
};

namespace {

SORVA_HOT void onProcess(void* userdata)
{
    auto* data = static_cast<PipeWireOutputEngine::Data*>(userdata);
    pw_buffer* buffer = pw_stream_dequeue_buffer(data->stream.get());
    if (!buffer)
        return;
    spa_buffer* spa = buffer->buffer;
    if (spa->n_datas < 1) {
        pw_stream_queue_buffer(data->stream.get(), buffer);
        return;
    }
    uint32_t frames = spa->datas[0].maxsize / sizeof(float);
    for (uint32_t i = 0; i < spa->n_datas; ++i)
        frames = std::min(frames, spa->datas[i].maxsize / static_cast<uint32_t>(sizeof(float)));
    if (buffer->requested > 0)
        frames = std::min<uint32_t>(frames, static_cast<uint32_t>(buffer->requested));

    constexpr uint32_t maxChannels = 8;
    AudioBuffer channels[maxChannels];
    const uint32_t count = std::min(spa->n_datas, maxChannels);
    for (uint32_t i = 0; i < count; ++i)
        channels[i] = { 1, frames * static_cast<uint32_t>(sizeof(float)), spa->datas[i].data };
    AudioBufferList list { count, channels };

    bool silence = false;
    const AudioTimeStamp now {};
    const OSStatus status = data->renderNode ? data->renderNode->render(&silence, &now, frames, &list) : -1;
    for (uint32_t i = 0; i < count; ++i) {
        if (spa->datas[i].data && (status != 0 || silence))
            std::memset(spa->datas[i].data, 0, frames * sizeof(float));
        spa->datas[i].chunk->offset = 0;
        spa->datas[i].chunk->stride = sizeof(float);
        spa->datas[i].chunk->size = frames * sizeof(float);
    }
    pw_stream_queue_buffer(data->stream.get(), buffer);
}

void onStateChanged(void* userdata, pw_stream_state, pw_stream_state state, const char* error)
{
    auto* data = static_cast<PipeWireOutputEngine::Data*>(userdata);
    data->state = state;
    if (error)
        data->streamError = error;
    if (state == PW_STREAM_STATE_PAUSED || state == PW_STREAM_STATE_STREAMING) {
        data->streamNode = pw_stream_get_node_id(data->stream.get());
        data->updateTarget();
    }
    pw_thread_loop_signal(data->loop.get(), false);
}

const pw_stream_events streamEvents = [] {
    pw_stream_events events {};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = onStateChanged;
    events.process = onProcess;
    return events;
}();

void onCoreError(void* userdata, uint32_t id, int, int res, const char*)
{
    auto* data = static_cast<PipeWireOutputEngine::Data*>(userdata);
    if (id == PW_ID_CORE) {
        data->coreError = res;
        pw_thread_loop_signal(data->loop.get(), false);
    }
}

const pw_core_events coreEvents = [] {
    pw_core_events events {};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = onCoreError;
    return events;
}();

void onGlobal(void* userdata, uint32_t id, uint32_t, const char* type, uint32_t, const spa_dict* props)
{
    auto* data = static_cast<PipeWireOutputEngine::Data*>(userdata);
    if (!props || std::strcmp(type, PW_TYPE_INTERFACE_Link) != 0)
        return;
    data->links[id] = { parseID(spa_dict_lookup(props, PW_KEY_LINK_OUTPUT_NODE)),
                        parseID(spa_dict_lookup(props, PW_KEY_LINK_INPUT_NODE)) };
    data->updateTarget();
}

void onGlobalRemove(void* userdata, uint32_t id)
{
    auto* data = static_cast<PipeWireOutputEngine::Data*>(userdata);
    if (data->links.erase(id))
        data->updateTarget();
}

const pw_registry_events registryEvents = [] {
    pw_registry_events events {};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global = onGlobal;
    events.global_remove = onGlobalRemove;
    return events;
}();

} // namespace

// Loop thread. The stream's target is the node its links end at; it is
// briefly unlinked while being moved, so only a new non-zero target that
// differs from the previous one counts as a change.
void PipeWireOutputEngine::Data::updateTarget()
{
    if (streamNode == 0 || streamNode == SPA_ID_INVALID)
        return;
    uint32_t now = 0;
    for (const auto& [id, ends] : links)
        if (ends.outputNode == streamNode && ends.inputNode != 0)
            now = ends.inputNode;
    if (now == 0 || now == target)
        return;
    const bool moved = target != 0;
    target = now;
    if (moved)
        notifyObservers();
}

void PipeWireOutputEngine::Data::notifyObservers()
{
    std::lock_guard guard(observersLock);
    for (auto& [token, observer] : observers)
        observer();
}

void PipeWireOutputEngine::Data::teardown()
{
    if (loop) {
        // Disconnecting takes the stream off the real-time data loop and
        // waits for a running process callback; from then on nothing renders.
        pw_thread_loop_lock(loop.get());
        if (stream) {
            spa_hook_remove(&streamListener);
            pw_stream_disconnect(stream.get());
        }
        stream.reset();
        if (registry)
            spa_hook_remove(&registryListener);
        registry.reset();
        if (core)
            spa_hook_remove(&coreListener);
        core.reset();
        pw_thread_loop_unlock(loop.get());
        pw_thread_loop_stop(loop.get());
    }
    context.reset();
    loop.reset();
    links.clear();
    streamNode = 0;
    target = 0;
    state = PW_STREAM_STATE_UNCONNECTED;
    streamError.clear();
    coreError = 0;
    renderNode = nullptr;
    running = false;
}

PipeWireOutputEngine::PipeWireOutputEngine()
    : data(std::make_unique<Data>())
{
    pw_init(nullptr, nullptr);
}

PipeWireOutputEngine::~PipeWireOutputEngine()
{
    stop();
    pw_deinit();
}

void PipeWireOutputEngine::attach(std::shared_ptr<OutputSourceNode> node)
{
    data->attached = std::move(node);
}

void PipeWireOutputEngine::connect(const std::shared_ptr<OutputSourceNode>& node, const OutputFormat& format)
{
    data->connected = node;
    data->format = format;
}

void PipeWireOutputEngine::start()
{
    if (data->running)
        return;
    if (!data->connected || !data->format || data->format->channels != 2)
        throw OutputEngineError(-EINVAL, "no stereo source node is connected to the output");
    const OutputFormat format = *data->format;

    auto fail = [this](int code, std::string description) {
        data->teardown();
        throw OutputEngineError(code, std::move(description));
    };

    data->loop.reset(pw_thread_loop_new("sorva-output", nullptr));
    if (!data->loop)
        fail(-errno, "cannot create the PipeWire loop");
    data->context.reset(pw_context_new(pw_thread_loop_get_loop(data->loop.get()), nullptr, 0));
    if (!data->context)
        fail(-errno, "cannot create the PipeWire context");
    if (pw_thread_loop_start(data->loop.get()) < 0)
        fail(-EIO, "cannot start the PipeWire loop");
    // The render path's locks need the real-time thread's ID: fetch it there
    // now, not in the first cycle.
    pw_data_loop_invoke(
        pw_context_get_data_loop(data->context.get()),
        [](spa_loop*, bool, uint32_t, const void*, size_t, void*) -> int {
            PriorityInheritanceMutex::currentThreadID();
            return 0;
        },
        0, nullptr, 0, true, nullptr);

    pw_thread_loop_lock(data->loop.get());
    struct Unlock {
        pw_thread_loop* loop;
        bool locked = true;
        void release()
        {
            if (locked)
                pw_thread_loop_unlock(loop);
            locked = false;
        }
        ~Unlock() { release(); }
    } unlock { data->loop.get() };
    auto failLocked = [&](int code, std::string description) {
        unlock.release();
        fail(code, std::move(description));
    };

    data->core.reset(pw_context_connect(data->context.get(), nullptr, 0));
    if (!data->core) {
        const int error = errno;
        failLocked(-error, std::string("cannot connect to PipeWire: ") + std::strerror(error));
    }
    pw_core_add_listener(data->core.get(), &data->coreListener, &coreEvents, data.get());
    data->registry.reset(pw_core_get_registry(data->core.get(), PW_VERSION_REGISTRY, 0));
    if (!data->registry)
        failLocked(-errno, "cannot list PipeWire objects");
    pw_registry_add_listener(data->registry.get(), &data->registryListener, &registryEvents, data.get());

    pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                                             PW_KEY_MEDIA_ROLE, "Music", PW_KEY_NODE_NAME, "sorva-buffered-output",
                                             PW_KEY_NODE_DESCRIPTION, "SORVA Buffered Output", PW_KEY_MEDIA_NAME,
                                             "SORVA Buffered Output", PW_KEY_APP_NAME, "SORVA", nullptr);
    data->stream.reset(pw_stream_new(data->core.get(), "SORVA Buffered Output", props));
    if (!data->stream)
        failLocked(-errno, "cannot create the PipeWire playback stream");
    pw_stream_add_listener(data->stream.get(), &data->streamListener, &streamEvents, data.get());
    data->renderNode = data->connected.get();

    uint8_t podBuffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(podBuffer, sizeof(podBuffer));
    spa_audio_info_raw info {};
    info.format = SPA_AUDIO_FORMAT_F32P;
    info.rate = static_cast<uint32_t>(format.sampleRate);
    info.channels = 2;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[1] = { spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info) };
    const int connected = pw_stream_connect(
        data->stream.get(), PW_DIRECTION_OUTPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
        params, 1);
    if (connected < 0)
        failLocked(connected, std::string("cannot connect the playback stream: ") + spa_strerror(connected));

    const auto deadline = std::chrono::steady_clock::now() + linkTimeout;
    while (data->state != PW_STREAM_STATE_PAUSED && data->state != PW_STREAM_STATE_STREAMING) {
        if (data->state == PW_STREAM_STATE_ERROR)
            failLocked(-EIO, "the playback stream failed: " + data->streamError);
        if (data->coreError != 0)
            failLocked(data->coreError, std::string("PipeWire refused the output: ") + spa_strerror(data->coreError));
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::nanoseconds::zero())
            failLocked(-ETIMEDOUT, "the playback stream was not connected to an output device in time");
        timespec abstime {};
        pw_thread_loop_get_time(data->loop.get(), &abstime,
                                std::chrono::duration_cast<std::chrono::nanoseconds>(left).count());
        pw_thread_loop_timed_wait_full(data->loop.get(), &abstime);
    }
    data->running = true;
}

void PipeWireOutputEngine::stop()
{
    data->teardown();
}

bool PipeWireOutputEngine::isRunning() const
{
    return data->running;
}

uint64_t PipeWireOutputEngine::addConfigurationObserver(ConfigurationObserver observer)
{
    std::lock_guard guard(data->observersLock);
    const uint64_t token = data->nextToken++;
    data->observers.emplace(token, std::move(observer));
    return token;
}

void PipeWireOutputEngine::removeConfigurationObserver(uint64_t token)
{
    std::lock_guard guard(data->observersLock);
    data->observers.erase(token);
}

uint32_t PipeWireOutputEngine::nodeID() const
{
    return data->readLocked(data->streamNode);
}

uint32_t PipeWireOutputEngine::targetNodeID() const
{
    return data->readLocked(data->target);
}

} // namespace sorva
