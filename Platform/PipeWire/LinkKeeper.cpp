#include "Platform/PipeWire/LinkKeeper.h"

#include "Audio/EQLog.h"

#include <spa/utils/result.h>

#include <set>
#include <string>

namespace sorva {

LinkKeeper::LinkKeeper(PipeWireGraph& graph)
    : graph(graph)
{
}

LinkKeeper::~LinkKeeper() { clear(); }

void LinkKeeper::destroy(Made& made)
{
    if (!made.proxy)
        return;
    spa_hook_remove(&made.listener);
    pw_proxy_destroy(made.proxy);
    made.proxy = nullptr;
}

void LinkKeeper::clear()
{
    for (auto& [key, link] : made)
        destroy(*link);
    made.clear();
}

void LinkKeeper::keep(const std::vector<Wanted>& wanted)
{
    std::set<Key> keys;
    for (const Wanted& w : wanted)
        keys.insert({ w.outputPort, w.inputPort });
    for (auto it = made.begin(); it != made.end();) {
        if (keys.count(it->first)) {
            ++it;
            continue;
        }
        destroy(*it->second);
        it = made.erase(it);
    }
    if (!graph.core())
        return;
    for (const Wanted& w : wanted) {
        Key key { w.outputPort, w.inputPort };
        if (made.count(key))
            continue;
        std::string outputNode = std::to_string(w.outputNode), outputPort = std::to_string(w.outputPort);
        std::string inputNode = std::to_string(w.inputNode), inputPort = std::to_string(w.inputPort);
        spa_dict_item items[] = {
            { PW_KEY_LINK_OUTPUT_NODE, outputNode.c_str() }, { PW_KEY_LINK_OUTPUT_PORT, outputPort.c_str() },
            { PW_KEY_LINK_INPUT_NODE, inputNode.c_str() },   { PW_KEY_LINK_INPUT_PORT, inputPort.c_str() },
            { PW_KEY_OBJECT_LINGER, "false" },               { PW_KEY_LINK_PASSIVE, w.passive ? "true" : "false" },
        };
        spa_dict props { 0, 6, items };
        auto link = std::make_unique<Made>();
        link->proxy = static_cast<pw_proxy*>(
            pw_core_create_object(graph.core(), "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &props, 0));
        if (!link->proxy) {
            EQLog::trace("PipeWire link " + outputPort + " -> " + inputPort + " could not be made");
        } else {
            static const pw_proxy_events events = [] {
                pw_proxy_events e {};
                e.version = PW_VERSION_PROXY_EVENTS;
                e.error = [](void*, int, int res, const char* message) {
                    EQLog::trace(std::string("PipeWire refused a link: ") + (message ? message : spa_strerror(res)));
                };
                return e;
            }();
            pw_proxy_add_listener(link->proxy, &link->listener, &events, link.get());
        }
        made[key] = std::move(link);
    }
}

} // namespace sorva
