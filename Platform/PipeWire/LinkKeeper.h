// The links this program makes between ports of the graph, kept equal to the
// set its owner wants: keep() makes the links that are missing and destroys
// the ones no longer wanted. The links belong to this connection, so the
// daemon removes them when the program exits or crashes: nothing of them
// outlives it.
//
// A link the daemon refuses, or that someone else removes, is not made again
// while it stays wanted (no fight with a patchbay, no loop on a link that
// cannot be made); once it is no longer wanted it may be made again later.
//
// Private to Platform/PipeWire (it includes PipeWire headers).
//
// Threads: the loop thread, with the graph's loop lock held.
#pragma once

#include "Platform/PipeWire/PipeWireGraph.h"

#include <pipewire/pipewire.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace sorva {

class LinkKeeper {
public:
    struct Wanted {
        uint32_t outputNode = 0;
        uint32_t outputPort = 0;
        uint32_t inputNode = 0;
        uint32_t inputPort = 0;
        // A passive link does not keep its nodes running by itself.
        bool passive = false;
    };

    explicit LinkKeeper(PipeWireGraph& graph);
    // Destroys every link made.
    ~LinkKeeper();
    LinkKeeper(const LinkKeeper&) = delete;
    LinkKeeper& operator=(const LinkKeeper&) = delete;

    void keep(const std::vector<Wanted>& wanted);
    // Destroys every link made.
    void clear();

private:
    struct Made {
        pw_proxy* proxy = nullptr;
        spa_hook listener {};
    };
    // Ports are unique in the graph: the two ports name a link.
    using Key = std::pair<uint32_t, uint32_t>;

    static void destroy(Made& made);

    PipeWireGraph& graph;
    std::map<Key, std::unique_ptr<Made>> made;
};

} // namespace sorva
