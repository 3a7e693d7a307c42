// The PipeWire connection of the audio-hardware backend and its mirror of the
// registry: the thread loop, the context, the core, every node, client, port
// and link, and the "default" and "settings" metadata. It answers the questions the backend
// asks of the graph (a node's program, a setting, the default sink's name) and
// writes stream targets into the "default" metadata.
//
// Private to Platform/PipeWire (it includes PipeWire headers).
//
// Threads: every member except the constructor and destructor is used with the
// thread loop's lock held; PipeWire's events run on the loop thread, which
// holds it. The changed callback runs there too, after every change to the
// mirror.
#pragma once

#include "Platform/AudioTypes.h"
#include "Platform/PipeWire/PipeWireRAII.h"
#include "Platform/PipeWire/RoutingJournal.h"

#include <pipewire/pipewire.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace sorva {

class PipeWireGraph {
public:
    using Properties = std::map<std::string, std::string>;

    struct Node {
        PipeWireGraph* owner = nullptr;
        uint32_t id = 0;
        uint64_t serial = 0;
        Properties props;
        pw_node_state state = PW_NODE_STATE_CREATING;
        bool haveInfo = false;
        BoundProxy bound;

        // The property's value; empty when it is not set.
        std::string property(const char* key) const;
    };

    struct Client {
        PipeWireGraph* owner = nullptr;
        uint32_t id = 0;
        Properties props;
        BoundProxy bound;

        std::string property(const char* key) const;
    };

    // A port as the registry announces it (no proxy: its properties do not
    // change).
    struct Port {
        uint32_t id = 0;
        uint32_t node = 0;
        bool input = false;
        bool monitor = false;
        // "FL", "FR", "MONO", ...; empty when the port has no channel.
        std::string channel;
    };

    // A link between two ports, as the registry announces it.
    struct Link {
        uint32_t id = 0;
        uint32_t outputNode = 0;
        uint32_t outputPort = 0;
        uint32_t inputNode = 0;
        uint32_t inputPort = 0;
    };

    struct Metadata {
        PipeWireGraph* owner = nullptr;
        uint32_t id = 0;
        uint32_t permissions = 0;
        std::map<std::pair<uint32_t, std::string>, RoutingJournal::Value> values;
        BoundProxy bound;

        std::optional<RoutingJournal::Value> value(uint32_t subject, const std::string& key) const;
    };

    // Starts the loop thread; connect() makes the first connection.
    PipeWireGraph(int setupTimeoutMilliseconds, std::function<void()> changed);
    // Stops the loop thread, then drops the mirror and the connection. Every
    // stream made on this core must be gone by then.
    ~PipeWireGraph();
    PipeWireGraph(const PipeWireGraph&) = delete;
    PipeWireGraph& operator=(const PipeWireGraph&) = delete;

    pw_thread_loop* loop() const { return loopOwner.get(); }
    pw_context* context() const { return contextOwner.get(); }
    pw_core* core() const { return coreProxy; }

    // --- Loop lock held from here on -----------------------------------

    void connect();
    // Connects if there is no usable connection (the daemon may have been
    // started or restarted since); a lost connection is kept while streams
    // still live on it. Status of the connection.
    OSStatus ensureConnected(bool streamsAlive);
    // A round trip to the daemon: every event sent before it has arrived.
    bool sync();
    // The deadline of a set-up wait that starts now.
    timespec setupDeadline() const;
    bool disconnected() const { return lost; }
    bool refused() const { return refusedAccess; }

    const std::map<uint32_t, std::unique_ptr<Node>>& nodes() const { return nodeMirror; }
    const std::map<uint32_t, std::unique_ptr<Client>>& clients() const { return clientMirror; }
    const Node* node(uint32_t id) const;
    const std::map<uint32_t, Port>& ports() const { return portMirror; }
    const std::map<uint32_t, Link>& links() const { return linkMirror; }
    const Port* port(uint32_t id) const;
    const Node* nodeBySerial(uint64_t serial) const;
    // The program behind a node (its own PID property, else its client's);
    // -1 while neither is known.
    int32_t pidOf(const Node& node) const;
    int32_t ownPID() const { return ownProcess; }

    // A positive integer value of the "settings" metadata.
    std::optional<double> setting(const char* key) const;
    double graphRate() const;

    const Metadata* defaultMetadata() const { return defaultMeta.get(); }
    // The node name "default.audio.sink" names; nullopt when it is unset.
    std::optional<std::string> defaultSinkName() const;
    // A value of the "default" metadata, and writing one (nullopt removes it).
    std::optional<RoutingJournal::Value> defaultValue(uint32_t subject, const char* key) const;
    void setDefaultValue(uint32_t subject, const char* key, const std::optional<RoutingJournal::Value>& value);

    static std::optional<long long> parseInteger(const std::string& text);

private:
    void disconnect();
    void onCoreError(uint32_t id, int res, const std::string& message);
    void onGlobal(uint32_t id, uint32_t permissions, const char* type, const spa_dict* props);
    void onGlobalRemove(uint32_t id);
    void onNodeInfo(Node& node, const pw_node_info* info);
    void onMetadataProperty(Metadata& metadata, uint32_t subject, const char* key, const char* type,
                            const char* value);

    static void stopAndDestroy(pw_thread_loop* loop);

    int setupTimeoutMilliseconds;
    std::function<void()> changed;
    int32_t ownProcess;

    // Owners first: members are destroyed in reverse order, the context before
    // the loop it runs on.
    PipeWirePtr<pw_thread_loop, stopAndDestroy> loopOwner;
    PipeWirePtr<pw_context, pw_context_destroy> contextOwner;
    pw_core* coreProxy = nullptr; // connect() and disconnect() own it
    pw_registry* registry = nullptr;
    spa_hook coreListener {};
    spa_hook registryListener {};
    int connectErrno = 0;
    bool lost = false;
    bool refusedAccess = false;
    int lastDoneSeq = 0;

    std::map<uint32_t, std::unique_ptr<Node>> nodeMirror;
    std::map<uint32_t, std::unique_ptr<Client>> clientMirror;
    std::map<uint32_t, Port> portMirror;
    std::map<uint32_t, Link> linkMirror;
    std::unique_ptr<Metadata> defaultMeta;
    std::unique_ptr<Metadata> settingsMeta;
};

} // namespace sorva
