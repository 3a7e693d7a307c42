#include "Platform/PipeWire/StreamRouter.h"

#include "Audio/EQLog.h"
#include "Platform/PipeWire/DuplexStreams.h"

#include <algorithm>

namespace sorva {

namespace {

constexpr const char* targetObject = "target.object";
constexpr const char* targetNode = "target.node";

} // namespace

StreamRouter::StreamRouter(PipeWireGraph& graph, std::filesystem::path journalPath,
                           std::function<std::vector<uint32_t>()> ourStreamNodes)
    : graph(graph)
    , journal(journalPath.empty() ? RoutingJournal::defaultPath() : std::move(journalPath))
    , ourStreamNodes(std::move(ourStreamNodes))
{
}

bool StreamRouter::isOurStreamNode(uint32_t id) const
{
    auto ours = ourStreamNodes();
    return std::find(ours.begin(), ours.end(), id) != ours.end();
}

// A previous target that points at SORVA itself is no target.
// "target.object" holds a serial or a name, "target.node" a node id.
std::optional<RoutingJournal::Value> StreamRouter::notPointingAtUs(std::optional<RoutingJournal::Value> value,
                                                                   const std::string& key) const
{
    if (!value)
        return value;
    if (auto number = PipeWireGraph::parseInteger(value->value)) {
        bool ours = false;
        if (key == targetNode) {
            ours = isOurStreamNode(static_cast<uint32_t>(*number));
        } else {
            for (uint32_t id : ourStreamNodes()) {
                const PipeWireGraph::Node* n = graph.node(id);
                ours = ours || (n && n->serial == static_cast<uint64_t>(*number));
            }
        }
        if (ours)
            return std::nullopt;
    }
    if (value->value == DuplexStreams::tapNodeName || value->value == DuplexStreams::outputNodeName)
        return std::nullopt;
    return value;
}

void StreamRouter::routePass(Routes& routes, const Selection& selection, uint32_t tapNodeID)
{
    const PipeWireGraph::Node* tapNode = graph.node(tapNodeID);
    if (!tapNode || tapNode->serial == 0)
        return;
    for (auto& [id, n] : graph.nodes()) {
        if (!n->haveInfo || n->serial == 0 || routes.considered.count(n->serial))
            continue;
        if (n->property(PW_KEY_MEDIA_CLASS) != "Stream/Output/Audio")
            continue;
        if (isOurStreamNode(n->id))
            continue;
        int32_t pid = graph.pidOf(*n);
        if (pid < 0)
            continue; // its client's info has not arrived yet: decide later
        // Other filters, streams that must stay where they are, ourselves.
        if (pid == graph.ownPID() || !n->property(PW_KEY_NODE_LINK_GROUP).empty()
            || n->property(PW_KEY_NODE_DONT_RECONNECT) == "true" || !selection.selects(pid)) {
            routes.considered.insert(n->serial);
            // The session manager may remember the tap as a program's
            // target and send a new stream of it here; only we decide.
            if (pid != graph.ownPID())
                releaseIfPointingAtUs(*n);
            continue;
        }
        route(routes, *n, tapNode->serial);
    }
}

void StreamRouter::reconsider(Routes& routes)
{
    for (auto it = routes.considered.begin(); it != routes.considered.end();)
        it = routes.routed.count(*it) ? std::next(it) : routes.considered.erase(it);
}

void StreamRouter::releaseIfPointingAtUs(const PipeWireGraph::Node& stream)
{
    if (!graph.defaultMetadata())
        return;
    for (const char* key : { targetObject, targetNode }) {
        auto value = graph.defaultValue(stream.id, key);
        if (value && !notPointingAtUs(value, key))
            graph.setDefaultValue(stream.id, key, std::nullopt);
    }
}

void StreamRouter::route(Routes& routes, const PipeWireGraph::Node& stream, uint64_t tapSerial)
{
    routes.considered.insert(stream.serial);
    RoutedStream routed;
    routed.nodeID = stream.id;
    routed.previousObject = notPointingAtUs(graph.defaultValue(stream.id, targetObject), targetObject);
    routed.previousNode = notPointingAtUs(graph.defaultValue(stream.id, targetNode), targetNode);
    std::string error;
    if (!journal.append({ stream.serial, tapSerial, routed.previousObject, routed.previousNode }, error)
        && !journalWarned) {
        journalWarned = true;
        EQLog::trace("routing journal not written: " + error);
    }
    // By name, not serial: WirePlumber remembers a moved stream's target per
    // application (or media role) only when the value is a serial, and that
    // memory would outlive a crash of ours and send the program to the tap of
    // the next run before we decided on it.
    graph.setDefaultValue(stream.id, targetObject, RoutingJournal::Value { "Spa:String", DuplexStreams::tapNodeName });
    if (graph.defaultValue(stream.id, targetNode))
        graph.setDefaultValue(stream.id, targetNode, std::nullopt);
    routes.routed[stream.serial] = routed;
    EQLog::trace([serial = stream.serial, name = stream.property(PW_KEY_APP_NAME)] {
        return "routed stream " + std::to_string(serial) + " (" + (name.empty() ? "?" : name) + ") to the tap";
    });
}

// Puts one stream back where it was, unless it was moved elsewhere since.
void StreamRouter::restore(uint32_t nodeID, uint64_t tapSerial,
                           const std::optional<RoutingJournal::Value>& previousObject,
                           const std::optional<RoutingJournal::Value>& previousNode)
{
    // A journal of an earlier version may hold routes by the tap's serial.
    auto current = graph.defaultValue(nodeID, targetObject);
    if (current && current->value != DuplexStreams::tapNodeName && current->value != std::to_string(tapSerial))
        return;
    graph.setDefaultValue(nodeID, targetObject, previousObject);
    if (previousNode)
        graph.setDefaultValue(nodeID, targetNode, previousNode);
}

void StreamRouter::unroute(Routes& routes, uint32_t tapNodeID)
{
    routes.active = false;
    // Our own latest writes must be in the mirror before it is compared
    // with them: a stream routed a moment ago still shows its old target
    // until the daemon echoes the new one, and would be taken for one the
    // user moved elsewhere and left pointing at the tap.
    graph.sync();
    const PipeWireGraph::Node* tapNode = graph.node(tapNodeID);
    uint64_t tapSerial = tapNode ? tapNode->serial : 0;
    size_t restored = 0;
    for (auto& [serial, routed] : routes.routed) {
        const PipeWireGraph::Node* stream = graph.node(routed.nodeID);
        if (!stream || stream->serial != serial)
            continue;
        restore(routed.nodeID, tapSerial, routed.previousObject, routed.previousNode);
        ++restored;
    }
    routes.routed.clear();
    routes.considered.clear();
    // With the daemon gone nothing was restored: the journal stays for the
    // next start, which repairs whatever the returning session remembers.
    if (!graph.sync())
        return;
    journal.clear();
    if (restored)
        EQLog::trace("restored the targets of " + std::to_string(restored) + " routed streams");
}

void StreamRouter::replayJournal()
{
    auto entries = journal.entries();
    if (entries.empty())
        return;
    size_t restored = 0;
    for (auto& entry : entries) {
        const PipeWireGraph::Node* stream = graph.nodeBySerial(entry.streamSerial);
        if (!stream)
            continue;
        restore(stream->id, entry.tapSerial, notPointingAtUs(entry.previousObject, targetObject),
                notPointingAtUs(entry.previousNode, targetNode));
        ++restored;
    }
    graph.sync();
    journal.clear();
    EQLog::trace("routing journal replayed: " + std::to_string(restored) + " of " + std::to_string(entries.size())
                 + " streams left routed by an earlier run restored");
}

} // namespace sorva
