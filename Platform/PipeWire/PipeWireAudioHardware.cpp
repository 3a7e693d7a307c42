// PipeWire backend. Everything PipeWire lives in this file's private structs:
// the thread loop, the context, the core connection, a mirror of the registry
// (nodes, clients, the "default" and "settings" metadata), the taps, the
// aggregates (each one a pair of streams) and the property listeners.
//
// It is one long file on purpose: every PipeWire type stays inside it, behind
// the private Data, and the registry mirror, the routing and the stream pair
// share that one lock and that one set of objects.
//
// Locking: every field of Data is touched only with the thread loop's lock
// held (PipeWire's own events run on the loop thread, which holds it). The
// real-time process callbacks touch only their Duplex's real-time fields;
// those change only inside pw_data_loop_invoke, that is while the data thread
// is between cycles.
#include "Platform/PipeWire/PipeWireAudioHardware.h"

#include "Audio/EQLog.h"
#include "Platform/HostClock.h"
#include "Platform/PipeWire/RoutingJournal.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/latency-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <signal.h>
#include <unistd.h>

namespace sorva {

namespace {

constexpr AudioObjectID processObjectBase = 0x40000000;
constexpr AudioObjectID processObjectLast = 0x4fffffff;
constexpr AudioObjectID tapBase = 0x50000000;
constexpr AudioObjectID aggregateBase = 0x60000000;
constexpr uint32_t bytesPerFrame = 2 * sizeof(float);

constexpr const char* tapName = "SORVA System Tap";
constexpr const char* tapNodeName = "sorva_system_tap";
constexpr const char* outputName = "SORVA Output";
constexpr const char* outputNodeName = "sorva_output";

std::once_flag pipewireInit;

std::string lookup(const std::map<std::string, std::string>& props, const char* key)
{
    auto found = props.find(key);
    return found == props.end() ? std::string() : found->second;
}

std::optional<long long> parseInteger(const std::string& text)
{
    if (text.empty())
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return std::nullopt;
    return value;
}

std::map<std::string, std::string> toMap(const spa_dict* dict)
{
    std::map<std::string, std::string> out;
    if (!dict)
        return out;
    for (uint32_t i = 0; i < dict->n_items; ++i) {
        if (dict->items[i].key && dict->items[i].value)
            out[dict->items[i].key] = dict->items[i].value;
    }
    return out;
}

// The "name" member of a metadata JSON value such as {"name":"speakers"}.
std::string jsonName(const std::string& json)
{
    auto key = json.find("\"name\"");
    if (key == std::string::npos)
        return {};
    auto colon = json.find(':', key + 6);
    if (colon == std::string::npos)
        return {};
    auto open = json.find('"', colon + 1);
    if (open == std::string::npos)
        return {};
    std::string out;
    for (size_t i = open + 1; i < json.size(); ++i) {
        if (json[i] == '\\' && i + 1 < json.size()) {
            out += json[++i];
        } else if (json[i] == '"') {
            return out;
        } else {
            out += json[i];
        }
    }
    return {};
}

bool equalsIgnoringCase(const std::string& a, const std::string& b)
{
    return a.size() == b.size()
        && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y)); });
}

// A registry object we bound, with its event hook. Removing the hook before
// destroying the proxy keeps PipeWire from calling into freed memory.
struct BoundProxy {
    pw_proxy* proxy = nullptr;
    spa_hook listener {};

    BoundProxy() = default;
    BoundProxy(const BoundProxy&) = delete;
    BoundProxy& operator=(const BoundProxy&) = delete;
    ~BoundProxy() { reset(); }
    void reset()
    {
        if (!proxy)
            return;
        if (listener.link.next)
            spa_hook_remove(&listener);
        pw_proxy_destroy(proxy);
        proxy = nullptr;
        listener = {};
    }
};

} // namespace



namespace {

struct Node {
    PipeWireAudioHardware::Data* owner = nullptr;
    uint32_t id = 0;
    uint64_t serial = 0;
    std::map<std::string, std::string> props;
    pw_node_state state = PW_NODE_STATE_CREATING;
    bool haveInfo = false;
    BoundProxy bound;
};

struct Client {
    PipeWireAudioHardware::Data* owner = nullptr;
    uint32_t id = 0;
    std::map<std::string, std::string> props;
    BoundProxy bound;
};

struct Metadata {
    PipeWireAudioHardware::Data* owner = nullptr;
    uint32_t id = 0;
    uint32_t permissions = 0;
    std::map<std::pair<uint32_t, std::string>, RoutingJournal::Value> values;
    BoundProxy bound;

    std::optional<RoutingJournal::Value> value(uint32_t subject, const std::string& key) const
    {
        auto found = values.find({ subject, key });
        if (found == values.end())
            return std::nullopt;
        return found->second;
    }
};

struct Tap {
    TapDescription description;
};

// A stream routed to the tap and what its targets were before.
struct RoutedStream {
    uint32_t nodeID = 0;
    std::optional<RoutingJournal::Value> previousObject;
    std::optional<RoutingJournal::Value> previousNode;
};

// One aggregate device: the tap's capture stream and, with an output device,
// the playback stream processed in the same cycle.
struct Duplex {
    PipeWireAudioHardware::Data* owner = nullptr;
    AudioObjectID id = 0;
    AudioObjectID tapID = 0;
    AggregateDescription description;
    std::optional<std::string> outputUID;

    pw_stream* tap = nullptr;
    pw_stream* output = nullptr;
    spa_hook tapListener {};
    spa_hook outputListener {};
    pw_stream_state tapState = PW_STREAM_STATE_UNCONNECTED;
    pw_stream_state outputState = PW_STREAM_STATE_UNCONNECTED;
    std::string streamError;

    // Registered IO procedure (loop lock).
    AudioDeviceIOProcID procID = 0;
    bool started = false;

    // Routing (loop lock).
    bool routing = false;
    std::set<uint64_t> considered; // serials already decided on
    std::map<uint64_t, RoutedStream> routed; // by stream serial

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
    AudioBuffer outBuffer {};
    AudioBufferList inList { 1, &inBuffer };
    AudioBufferList outList { 1, &outBuffer };
    AudioBufferList noBuffers { 0, nullptr };

    // Read from any thread.
    std::atomic<uint32_t> negotiatedRate { 0 };
    std::atomic<uint32_t> quantum { 0 };

    uint32_t tapNodeID() const { return tap ? pw_stream_get_node_id(tap) : SPA_ID_INVALID; }
    uint32_t outputNodeID() const { return output ? pw_stream_get_node_id(output) : SPA_ID_INVALID; }

    Duplex() = default;
    Duplex(const Duplex&) = delete;
    Duplex& operator=(const Duplex&) = delete;
    ~Duplex() { destroyStreams(); }

    // Loop lock held; the data thread must no longer use the streams.
    void destroyStreams()
    {
        if (output) {
            spa_hook_remove(&outputListener);
            pw_stream_destroy(output);
            output = nullptr;
        }
        if (tap) {
            spa_hook_remove(&tapListener);
            pw_stream_destroy(tap);
            tap = nullptr;
        }
    }

    // --- Real-time thread ---------------------------------------------

    void noteQuantum() noexcept
    {
        if (rtPosition)
            quantum.store(static_cast<uint32_t>(rtPosition->clock.duration), std::memory_order_relaxed);
    }

    // The tap and the output of one graph cycle: the tap's mix is the input
    // list, the output stream's buffer (same size) the output list.
    void duplexCycle() noexcept
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
        spa_data& od = out->buffer->datas[0];
        uint32_t capacity = od.data ? od.maxsize / bytesPerFrame : 0;
        const float* inSamples = nullptr;
        uint32_t frames = 0;
        if (in && in->buffer->n_datas > 0 && in->buffer->datas[0].data) {
            const spa_data& id = in->buffer->datas[0];
            uint32_t offset = std::min(id.chunk->offset, id.maxsize);
            uint32_t size = std::min(id.chunk->size, id.maxsize - offset);
            inSamples = static_cast<const float*>(SPA_PTROFF(id.data, offset, void));
            frames = size / bytesPerFrame;
        } else {
            frames = out->requested ? static_cast<uint32_t>(out->requested) : quantum.load(std::memory_order_relaxed);
        }
        frames = std::min(frames, capacity);
        if (frames > 0) {
            if (rtRunning && rtProc && inSamples) {
                // Input and output have the same size and layout, so the
                // procedure writes every sample of the output.
                inBuffer = { 2, frames * bytesPerFrame, const_cast<float*>(inSamples) };
                outBuffer = { 2, frames * bytesPerFrame, od.data };
                AudioTimeStamp now { hostTicks(), rtSampleTime };
                rtProc(rtContext, &now, &inList, &now, &outList, &now);
            } else {
                std::memset(od.data, 0, frames * bytesPerFrame);
            }
            rtSampleTime += frames;
        }
        od.chunk->offset = 0;
        od.chunk->size = frames * bytesPerFrame;
        od.chunk->stride = static_cast<int32_t>(bytesPerFrame);
        if (in)
            pw_stream_queue_buffer(rtTap, in);
        pw_stream_queue_buffer(rtOutput, out);
    }

    // Capture without an output device: the procedure gets the tap's mix and
    // an empty output list.
    void captureCycle() noexcept
    {
        if (!rtAlive)
            return;
        noteQuantum();
        pw_buffer* in = pw_stream_dequeue_buffer(rtTap);
        if (!in)
            return;
        if (in->buffer->n_datas > 0 && in->buffer->datas[0].data && rtRunning && rtProc) {
            const spa_data& id = in->buffer->datas[0];
            uint32_t offset = std::min(id.chunk->offset, id.maxsize);
            uint32_t size = std::min(id.chunk->size, id.maxsize - offset);
            uint32_t frames = size / bytesPerFrame;
            inBuffer = { 2, frames * bytesPerFrame, SPA_PTROFF(id.data, offset, void) };
            AudioTimeStamp now { hostTicks(), rtSampleTime };
            rtProc(rtContext, &now, &inList, &now, &noBuffers, &now);
            rtSampleTime += frames;
        }
        pw_stream_queue_buffer(rtTap, in);
    }
};

struct Listener {
    uint64_t token = 0;
    AudioObjectID object = 0;
    uint32_t selector = 0;
    std::shared_ptr<SerialQueue> queue;
    std::shared_ptr<const AudioObjectPropertyListener> handler;
    double last = 0.0;
};

} // namespace

struct PipeWireAudioHardware::Data {
    Options options;
    RoutingJournal journal;
    pid_t ownPID = ::getpid();

    struct LoopDeleter {
        void operator()(pw_thread_loop* l) const
        {
            pw_thread_loop_stop(l);
            pw_thread_loop_destroy(l);
        }
    };
    struct ContextDeleter {
        void operator()(pw_context* c) const { pw_context_destroy(c); }
    };
    // Owners first: members are destroyed in reverse order, the context before
    // the loop it runs on.
    std::unique_ptr<pw_thread_loop, LoopDeleter> loopOwner;
    std::unique_ptr<pw_context, ContextDeleter> contextOwner;
    pw_thread_loop* loop = nullptr; // views of the two owners
    pw_context* context = nullptr;
    pw_core* core = nullptr; // connect() and disconnect() own it
    pw_registry* registry = nullptr;
    spa_hook coreListener {};
    spa_hook registryListener {};
    int connectErrno = 0;
    bool disconnected = false;
    bool refused = false;
    int lastDoneSeq = 0;
    int64_t coreGeneration = 0;

    std::map<uint32_t, std::unique_ptr<Node>> nodes;
    std::map<uint32_t, std::unique_ptr<Client>> clients;
    std::unique_ptr<Metadata> defaultMetadata;
    std::unique_ptr<Metadata> settingsMetadata;

    std::map<AudioObjectID, Tap> taps;
    std::map<AudioObjectID, std::unique_ptr<Duplex>> aggregates;
    AudioObjectID nextTap = tapBase + 1;
    AudioObjectID nextAggregate = aggregateBase + 1;
    AudioDeviceIOProcID nextProcID = 1;
    uint64_t nextToken = 1;
    std::vector<Listener> listeners;
    bool journalWarned = false;
    std::map<std::string, uint32_t> negotiatedRates; // by device UID

    // The loop lock for the scope of one public operation.
    struct Lock {
        explicit Lock(pw_thread_loop* loop)
            : loop(loop)
        {
            pw_thread_loop_lock(loop);
        }
        ~Lock() { pw_thread_loop_unlock(loop); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        pw_thread_loop* loop;
    };

    explicit Data(Options opts)
        : options(std::move(opts))
        , journal(options.journalPath.empty() ? RoutingJournal::defaultPath() : options.journalPath)
    {
        std::call_once(pipewireInit, [] { pw_init(nullptr, nullptr); });
        loopOwner.reset(pw_thread_loop_new("sorva-pipewire", nullptr));
        loop = loopOwner.get();
        // client-rt.conf gives the data thread real-time priority where the
        // system allows it.
        contextOwner.reset(pw_context_new(pw_thread_loop_get_loop(loop),
                                          pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0));
        context = contextOwner.get();
        pw_thread_loop_start(loop);
        Lock lock(loop);
        connect();
    }

    ~Data()
    {
        {
            Lock lock(loop);
            for (auto& [id, duplex] : aggregates) {
                stopDuplex(*duplex);
                destroyStreams(*duplex);
            }
            aggregates.clear();
            listeners.clear();
        }
        // No event may arrive while the mirror is torn down.
        pw_thread_loop_stop(loop);
        disconnect();
    }

    // --- Connection (loop lock held) ------------------------------------

    void connect()
    {
        pw_properties* props = pw_properties_new(PW_KEY_APP_NAME, "SORVA", PW_KEY_APP_ID, "com.sorva.app", nullptr);
        core = pw_context_connect(context, props, 0);
        if (!core) {
            int error = errno;
            if (error != connectErrno)
                EQLog::trace("PipeWire daemon not reachable: " + std::string(std::strerror(error)));
            connectErrno = error;
            return;
        }
        connectErrno = 0;
        disconnected = false;
        refused = false;
        ++coreGeneration;
        static const pw_core_events coreEvents = [] {
            pw_core_events events {};
            events.version = PW_VERSION_CORE_EVENTS;
            events.done = [](void* d, uint32_t id, int seq) {
                auto* self = static_cast<Data*>(d);
                if (id == PW_ID_CORE) {
                    self->lastDoneSeq = seq;
                    pw_thread_loop_signal(self->loop, false);
                }
            };
            events.error = [](void* d, uint32_t id, int, int res, const char* message) {
                static_cast<Data*>(d)->onCoreError(id, res, message ? message : "");
            };
            return events;
        }();
        pw_core_add_listener(core, &coreListener, &coreEvents, this);
        registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
        static const pw_registry_events registryEvents = [] {
            pw_registry_events events {};
            events.version = PW_VERSION_REGISTRY_EVENTS;
            events.global = [](void* d, uint32_t id, uint32_t permissions, const char* type, uint32_t,
                               const spa_dict* props) { static_cast<Data*>(d)->onGlobal(id, permissions, type, props); };
            events.global_remove = [](void* d, uint32_t id) { static_cast<Data*>(d)->onGlobalRemove(id); };
            return events;
        }();
        pw_registry_add_listener(registry, &registryListener, &registryEvents, this);
        // Two round trips: the globals, then the infos of what we bound.
        sync();
        sync();
    }

    void disconnect()
    {
        nodes.clear();
        clients.clear();
        defaultMetadata.reset();
        settingsMetadata.reset();
        if (registry) {
            spa_hook_remove(&registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
            registry = nullptr;
        }
        if (core) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
            core = nullptr;
        }
        registryListener = {};
        coreListener = {};
    }

    // Connects if there is no usable connection (the daemon may have been
    // started or restarted since). Status of the connection.
    OSStatus ensureConnected()
    {
        if (core && disconnected && aggregates.empty()) {
            disconnect();
        }
        if (!core)
            connect();
        if (!core || disconnected)
            return kAudioHardwareNotRunningError;
        // A rejected client sees no object at all.
        if (refused && nodes.empty())
            return kAudioHardwarePermissionDenied;
        return kAudioHardwareNoError;
    }

    // A round trip to the daemon: every event sent before it has arrived.
    bool sync()
    {
        if (!core || disconnected)
            return false;
        int seq = pw_core_sync(core, PW_ID_CORE, 0);
        timespec deadline {};
        pw_thread_loop_get_time(loop, &deadline, int64_t(options.setupTimeoutMilliseconds) * SPA_NSEC_PER_MSEC);
        // A refused client gets no answer: do not wait for one.
        while (lastDoneSeq - seq < 0 && !disconnected && !refused) {
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0)
                return false;
        }
        return !disconnected;
    }

    void onCoreError(uint32_t id, int res, const std::string& message)
    {
        if (res == -EACCES || res == -EPERM) {
            if (!refused)
                EQLog::trace("PipeWire refused access: " + message);
            refused = true;
        }
        if (id == PW_ID_CORE && res == -EPIPE) {
            EQLog::trace("PipeWire connection lost");
            disconnected = true;
        }
        pw_thread_loop_signal(loop, false);
    }

    // --- Registry mirror (loop thread) ------------------------------------

    void onGlobal(uint32_t id, uint32_t permissions, const char* type, const spa_dict* props)
    {
        if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
            auto node = std::make_unique<Node>();
            node->owner = this;
            node->id = id;
            node->props = toMap(props);
            node->serial = static_cast<uint64_t>(parseInteger(lookup(node->props, PW_KEY_OBJECT_SERIAL)).value_or(0));
            node->bound.proxy = static_cast<pw_proxy*>(pw_registry_bind(registry, id, type, PW_VERSION_NODE, 0));
            if (node->bound.proxy) {
                static const pw_node_events events = [] {
                    pw_node_events e {};
                    e.version = PW_VERSION_NODE_EVENTS;
                    e.info = [](void* d, const pw_node_info* info) {
                        auto* node = static_cast<Node*>(d);
                        node->owner->onNodeInfo(*node, info);
                    };
                    return e;
                }();
                pw_node_add_listener(reinterpret_cast<pw_node*>(node->bound.proxy), &node->bound.listener, &events,
                                     node.get());
            }
            nodes[id] = std::move(node);
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
            auto client = std::make_unique<Client>();
            client->owner = this;
            client->id = id;
            client->props = toMap(props);
            client->bound.proxy = static_cast<pw_proxy*>(pw_registry_bind(registry, id, type, PW_VERSION_CLIENT, 0));
            if (client->bound.proxy) {
                static const pw_client_events events = [] {
                    pw_client_events e {};
                    e.version = PW_VERSION_CLIENT_EVENTS;
                    e.info = [](void* d, const pw_client_info* info) {
                        auto* client = static_cast<Client*>(d);
                        if (info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS)
                            client->props = toMap(info->props);
                        client->owner->graphChanged();
                    };
                    return e;
                }();
                pw_client_add_listener(reinterpret_cast<pw_client*>(client->bound.proxy), &client->bound.listener,
                                       &events, client.get());
            }
            clients[id] = std::move(client);
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
            const char* name = props ? spa_dict_lookup(props, PW_KEY_METADATA_NAME) : nullptr;
            if (!name)
                return;
            std::unique_ptr<Metadata>* slot = nullptr;
            if (std::strcmp(name, "default") == 0)
                slot = &defaultMetadata;
            else if (std::strcmp(name, "settings") == 0)
                slot = &settingsMetadata;
            if (!slot)
                return;
            auto metadata = std::make_unique<Metadata>();
            metadata->owner = this;
            metadata->id = id;
            metadata->permissions = permissions;
            metadata->bound.proxy = static_cast<pw_proxy*>(pw_registry_bind(registry, id, type, PW_VERSION_METADATA, 0));
            if (metadata->bound.proxy) {
                static const pw_metadata_events events = [] {
                    pw_metadata_events e {};
                    e.version = PW_VERSION_METADATA_EVENTS;
                    e.property = [](void* d, uint32_t subject, const char* key, const char* type, const char* value) {
                        auto* metadata = static_cast<Metadata*>(d);
                        metadata->owner->onMetadataProperty(*metadata, subject, key, type, value);
                        return 0;
                    };
                    return e;
                }();
                pw_metadata_add_listener(reinterpret_cast<pw_metadata*>(metadata->bound.proxy),
                                         &metadata->bound.listener, &events, metadata.get());
            }
            *slot = std::move(metadata);
        }
    }

    void onGlobalRemove(uint32_t id)
    {
        nodes.erase(id);
        clients.erase(id);
        if (defaultMetadata && defaultMetadata->id == id)
            defaultMetadata.reset();
        if (settingsMetadata && settingsMetadata->id == id)
            settingsMetadata.reset();
        graphChanged();
    }

    void onNodeInfo(Node& node, const pw_node_info* info)
    {
        if (info->change_mask & PW_NODE_CHANGE_MASK_PROPS) {
            auto props = toMap(info->props);
            if (!props.empty())
                node.props = std::move(props);
        }
        node.state = info->state;
        node.haveInfo = true;
        graphChanged();
    }

    void onMetadataProperty(Metadata& metadata, uint32_t subject, const char* key, const char* type,
                            const char* value)
    {
        if (!key) {
            for (auto it = metadata.values.begin(); it != metadata.values.end();) {
                if (subject == PW_ID_ANY || it->first.first == subject)
                    it = metadata.values.erase(it);
                else
                    ++it;
            }
        } else if (!value) {
            metadata.values.erase({ subject, key });
        } else {
            metadata.values[{ subject, key }] = RoutingJournal::Value { type ? type : "", value };
        }
        graphChanged();
    }

    // Something in the mirror changed: route what appeared, tell listeners.
    void graphChanged()
    {
        for (auto& [id, duplex] : aggregates) {
            if (duplex->routing)
                routePass(*duplex);
        }
        notifyListeners();
    }

    // --- Queries (loop lock held) -----------------------------------------

    const Node* node(uint32_t id) const
    {
        auto found = nodes.find(id);
        return found == nodes.end() ? nullptr : found->second.get();
    }

    const Node* nodeBySerial(uint64_t serial) const
    {
        for (auto& [id, n] : nodes) {
            if (n->serial == serial)
                return n.get();
        }
        return nullptr;
    }

    int32_t pidOf(const Node& n) const
    {
        if (auto pid = parseInteger(lookup(n.props, PW_KEY_APP_PROCESS_ID)); pid && *pid > 0)
            return static_cast<int32_t>(*pid);
        if (auto clientID = parseInteger(lookup(n.props, PW_KEY_CLIENT_ID))) {
            auto found = clients.find(static_cast<uint32_t>(*clientID));
            if (found != clients.end()) {
                if (auto pid = parseInteger(lookup(found->second->props, PW_KEY_SEC_PID)); pid && *pid > 0)
                    return static_cast<int32_t>(*pid);
            }
        }
        return -1;
    }

    bool isOurStreamNode(uint32_t id) const
    {
        for (auto& [aid, duplex] : aggregates) {
            if (duplex->tapNodeID() == id || duplex->outputNodeID() == id)
                return true;
        }
        return false;
    }

    bool isOurs(const Node& n) const { return isOurStreamNode(n.id) || pidOf(n) == ownPID; }

    bool isOutputDevice(const Node& n) const
    {
        return lookup(n.props, PW_KEY_MEDIA_CLASS) == "Audio/Sink" && !isOurs(n)
            && lookup(n.props, PW_KEY_NODE_NAME) != tapNodeName;
    }

    std::optional<double> setting(const char* key) const
    {
        if (!settingsMetadata)
            return std::nullopt;
        auto value = settingsMetadata->value(0, key);
        if (!value)
            return std::nullopt;
        auto parsed = parseInteger(value->value);
        if (!parsed || *parsed <= 0)
            return std::nullopt;
        return static_cast<double>(*parsed);
    }

    double graphRate() const { return setting("clock.force-rate").value_or(setting("clock.rate").value_or(48000.0)); }

    AudioObjectID defaultDevice() const
    {
        if (!defaultMetadata)
            return 0;
        auto value = defaultMetadata->value(0, "default.audio.sink");
        if (!value)
            return 0;
        std::string name = jsonName(value->value);
        for (auto& [id, n] : nodes) {
            if (isOutputDevice(*n) && lookup(n->props, PW_KEY_NODE_NAME) == name)
                return id;
        }
        return 0;
    }

    const Node* deviceNode(AudioObjectID device) const
    {
        const Node* n = device < processObjectBase ? node(device) : nullptr;
        return n && isOutputDevice(*n) ? n : nullptr;
    }

    const Node* deviceNodeByUID(const std::string& uid) const
    {
        for (auto& [id, n] : nodes) {
            if (isOutputDevice(*n) && lookup(n->props, PW_KEY_NODE_NAME) == uid)
                return n.get();
        }
        return nullptr;
    }

    // The rate a device runs at: a forced graph rate, else the rate our
    // streams last negotiated on it, else the device's own configured rate,
    // else the graph's default rate.
    std::optional<double> deviceRate(AudioObjectID device) const
    {
        if (auto found = aggregates.find(device); found != aggregates.end()) {
            if (uint32_t rate = found->second->negotiatedRate.load())
                return static_cast<double>(rate);
            if (found->second->outputUID) {
                if (const Node* n = deviceNodeByUID(*found->second->outputUID))
                    return deviceRate(n->id);
            }
            return graphRate();
        }
        const Node* n = deviceNode(device);
        if (!n)
            return std::nullopt;
        if (auto forced = setting("clock.force-rate"))
            return *forced;
        // The rate our streams last ran at on this device is the graph's
        // real rate there (it may have switched from its default to suit the
        // programs playing).
        if (auto found = negotiatedRates.find(lookup(n->props, PW_KEY_NODE_NAME)); found != negotiatedRates.end())
            return static_cast<double>(found->second);
        if (auto rate = parseInteger(lookup(n->props, PW_KEY_AUDIO_RATE)); rate && *rate > 0)
            return static_cast<double>(*rate);
        return setting("clock.rate").value_or(48000.0);
    }

    // --- Listeners --------------------------------------------------------

    double listenedValue(const Listener& listener) const
    {
        if (listener.selector == kAudioHardwarePropertyDefaultOutputDevice)
            return static_cast<double>(defaultDevice());
        return deviceRate(listener.object).value_or(-1.0);
    }

    void notifyListeners()
    {
        for (auto& listener : listeners) {
            double value = listenedValue(listener);
            if (value == listener.last)
                continue;
            listener.last = value;
            listener.queue->async([handler = listener.handler] { (*handler)(); });
        }
    }

    // --- Routing (loop lock held) -------------------------------------------

    std::set<uint64_t> ourSerials() const
    {
        std::set<uint64_t> serials;
        for (auto& [id, duplex] : aggregates) {
            for (uint32_t nodeID : { duplex->tapNodeID(), duplex->outputNodeID() }) {
                if (const Node* n = node(nodeID))
                    serials.insert(n->serial);
            }
        }
        return serials;
    }

    // A previous target that points at SORVA itself is no target.
    // "target.object" holds a serial or a name, "target.node" a node id.
    std::optional<RoutingJournal::Value> notPointingAtUs(std::optional<RoutingJournal::Value> value,
                                                         const std::string& key) const
    {
        if (!value)
            return value;
        if (auto number = parseInteger(value->value)) {
            bool ours = key == "target.node" ? isOurStreamNode(static_cast<uint32_t>(*number))
                                             : ourSerials().count(static_cast<uint64_t>(*number)) > 0;
            if (ours)
                return std::nullopt;
        }
        if (value->value == tapNodeName || value->value == outputNodeName)
            return std::nullopt;
        return value;
    }

    void setMetadata(uint32_t subject, const char* key, const std::optional<RoutingJournal::Value>& value)
    {
        if (!defaultMetadata || !defaultMetadata->bound.proxy)
            return;
        auto* proxy = reinterpret_cast<pw_metadata*>(defaultMetadata->bound.proxy);
        if (value)
            pw_metadata_set_property(proxy, subject, key, value->type.empty() ? nullptr : value->type.c_str(),
                                     value->value.c_str());
        else
            pw_metadata_set_property(proxy, subject, key, nullptr, nullptr);
    }

    bool selected(const Tap& tap, int32_t pid) const
    {
        std::set<int32_t> pids;
        for (AudioObjectID process : tap.description.processes) {
            if (process > processObjectBase && process <= processObjectLast)
                pids.insert(static_cast<int32_t>(process - processObjectBase));
        }
        if (tap.description.processSelection == TapDescription::ProcessSelection::stereoMixdownOfProcesses)
            return pids.count(pid) > 0;
        return pids.count(pid) == 0;
    }

    void routePass(Duplex& duplex)
    {
        auto tapIt = taps.find(duplex.tapID);
        const Node* tapNode = node(duplex.tapNodeID());
        if (tapIt == taps.end() || !tapNode || tapNode->serial == 0)
            return;
        for (auto& [id, n] : nodes) {
            if (!n->haveInfo || n->serial == 0 || duplex.considered.count(n->serial))
                continue;
            if (lookup(n->props, PW_KEY_MEDIA_CLASS) != "Stream/Output/Audio")
                continue;
            if (isOurStreamNode(n->id))
                continue;
            int32_t pid = pidOf(*n);
            if (pid < 0)
                continue; // its client's info has not arrived yet: decide later
            // Other filters, streams that must stay where they are, ourselves.
            if (pid == ownPID || !lookup(n->props, PW_KEY_NODE_LINK_GROUP).empty()
                || lookup(n->props, PW_KEY_NODE_DONT_RECONNECT) == "true" || !selected(tapIt->second, pid)) {
                duplex.considered.insert(n->serial);
                // The session manager may remember the tap as a program's
                // target and send a new stream of it here; only we decide.
                if (pid != ownPID)
                    releaseIfPointingAtUs(*n);
                continue;
            }
            route(duplex, *n, tapNode->serial);
        }
    }

    void releaseIfPointingAtUs(const Node& stream)
    {
        if (!defaultMetadata)
            return;
        for (const char* key : { "target.object", "target.node" }) {
            auto value = defaultMetadata->value(stream.id, key);
            if (value && !notPointingAtUs(value, key))
                setMetadata(stream.id, key, std::nullopt);
        }
    }

    void route(Duplex& duplex, const Node& stream, uint64_t tapSerial)
    {
        duplex.considered.insert(stream.serial);
        RoutedStream routed;
        routed.nodeID = stream.id;
        if (defaultMetadata) {
            routed.previousObject = notPointingAtUs(defaultMetadata->value(stream.id, "target.object"), "target.object");
            routed.previousNode = notPointingAtUs(defaultMetadata->value(stream.id, "target.node"), "target.node");
        }
        std::string error;
        if (!journal.append({ stream.serial, tapSerial, routed.previousObject, routed.previousNode }, error)
            && !journalWarned) {
            journalWarned = true;
            EQLog::trace("routing journal not written: " + error);
        }
        setMetadata(stream.id, "target.object", RoutingJournal::Value { "Spa:Id", std::to_string(tapSerial) });
        if (defaultMetadata && defaultMetadata->value(stream.id, "target.node"))
            setMetadata(stream.id, "target.node", std::nullopt);
        duplex.routed[stream.serial] = routed;
        EQLog::trace([serial = stream.serial, name = lookup(stream.props, PW_KEY_APP_NAME)] {
            return "routed stream " + std::to_string(serial) + " (" + (name.empty() ? "?" : name) + ") to the tap";
        });
    }

    // Puts one stream back where it was, unless it was moved elsewhere since.
    void restore(uint32_t nodeID, uint64_t tapSerial, const std::optional<RoutingJournal::Value>& previousObject,
                 const std::optional<RoutingJournal::Value>& previousNode)
    {
        auto current = defaultMetadata ? defaultMetadata->value(nodeID, "target.object") : std::nullopt;
        if (current && current->value != std::to_string(tapSerial))
            return;
        setMetadata(nodeID, "target.object", previousObject);
        if (previousNode)
            setMetadata(nodeID, "target.node", previousNode);
    }

    void unroute(Duplex& duplex)
    {
        duplex.routing = false;
        const Node* tapNode = node(duplex.tapNodeID());
        uint64_t tapSerial = tapNode ? tapNode->serial : 0;
        size_t restored = 0;
        for (auto& [serial, routed] : duplex.routed) {
            const Node* stream = node(routed.nodeID);
            if (!stream || stream->serial != serial)
                continue;
            restore(routed.nodeID, tapSerial, routed.previousObject, routed.previousNode);
            ++restored;
        }
        duplex.routed.clear();
        duplex.considered.clear();
        sync();
        journal.clear();
        if (restored)
            EQLog::trace("restored the targets of " + std::to_string(restored) + " routed streams");
    }

    // Undoes what a run that ended without stopping left routed.
    void replayJournal()
    {
        auto entries = journal.entries();
        if (entries.empty())
            return;
        size_t restored = 0;
        for (auto& entry : entries) {
            const Node* stream = nodeBySerial(entry.streamSerial);
            if (!stream)
                continue;
            restore(stream->id, entry.tapSerial, notPointingAtUs(entry.previousObject, "target.object"),
                    notPointingAtUs(entry.previousNode, "target.node"));
            ++restored;
        }
        sync();
        journal.clear();
        EQLog::trace("routing journal replayed: " + std::to_string(restored) + " of " + std::to_string(entries.size())
                     + " streams left routed by an earlier run restored");
    }

    // --- Aggregates (loop lock held) ----------------------------------------

    static void invokeOnDataThread(Data& self, Duplex& duplex, AudioDeviceIOProc proc, void* context, bool running)
    {
        struct Change {
            Duplex* duplex;
            AudioDeviceIOProc proc;
            void* context;
            bool running;
        } change { &duplex, proc, context, running };
        pw_data_loop_invoke(
            pw_context_get_data_loop(self.context),
            [](spa_loop*, bool, uint32_t, const void*, size_t, void* user) -> int {
                auto* c = static_cast<Change*>(user);
                c->duplex->rtProc = c->proc;
                c->duplex->rtContext = c->context;
                c->duplex->rtRunning = c->running;
                return 0;
            },
            0, nullptr, 0, true, &change);
    }

    // Publishes (or withdraws) the streams to the process callbacks.
    void setRealtimeStreams(Duplex& duplex, bool alive)
    {
        struct Change {
            Duplex* duplex;
            bool alive;
        } change { &duplex, alive };
        pw_data_loop_invoke(
            pw_context_get_data_loop(context),
            [](spa_loop*, bool, uint32_t, const void*, size_t, void* user) -> int {
                auto* c = static_cast<Change*>(user);
                c->duplex->rtTap = c->alive ? c->duplex->tap : nullptr;
                c->duplex->rtOutput = c->alive ? c->duplex->output : nullptr;
                c->duplex->rtAlive = c->alive;
                return 0;
            },
            0, nullptr, 0, true, &change);
    }

    void destroyStreams(Duplex& duplex)
    {
        setRealtimeStreams(duplex, false);
        duplex.destroyStreams();
    }

    void stopDuplex(Duplex& duplex)
    {
        if (duplex.routing)
            unroute(duplex);
        if (duplex.started) {
            duplex.started = false;
            invokeOnDataThread(*this, duplex, duplex.rtProc, duplex.rtContext, false);
        }
    }

    static const pw_stream_events& tapEvents()
    {
        static const pw_stream_events events = [] {
            pw_stream_events e {};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void* d, pw_stream_state, pw_stream_state state, const char* error) {
                auto* duplex = static_cast<Duplex*>(d);
                duplex->tapState = state;
                if (error)
                    duplex->streamError = error;
                duplex->owner->graphChanged();
                pw_thread_loop_signal(duplex->owner->loop, false);
            };
            e.param_changed = [](void* d, uint32_t id, const spa_pod* param) {
                static_cast<Duplex*>(d)->owner->onParamChanged(*static_cast<Duplex*>(d), id, param);
            };
            e.io_changed = [](void* d, uint32_t id, void* area, uint32_t) {
                if (id == SPA_IO_Position)
                    static_cast<Duplex*>(d)->rtPosition = static_cast<spa_io_position*>(area);
            };
            e.process = [](void* d) {
                auto* duplex = static_cast<Duplex*>(d);
                if (!duplex->rtAlive)
                    return;
                if (duplex->rtOutput)
                    pw_stream_trigger_process(duplex->rtOutput);
                else
                    duplex->captureCycle();
            };
            return e;
        }();
        return events;
    }

    static const pw_stream_events& outputEvents()
    {
        static const pw_stream_events events = [] {
            pw_stream_events e {};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void* d, pw_stream_state, pw_stream_state state, const char* error) {
                auto* duplex = static_cast<Duplex*>(d);
                duplex->outputState = state;
                if (error)
                    duplex->streamError = error;
                pw_thread_loop_signal(duplex->owner->loop, false);
            };
            e.param_changed = [](void* d, uint32_t id, const spa_pod* param) {
                static_cast<Duplex*>(d)->owner->onParamChanged(*static_cast<Duplex*>(d), id, param);
            };
            e.process = [](void* d) { static_cast<Duplex*>(d)->duplexCycle(); };
            return e;
        }();
        return events;
    }

    void onParamChanged(Duplex& duplex, uint32_t id, const spa_pod* param)
    {
        if (!param)
            return;
        if (id == SPA_PARAM_Format) {
            spa_audio_info_raw info {};
            if (spa_format_audio_raw_parse(param, &info) >= 0 && info.rate > 0) {
                duplex.negotiatedRate.store(info.rate);
                if (duplex.outputUID)
                    negotiatedRates[*duplex.outputUID] = info.rate;
                notifyListeners();
            }
        } else if (id == SPA_PARAM_Latency && duplex.output) {
            // The pair is one filter to the graph: latency reported downstream
            // of the output travels upstream of the tap, and back.
            spa_latency_info latency {};
            if (spa_latency_parse(param, &latency) < 0)
                return;
            uint8_t buffer[1024];
            spa_pod_builder builder {};
            spa_pod_builder_init(&builder, buffer, sizeof buffer);
            const spa_pod* params[1] = { spa_latency_build(&builder, SPA_PARAM_Latency, &latency) };
            pw_stream_update_params(latency.direction == SPA_DIRECTION_INPUT ? duplex.tap : duplex.output, params, 1);
        }
    }

    OSStatus createStreams(Duplex& duplex)
    {
        std::string group = "sorva-" + std::to_string(ownPID) + "-" + std::to_string(duplex.id - aggregateBase);
        uint8_t buffer[1024];
        spa_pod_builder builder {};
        spa_pod_builder_init(&builder, buffer, sizeof buffer);
        spa_audio_info_raw info {};
        info.format = SPA_AUDIO_FORMAT_F32;
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
        duplex.tap = pw_stream_new(core, tapName, tapProps);
        if (!duplex.tap)
            return kAudioHardwareUnspecifiedError;
        pw_stream_add_listener(duplex.tap, &duplex.tapListener, &tapEvents(), &duplex);

        if (duplex.outputUID) {
            pw_properties* outputProps = pw_properties_new(
                PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_CLASS,
                "Stream/Output/Audio", PW_KEY_NODE_NAME, outputNodeName, PW_KEY_NODE_DESCRIPTION, outputName,
                PW_KEY_MEDIA_NAME, outputName, PW_KEY_NODE_PASSIVE, "true", PW_KEY_NODE_GROUP, group.c_str(),
                PW_KEY_NODE_LINK_GROUP, group.c_str(), PW_KEY_TARGET_OBJECT, duplex.outputUID->c_str(),
                PW_KEY_AUDIO_CHANNELS, "2", SPA_KEY_AUDIO_POSITION, "[ FL FR ]", "resample.prefill", "true", nullptr);
            duplex.output = pw_stream_new(core, outputName, outputProps);
            if (!duplex.output)
                return kAudioHardwareUnspecifiedError;
            pw_stream_add_listener(duplex.output, &duplex.outputListener, &outputEvents(), &duplex);
            setRealtimeStreams(duplex, true);
            // The output first: it is triggered by the tap, so it must exist
            // before the tap's first cycle.
            int res = pw_stream_connect(duplex.output, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT
                                                                     | PW_STREAM_FLAG_MAP_BUFFERS
                                                                     | PW_STREAM_FLAG_RT_PROCESS
                                                                     | PW_STREAM_FLAG_TRIGGER),
                                        params, 1);
            if (res < 0)
                return kAudioHardwareUnspecifiedError;
        }
        setRealtimeStreams(duplex, true);
        int res = pw_stream_connect(duplex.tap, PW_DIRECTION_INPUT, PW_ID_ANY,
                                    static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS
                                                                 | PW_STREAM_FLAG_RT_PROCESS),
                                    params, 1);
        if (res < 0)
            return kAudioHardwareUnspecifiedError;

        // Wait until the daemon has made both nodes (a refused client's
        // streams never get there).
        timespec deadline {};
        pw_thread_loop_get_time(loop, &deadline, int64_t(options.setupTimeoutMilliseconds) * SPA_NSEC_PER_MSEC);
        auto ready = [&] {
            auto up = [](pw_stream_state s) { return s == PW_STREAM_STATE_PAUSED || s == PW_STREAM_STATE_STREAMING; };
            const Node* tapNode = node(duplex.tapNodeID());
            return up(duplex.tapState) && (!duplex.output || up(duplex.outputState)) && tapNode && tapNode->serial != 0;
        };
        while (!ready()) {
            if (duplex.tapState == PW_STREAM_STATE_ERROR || duplex.outputState == PW_STREAM_STATE_ERROR || disconnected
                || refused)
                break;
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0)
                break;
        }
        if (!ready()) {
            EQLog::trace("PipeWire streams did not start"
                         + (duplex.streamError.empty() ? std::string() : ": " + duplex.streamError));
            return refused ? kAudioHardwarePermissionDenied : kAudioHardwareNotRunningError;
        }
        return kAudioHardwareNoError;
    }

    Duplex* aggregate(AudioObjectID id)
    {
        auto found = aggregates.find(id);
        return found == aggregates.end() ? nullptr : found->second.get();
    }
};

// --- Public operations -------------------------------------------------------

PipeWireAudioHardware::PipeWireAudioHardware()
    : PipeWireAudioHardware(Options {})
{
}

PipeWireAudioHardware::PipeWireAudioHardware(Options options)
    : data(std::make_unique<Data>(std::move(options)))
{
}

PipeWireAudioHardware::~PipeWireAudioHardware() = default;

bool PipeWireAudioHardware::isConnected()
{
    Data::Lock lock(data->loop);
    return data->ensureConnected() == kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::defaultOutputDevice(AudioObjectID& device)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    device = data->defaultDevice();
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::deviceName(AudioObjectID device, std::string& name)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    if (Duplex* duplex = data->aggregate(device)) {
        name = duplex->description.name;
        return kAudioHardwareNoError;
    }
    const Node* n = data->deviceNode(device);
    if (!n)
        return kAudioHardwareBadObjectError;
    std::string description = lookup(n->props, PW_KEY_NODE_DESCRIPTION);
    name = description.empty() ? lookup(n->props, PW_KEY_NODE_NAME) : description;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::deviceUID(AudioObjectID device, std::string& uid)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    if (Duplex* duplex = data->aggregate(device)) {
        uid = duplex->description.uid;
        return kAudioHardwareNoError;
    }
    const Node* n = data->deviceNode(device);
    if (!n)
        return kAudioHardwareBadObjectError;
    uid = lookup(n->props, PW_KEY_NODE_NAME);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::nominalSampleRate(AudioObjectID device, double& rate)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    auto value = data->deviceRate(device);
    if (!value)
        return kAudioHardwareBadObjectError;
    rate = *value;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::bufferFrameSize(AudioObjectID device, uint32_t& frames)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    double fallback = data->setting("clock.force-quantum").value_or(data->setting("clock.quantum").value_or(1024.0));
    if (Duplex* duplex = data->aggregate(device)) {
        uint32_t quantum = duplex->quantum.load();
        frames = quantum ? quantum : static_cast<uint32_t>(fallback);
        return kAudioHardwareNoError;
    }
    if (!data->deviceNode(device))
        return kAudioHardwareBadObjectError;
    frames = static_cast<uint32_t>(fallback);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::setBufferFrameSize(AudioObjectID device, uint32_t frames)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    Duplex* duplex = data->aggregate(device);
    if (!duplex)
        return data->deviceNode(device) ? kAudioHardwareUnsupportedOperationError : kAudioHardwareBadObjectError;
    if (frames == 0)
        return kAudio_ParamError;
    // A latency request on our own nodes: the graph then runs at that quantum
    // (or the nearest it allows) while they are linked.
    std::string latency = std::to_string(frames) + "/" + std::to_string(static_cast<uint32_t>(data->deviceRate(device).value_or(48000.0)));
    spa_dict_item items[] = { { PW_KEY_NODE_LATENCY, latency.c_str() } };
    spa_dict dict { 0, 1, items };
    for (pw_stream* stream : { duplex->tap, duplex->output }) {
        if (stream)
            pw_stream_update_properties(stream, &dict);
    }
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::translatePIDToProcessObject(int32_t pid, AudioObjectID& process)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    if (pid <= 0 || static_cast<AudioObjectID>(pid) > processObjectLast - processObjectBase)
        return kAudio_ParamError;
    bool exists = pid == data->ownPID || ::kill(pid, 0) == 0 || errno == EPERM;
    process = exists ? processObjectBase + static_cast<AudioObjectID>(pid) : 0;
    return kAudioHardwareNoError;
}

namespace {

std::vector<AudioObjectID> playingProcesses(const PipeWireAudioHardware::Data& d)
{
    std::set<AudioObjectID> objects;
    for (auto& [id, n] : d.nodes) {
        if (lookup(n->props, PW_KEY_MEDIA_CLASS) != "Stream/Output/Audio")
            continue;
        int32_t pid = d.pidOf(*n);
        if (pid > 0)
            objects.insert(processObjectBase + static_cast<AudioObjectID>(pid));
    }
    return { objects.begin(), objects.end() };
}

} // namespace

OSStatus PipeWireAudioHardware::processObjectListByteSize(uint32_t& byteSize)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    byteSize = static_cast<uint32_t>(playingProcesses(*data).size() * sizeof(AudioObjectID));
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::processObjectList(std::vector<AudioObjectID>& processes)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    auto all = playingProcesses(*data);
    size_t count = std::min(all.size(), processes.size());
    std::copy_n(all.begin(), count, processes.begin());
    processes.resize(count);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::processPID(AudioObjectID process, int32_t& pid)
{
    if (process <= processObjectBase || process > processObjectLast)
        return kAudioHardwareBadObjectError;
    pid = static_cast<int32_t>(process - processObjectBase);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::processIsRunningOutput(AudioObjectID process, uint32_t& running)
{
    if (process <= processObjectBase || process > processObjectLast)
        return kAudioHardwareBadObjectError;
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    auto pid = static_cast<int32_t>(process - processObjectBase);
    running = 0;
    for (auto& [id, n] : data->nodes) {
        if (lookup(n->props, PW_KEY_MEDIA_CLASS) == "Stream/Output/Audio" && n->state == PW_NODE_STATE_RUNNING
            && data->pidOf(*n) == pid)
            running = 1;
    }
    return kAudioHardwareNoError;
}

std::vector<RunningApplication> PipeWireAudioHardware::runningApplications()
{
    Data::Lock lock(data->loop);
    std::vector<RunningApplication> applications;
    if (data->ensureConnected())
        return applications;
    for (auto& [id, client] : data->clients) {
        auto pid = parseInteger(lookup(client->props, PW_KEY_SEC_PID));
        if (!pid || *pid <= 0)
            pid = parseInteger(lookup(client->props, PW_KEY_APP_PROCESS_ID));
        if (!pid || *pid <= 0)
            continue;
        RunningApplication application;
        application.processIdentifier = static_cast<int32_t>(*pid);
        for (const char* key : { PW_KEY_APP_ID, PW_KEY_APP_PROCESS_BINARY, PW_KEY_APP_NAME }) {
            std::string value = lookup(client->props, key);
            if (!value.empty()) {
                application.bundleIdentifier = value;
                break;
            }
        }
        applications.push_back(std::move(application));
    }
    return applications;
}

OSStatus PipeWireAudioHardware::createProcessTap(const TapDescription& description, AudioObjectID& tap)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    data->sync();
    if (data->refused)
        return kAudioHardwarePermissionDenied;
    if (!data->defaultMetadata)
        return kAudioHardwareNotRunningError; // no session manager
    // Routing writes the "default" metadata; a client that may not write it
    // (restricted by the access rules) cannot tap anything.
    if ((data->defaultMetadata->permissions & PW_PERM_W) == 0)
        return kAudioHardwarePermissionDenied;
    data->replayJournal();
    AudioObjectID id = data->nextTap++;
    data->taps[id] = Tap { description };
    tap = id;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::destroyProcessTap(AudioObjectID tap)
{
    Data::Lock lock(data->loop);
    return data->taps.erase(tap) ? kAudioHardwareNoError : kAudioHardwareBadObjectError;
}

OSStatus PipeWireAudioHardware::tapFormat(AudioObjectID tap, AudioStreamBasicDescription& format)
{
    Data::Lock lock(data->loop);
    if (!data->taps.count(tap))
        return kAudioHardwareBadObjectError;
    double rate = data->graphRate();
    for (auto& [id, duplex] : data->aggregates) {
        if (duplex->tapID == tap && duplex->negotiatedRate.load())
            rate = duplex->negotiatedRate.load();
    }
    format = {};
    format.mSampleRate = rate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    format.mBytesPerPacket = bytesPerFrame;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = bytesPerFrame;
    format.mChannelsPerFrame = 2;
    format.mBitsPerChannel = 32;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::tapDescription(AudioObjectID tap, TapDescription& description)
{
    Data::Lock lock(data->loop);
    auto found = data->taps.find(tap);
    if (found == data->taps.end())
        return kAudioHardwareBadObjectError;
    description = found->second.description;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::setTapDescription(AudioObjectID tap, const TapDescription& description)
{
    Data::Lock lock(data->loop);
    auto found = data->taps.find(tap);
    if (found == data->taps.end())
        return kAudioHardwareBadObjectError;
    found->second.description = description;
    // Re-applying decides again on every stream not routed now.
    for (auto& [id, duplex] : data->aggregates) {
        if (duplex->tapID == tap && duplex->routing) {
            for (auto it = duplex->considered.begin(); it != duplex->considered.end();)
                it = duplex->routed.count(*it) ? std::next(it) : duplex->considered.erase(it);
            data->routePass(*duplex);
        }
    }
    data->sync();
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::createAggregateDevice(const AggregateDescription& description, AudioObjectID& device)
{
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    if (description.taps.empty())
        return kAudio_ParamError;
    AudioObjectID tapID = 0;
    for (auto& [id, tap] : data->taps) {
        if (equalsIgnoringCase(tap.description.uuid, description.taps.front().uid))
            tapID = id;
    }
    if (!tapID)
        return kAudioHardwareBadObjectError;
    std::optional<std::string> outputUID = description.mainSubDevice;
    if (!outputUID && !description.subDevices.empty())
        outputUID = description.subDevices.front().uid;
    if (outputUID && !data->deviceNodeByUID(*outputUID))
        return kAudioHardwareBadDeviceError;

    auto duplex = std::make_unique<Duplex>();
    duplex->owner = data.get();
    duplex->id = data->nextAggregate++;
    duplex->tapID = tapID;
    duplex->description = description;
    duplex->outputUID = outputUID;
    Duplex& created = *duplex;
    data->aggregates[created.id] = std::move(duplex);
    if (OSStatus status = data->createStreams(created)) {
        data->destroyStreams(created);
        data->aggregates.erase(created.id);
        return status;
    }
    device = created.id;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::destroyAggregateDevice(AudioObjectID device)
{
    Data::Lock lock(data->loop);
    Duplex* duplex = data->aggregate(device);
    if (!duplex)
        return kAudioHardwareBadObjectError;
    data->stopDuplex(*duplex);
    data->destroyStreams(*duplex);
    data->aggregates.erase(device);
    data->sync();
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* context,
                                               AudioDeviceIOProcID& procID)
{
    Data::Lock lock(data->loop);
    Duplex* duplex = data->aggregate(device);
    if (!duplex)
        return kAudioHardwareBadDeviceError;
    if (!proc)
        return kAudio_ParamError;
    if (duplex->procID)
        return kAudioHardwareUnsupportedOperationError; // one procedure per aggregate
    Data::invokeOnDataThread(*data, *duplex, proc, context, false);
    duplex->procID = data->nextProcID++;
    procID = duplex->procID;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID)
{
    Data::Lock lock(data->loop);
    Duplex* duplex = data->aggregate(device);
    if (!duplex)
        return kAudioHardwareBadDeviceError;
    if (!procID || procID != duplex->procID)
        return kAudio_ParamError;
    if (data->disconnected)
        return kAudioHardwareNotRunningError;
    if (!duplex->started) {
        duplex->started = true;
        Data::invokeOnDataThread(*data, *duplex, duplex->rtProc, duplex->rtContext, true);
    }
    if (!duplex->routing) {
        duplex->routing = true;
        data->routePass(*duplex);
        data->sync();
        if (data->refused) {
            data->stopDuplex(*duplex);
            return kAudioHardwarePermissionDenied;
        }
    }
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::stopDevice(AudioObjectID device, AudioDeviceIOProcID procID)
{
    Data::Lock lock(data->loop);
    Duplex* duplex = data->aggregate(device);
    if (!duplex)
        return kAudioHardwareBadDeviceError;
    if (!procID || procID != duplex->procID)
        return kAudio_ParamError;
    data->stopDuplex(*duplex);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID)
{
    Data::Lock lock(data->loop);
    Duplex* duplex = data->aggregate(device);
    if (!duplex)
        return kAudioHardwareBadDeviceError;
    if (!procID || procID != duplex->procID)
        return kAudio_ParamError;
    data->stopDuplex(*duplex);
    Data::invokeOnDataThread(*data, *duplex, nullptr, nullptr, false);
    duplex->procID = 0;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    AudioObjectPropertyListener handler,
                                                    AudioPropertyListenerRegistration& registration)
{
    if (!queue || !handler)
        return kAudio_ParamError;
    Data::Lock lock(data->loop);
    if (OSStatus status = data->ensureConnected())
        return status;
    bool supported = (address.mSelector == kAudioHardwarePropertyDefaultOutputDevice && object == kAudioObjectSystemObject)
        || (address.mSelector == kAudioDevicePropertyNominalSampleRate && data->deviceRate(object));
    if (!supported)
        return kAudioHardwareUnknownPropertyError;
    Listener listener;
    listener.token = data->nextToken++;
    listener.object = object;
    listener.selector = address.mSelector;
    listener.queue = queue;
    listener.handler = std::make_shared<const AudioObjectPropertyListener>(std::move(handler));
    listener.last = data->listenedValue(listener);
    registration = AudioPropertyListenerRegistration { object, address, queue, listener.handler, listener.token };
    data->listeners.push_back(std::move(listener));
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::removePropertyListener(const AudioPropertyListenerRegistration& registration)
{
    Data::Lock lock(data->loop);
    auto& listeners = data->listeners;
    auto found = std::find_if(listeners.begin(), listeners.end(),
                              [&](const Listener& l) { return l.token == registration.token && registration.token; });
    if (found == listeners.end())
        return kAudioHardwareBadObjectError;
    listeners.erase(found);
    return kAudioHardwareNoError;
}

} // namespace sorva
