// Points the selected programs' output streams at a tap and back. A stream is
// routed by setting its "target.object" in the "default" metadata to the tap's
// node name, which silences it at the speakers; every move is written to the
// RoutingJournal first, so that what a crash leaves routed is put back by the
// next replayJournal(). Stopping restores each stream's previous target unless
// it was moved elsewhere since.
//
// Private to Platform/PipeWire. Threads: every member runs with the graph's
// loop lock held.
#pragma once

#include "Platform/PipeWire/PipeWireGraph.h"
#include "Platform/PipeWire/RoutingJournal.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace sorva {

class StreamRouter {
public:
    // Which programs a tap takes: the listed PIDs, or all but them.
    struct Selection {
        std::set<int32_t> pids;
        bool onlyListed = false;
        bool selects(int32_t pid) const { return (pids.count(pid) > 0) == onlyListed; }
    };

    // A stream routed to the tap and what its targets were before.
    struct RoutedStream {
        uint32_t nodeID = 0;
        std::optional<RoutingJournal::Value> previousObject;
        std::optional<RoutingJournal::Value> previousNode;
    };

    // The routing of one tap while it runs.
    struct Routes {
        bool active = false;
        std::set<uint64_t> considered; // serials already decided on
        std::map<uint64_t, RoutedStream> routed; // by stream serial
    };

    // ourStreamNodes: the node ids of SORVA's own streams (taps and outputs).
    StreamRouter(PipeWireGraph& graph, std::filesystem::path journalPath,
                 std::function<std::vector<uint32_t>()> ourStreamNodes);

    bool isOurStreamNode(uint32_t id) const;

    // Routes every stream of the selection that has not been decided on yet.
    void routePass(Routes& routes, const Selection& selection, uint32_t tapNodeID);
    // Forgets the decisions on the streams not routed now, so that the next
    // pass decides on them again.
    void reconsider(Routes& routes);
    // Restores the routed streams and clears the journal.
    void unroute(Routes& routes, uint32_t tapNodeID);
    // Undoes what a run that ended without stopping left routed.
    void replayJournal();

private:
    std::optional<RoutingJournal::Value> notPointingAtUs(std::optional<RoutingJournal::Value> value,
                                                         const std::string& key) const;
    void releaseIfPointingAtUs(const PipeWireGraph::Node& stream);
    void route(Routes& routes, const PipeWireGraph::Node& stream, uint64_t tapSerial);
    void restore(uint32_t nodeID, uint64_t tapSerial, const std::optional<RoutingJournal::Value>& previousObject,
                 const std::optional<RoutingJournal::Value>& previousNode);

    PipeWireGraph& graph;
    RoutingJournal journal;
    std::function<std::vector<uint32_t>()> ourStreamNodes;
    bool journalWarned = false;
};

} // namespace sorva
