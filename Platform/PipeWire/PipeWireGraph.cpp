// Locking: every field is touched only with the thread loop's lock held
// (PipeWire's own events run on the loop thread, which holds it).
#include "Platform/PipeWire/PipeWireGraph.h"

#include "Audio/EQLog.h"

#include <pipewire/extensions/metadata.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace sorva {

namespace {

std::once_flag pipewireInit;

PipeWireGraph::Properties toMap(const spa_dict* dict)
{
    PipeWireGraph::Properties out;
    if (!dict)
        return out;
    for (uint32_t i = 0; i < dict->n_items; ++i) {
        if (dict->items[i].key && dict->items[i].value)
            out[dict->items[i].key] = dict->items[i].value;
    }
    return out;
}

std::string lookup(const PipeWireGraph::Properties& props, const char* key)
{
    auto found = props.find(key);
    return found == props.end() ? std::string() : found->second;
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

// Binds a registry global and hooks its events to object.
template <typename Object, typename Events>
void bind(pw_registry* registry, uint32_t id, const char* type, uint32_t version, Object& object,
          const Events& events)
{
    object.bound.proxy = static_cast<pw_proxy*>(pw_registry_bind(registry, id, type, version, 0));
    if (object.bound.proxy)
        pw_proxy_add_object_listener(object.bound.proxy, &object.bound.listener, &events, &object);
}

} // namespace

std::string PipeWireGraph::Node::property(const char* key) const
{
    return lookup(props, key);
}

std::string PipeWireGraph::Client::property(const char* key) const
{
    return lookup(props, key);
}

std::optional<RoutingJournal::Value> PipeWireGraph::Metadata::value(uint32_t subject, const std::string& key) const
{
    auto found = values.find({ subject, key });
    if (found == values.end())
        return std::nullopt;
    return found->second;
}

std::optional<long long> PipeWireGraph::parseInteger(const std::string& text)
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

void PipeWireGraph::stopAndDestroy(pw_thread_loop* loop)
{
    pw_thread_loop_stop(loop);
    pw_thread_loop_destroy(loop);
}

PipeWireGraph::PipeWireGraph(int setupTimeoutMilliseconds, std::function<void()> changed)
    : setupTimeoutMilliseconds(setupTimeoutMilliseconds)
    , changed(std::move(changed))
    , ownProcess(::getpid())
{
    std::call_once(pipewireInit, [] { pw_init(nullptr, nullptr); });
    loopOwner.reset(pw_thread_loop_new("sorva-pipewire", nullptr));
    // client-rt.conf gives the data thread real-time priority where the
    // system allows it.
    contextOwner.reset(pw_context_new(pw_thread_loop_get_loop(loop()),
                                      pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0));
    pw_thread_loop_start(loop());
}

PipeWireGraph::~PipeWireGraph()
{
    // No event may arrive while the mirror is torn down.
    pw_thread_loop_stop(loop());
    disconnect();
}

// --- Connection ----------------------------------------------------------------

void PipeWireGraph::connect()
{
    pw_properties* props = pw_properties_new(PW_KEY_APP_NAME, "SORVA", PW_KEY_APP_ID, "com.sorva.app", nullptr);
    coreProxy = pw_context_connect(context(), props, 0);
    if (!coreProxy) {
        int error = errno;
        if (error != connectErrno)
            EQLog::trace("PipeWire daemon not reachable: " + std::string(std::strerror(error)));
        connectErrno = error;
        return;
    }
    connectErrno = 0;
    lost = false;
    refusedAccess = false;
    static const pw_core_events coreEvents = [] {
        pw_core_events events {};
        events.version = PW_VERSION_CORE_EVENTS;
        events.done = [](void* d, uint32_t id, int seq) {
            auto* self = static_cast<PipeWireGraph*>(d);
            if (id == PW_ID_CORE) {
                self->lastDoneSeq = seq;
                pw_thread_loop_signal(self->loop(), false);
            }
        };
        events.error = [](void* d, uint32_t id, int, int res, const char* message) {
            static_cast<PipeWireGraph*>(d)->onCoreError(id, res, message ? message : "");
        };
        return events;
    }();
    pw_core_add_listener(coreProxy, &coreListener, &coreEvents, this);
    registry = pw_core_get_registry(coreProxy, PW_VERSION_REGISTRY, 0);
    static const pw_registry_events registryEvents = [] {
        pw_registry_events events {};
        events.version = PW_VERSION_REGISTRY_EVENTS;
        events.global = [](void* d, uint32_t id, uint32_t permissions, const char* type, uint32_t,
                           const spa_dict* props) {
            static_cast<PipeWireGraph*>(d)->onGlobal(id, permissions, type, props);
        };
        events.global_remove = [](void* d, uint32_t id) { static_cast<PipeWireGraph*>(d)->onGlobalRemove(id); };
        return events;
    }();
    pw_registry_add_listener(registry, &registryListener, &registryEvents, this);
    // Two round trips: the globals, then the infos of what we bound.
    sync();
    sync();
}

void PipeWireGraph::disconnect()
{
    nodeMirror.clear();
    clientMirror.clear();
    portMirror.clear();
    linkMirror.clear();
    defaultMeta.reset();
    settingsMeta.reset();
    if (registry) {
        spa_hook_remove(&registryListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
        registry = nullptr;
    }
    if (coreProxy) {
        spa_hook_remove(&coreListener);
        pw_core_disconnect(coreProxy);
        coreProxy = nullptr;
    }
    registryListener = {};
    coreListener = {};
}

OSStatus PipeWireGraph::ensureConnected(bool streamsAlive)
{
    if (coreProxy && lost && !streamsAlive)
        disconnect();
    if (!coreProxy)
        connect();
    if (!coreProxy || lost)
        return kAudioHardwareNotRunningError;
    // A rejected client sees no object at all.
    if (refusedAccess && nodeMirror.empty())
        return kAudioHardwarePermissionDenied;
    return kAudioHardwareNoError;
}

timespec PipeWireGraph::setupDeadline() const
{
    timespec deadline {};
    pw_thread_loop_get_time(loop(), &deadline, int64_t(setupTimeoutMilliseconds) * SPA_NSEC_PER_MSEC);
    return deadline;
}

bool PipeWireGraph::sync()
{
    if (!coreProxy || lost)
        return false;
    int seq = pw_core_sync(coreProxy, PW_ID_CORE, 0);
    timespec deadline = setupDeadline();
    // A refused client gets no answer: do not wait for one.
    while (lastDoneSeq - seq < 0 && !lost && !refusedAccess) {
        if (pw_thread_loop_timed_wait_full(loop(), &deadline) != 0)
            return false;
    }
    return !lost;
}

void PipeWireGraph::onCoreError(uint32_t id, int res, const std::string& message)
{
    if (res == -EACCES || res == -EPERM) {
        if (!refusedAccess)
            EQLog::trace("PipeWire refused access: " + message);
        refusedAccess = true;
    }
    if (id == PW_ID_CORE && res == -EPIPE) {
        EQLog::trace("PipeWire connection lost");
        lost = true;
    }
    pw_thread_loop_signal(loop(), false);
}

// --- Registry mirror (loop thread) -----------------------------------------------

void PipeWireGraph::onGlobal(uint32_t id, uint32_t permissions, const char* type, const spa_dict* props)
{
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
        auto node = std::make_unique<Node>();
        node->owner = this;
        node->id = id;
        node->props = toMap(props);
        node->serial = static_cast<uint64_t>(parseInteger(node->property(PW_KEY_OBJECT_SERIAL)).value_or(0));
        static const pw_node_events events = [] {
            pw_node_events e {};
            e.version = PW_VERSION_NODE_EVENTS;
            e.info = [](void* d, const pw_node_info* info) {
                auto* node = static_cast<Node*>(d);
                node->owner->onNodeInfo(*node, info);
            };
            return e;
        }();
        bind(registry, id, type, PW_VERSION_NODE, *node, events);
        nodeMirror[id] = std::move(node);
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
        auto client = std::make_unique<Client>();
        client->owner = this;
        client->id = id;
        client->props = toMap(props);
        static const pw_client_events events = [] {
            pw_client_events e {};
            e.version = PW_VERSION_CLIENT_EVENTS;
            e.info = [](void* d, const pw_client_info* info) {
                auto* client = static_cast<Client*>(d);
                if (info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS)
                    client->props = toMap(info->props);
                client->owner->changed();
            };
            return e;
        }();
        bind(registry, id, type, PW_VERSION_CLIENT, *client, events);
        clientMirror[id] = std::move(client);
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Port) == 0) {
        Properties p = toMap(props);
        auto value = [&](const char* key) {
            auto found = p.find(key);
            return found == p.end() ? std::string() : found->second;
        };
        auto node = parseInteger(value(PW_KEY_NODE_ID));
        if (!node)
            return;
        Port port;
        port.id = id;
        port.node = static_cast<uint32_t>(*node);
        port.input = value(PW_KEY_PORT_DIRECTION) == "in";
        port.monitor = value(PW_KEY_PORT_MONITOR) == "true";
        port.channel = value(PW_KEY_AUDIO_CHANNEL);
        portMirror[id] = std::move(port);
        changed();
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
        Properties p = toMap(props);
        auto number = [&](const char* key) {
            auto found = p.find(key);
            return found == p.end() ? std::nullopt : parseInteger(found->second);
        };
        auto outputNode = number(PW_KEY_LINK_OUTPUT_NODE), outputPort = number(PW_KEY_LINK_OUTPUT_PORT);
        auto inputNode = number(PW_KEY_LINK_INPUT_NODE), inputPort = number(PW_KEY_LINK_INPUT_PORT);
        if (!outputNode || !outputPort || !inputNode || !inputPort)
            return;
        linkMirror[id] = Link { id, static_cast<uint32_t>(*outputNode), static_cast<uint32_t>(*outputPort),
                                static_cast<uint32_t>(*inputNode), static_cast<uint32_t>(*inputPort) };
        changed();
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
        const char* name = props ? spa_dict_lookup(props, PW_KEY_METADATA_NAME) : nullptr;
        if (!name)
            return;
        std::unique_ptr<Metadata>* slot = nullptr;
        if (std::strcmp(name, "default") == 0)
            slot = &defaultMeta;
        else if (std::strcmp(name, "settings") == 0)
            slot = &settingsMeta;
        if (!slot)
            return;
        auto metadata = std::make_unique<Metadata>();
        metadata->owner = this;
        metadata->id = id;
        metadata->permissions = permissions;
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
        bind(registry, id, type, PW_VERSION_METADATA, *metadata, events);
        *slot = std::move(metadata);
    }
}

void PipeWireGraph::onGlobalRemove(uint32_t id)
{
    nodeMirror.erase(id);
    clientMirror.erase(id);
    portMirror.erase(id);
    linkMirror.erase(id);
    if (defaultMeta && defaultMeta->id == id)
        defaultMeta.reset();
    if (settingsMeta && settingsMeta->id == id)
        settingsMeta.reset();
    changed();
}

void PipeWireGraph::onNodeInfo(Node& node, const pw_node_info* info)
{
    if (info->change_mask & PW_NODE_CHANGE_MASK_PROPS) {
        auto props = toMap(info->props);
        if (!props.empty())
            node.props = std::move(props);
    }
    node.state = info->state;
    node.haveInfo = true;
    changed();
}

void PipeWireGraph::onMetadataProperty(Metadata& metadata, uint32_t subject, const char* key, const char* type,
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
    changed();
}

// --- Queries ------------------------------------------------------------------------

const PipeWireGraph::Node* PipeWireGraph::node(uint32_t id) const
{
    auto found = nodeMirror.find(id);
    return found == nodeMirror.end() ? nullptr : found->second.get();
}

const PipeWireGraph::Port* PipeWireGraph::port(uint32_t id) const
{
    auto found = portMirror.find(id);
    return found == portMirror.end() ? nullptr : &found->second;
}

const PipeWireGraph::Node* PipeWireGraph::nodeBySerial(uint64_t serial) const
{
    for (auto& [id, n] : nodeMirror) {
        if (n->serial == serial)
            return n.get();
    }
    return nullptr;
}

int32_t PipeWireGraph::pidOf(const Node& n) const
{
    if (auto pid = parseInteger(n.property(PW_KEY_APP_PROCESS_ID)); pid && *pid > 0)
        return static_cast<int32_t>(*pid);
    if (auto clientID = parseInteger(n.property(PW_KEY_CLIENT_ID))) {
        auto found = clientMirror.find(static_cast<uint32_t>(*clientID));
        if (found != clientMirror.end()) {
            if (auto pid = parseInteger(found->second->property(PW_KEY_SEC_PID)); pid && *pid > 0)
                return static_cast<int32_t>(*pid);
        }
    }
    return -1;
}

std::optional<double> PipeWireGraph::setting(const char* key) const
{
    if (!settingsMeta)
        return std::nullopt;
    auto value = settingsMeta->value(0, key);
    if (!value)
        return std::nullopt;
    auto parsed = parseInteger(value->value);
    if (!parsed || *parsed <= 0)
        return std::nullopt;
    return static_cast<double>(*parsed);
}

double PipeWireGraph::graphRate() const
{
    return setting("clock.force-rate").value_or(setting("clock.rate").value_or(48000.0));
}

std::optional<std::string> PipeWireGraph::defaultSinkName() const
{
    auto value = defaultValue(0, "default.audio.sink");
    if (!value)
        return std::nullopt;
    return jsonName(value->value);
}

std::optional<RoutingJournal::Value> PipeWireGraph::defaultValue(uint32_t subject, const char* key) const
{
    return defaultMeta ? defaultMeta->value(subject, key) : std::nullopt;
}

void PipeWireGraph::setDefaultValue(uint32_t subject, const char* key,
                                    const std::optional<RoutingJournal::Value>& value)
{
    if (!defaultMeta || !defaultMeta->bound.proxy)
        return;
    auto* proxy = reinterpret_cast<pw_metadata*>(defaultMeta->bound.proxy);
    if (value)
        pw_metadata_set_property(proxy, subject, key, value->type.empty() ? nullptr : value->type.c_str(),
                                 value->value.c_str());
    else
        pw_metadata_set_property(proxy, subject, key, nullptr, nullptr);
}

} // namespace sorva
