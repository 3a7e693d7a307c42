// The AudioHardware operations on top of the backend's parts: PipeWireGraph
// (connection and registry mirror), StreamRouter (moving programs' streams to
// a tap, with the journal) and DuplexStreams (an aggregate's tap and output
// streams). This file keeps the backend's own objects: process objects, taps,
// aggregates, IO procedure IDs and property listeners.
//
// Locking: every field of Data is touched only with the thread loop's lock
// held (PipeWire's own events run on the loop thread, which holds it).
#include "Platform/PipeWire/PipeWireAudioHardware.h"

#include "Platform/PipeWire/DuplexStreams.h"
#include "Platform/PipeWire/PipeWireGraph.h"
#include "Platform/PipeWire/StreamRouter.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <map>
#include <set>
#include <signal.h>

namespace sorva {

namespace {

using Node = PipeWireGraph::Node;

constexpr AudioObjectID processObjectBase = 0x40000000;
constexpr AudioObjectID processObjectLast = 0x4fffffff;
constexpr AudioObjectID tapBase = 0x50000000;
constexpr AudioObjectID aggregateBase = 0x60000000;

bool isProcessObject(AudioObjectID object)
{
    return object > processObjectBase && object <= processObjectLast;
}

bool equalsIgnoringCase(const std::string& a, const std::string& b)
{
    return a.size() == b.size()
        && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y)); });
}

bool isPlaybackStream(const Node& n)
{
    return n.property(PW_KEY_MEDIA_CLASS) == "Stream/Output/Audio";
}

StreamRouter::Selection selectionOf(const TapDescription& description)
{
    StreamRouter::Selection selection;
    for (AudioObjectID process : description.processes) {
        if (isProcessObject(process))
            selection.pids.insert(static_cast<int32_t>(process - processObjectBase));
    }
    selection.onlyListed = description.processSelection == TapDescription::ProcessSelection::stereoMixdownOfProcesses;
    return selection;
}

struct Tap {
    TapDescription description;
};

// One aggregate device: its streams, its IO procedure and its routing.
struct Aggregate {
    AudioObjectID id = 0;
    AudioObjectID tapID = 0;
    AggregateDescription description;
    std::unique_ptr<DuplexStreams> streams;
    AudioDeviceIOProcID procID = 0;
    bool started = false;
    StreamRouter::Routes routes;
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

struct PipeWireAudioHardware::Data final : DuplexStreams::Observer {
    PipeWireGraph graph;
    StreamRouter router;

    std::map<AudioObjectID, Tap> taps;
    std::map<AudioObjectID, std::unique_ptr<Aggregate>> aggregates;
    AudioObjectID nextTap = tapBase + 1;
    AudioObjectID nextAggregate = aggregateBase + 1;
    AudioDeviceIOProcID nextProcID = 1;
    uint64_t nextToken = 1;
    std::vector<Listener> listeners;
    std::map<std::string, uint32_t> negotiatedRates; // by device UID

    explicit Data(Options options)
        : graph(options.setupTimeoutMilliseconds, [this] { graphChanged(); })
        , router(graph, std::move(options.journalPath), [this] { return ourStreamNodes(); })
    {
        LoopLock lock(graph.loop());
        graph.connect();
    }

    ~Data()
    {
        {
            LoopLock lock(graph.loop());
            for (auto& [id, aggregate] : aggregates)
                stop(*aggregate);
            aggregates.clear();
            listeners.clear();
        }
        // No event may arrive while the members below the graph are torn
        // down; the graph disconnects when it goes.
        pw_thread_loop_stop(graph.loop());
    }

    // --- Loop lock held from here on ---------------------------------------

    OSStatus ensureConnected() { return graph.ensureConnected(!aggregates.empty()); }

    // Runs operation with the loop lock held and the daemon reached.
    template <typename Operation>
    OSStatus connected(Operation operation)
    {
        LoopLock lock(graph.loop());
        if (OSStatus status = ensureConnected())
            return status;
        return operation();
    }

    // Runs operation on the aggregate procID was registered on.
    template <typename Operation>
    OSStatus withProcedure(AudioObjectID device, AudioDeviceIOProcID procID, Operation operation)
    {
        LoopLock lock(graph.loop());
        Aggregate* found = aggregate(device);
        if (!found)
            return kAudioHardwareBadDeviceError;
        if (!procID || procID != found->procID)
            return kAudio_ParamError;
        return operation(*found);
    }

    Aggregate* aggregate(AudioObjectID id)
    {
        auto found = aggregates.find(id);
        return found == aggregates.end() ? nullptr : found->second.get();
    }

    std::vector<uint32_t> ourStreamNodes() const
    {
        std::vector<uint32_t> ids;
        for (auto& [id, aggregate] : aggregates) {
            ids.push_back(aggregate->streams->tapNodeID());
            ids.push_back(aggregate->streams->outputNodeID());
        }
        return ids;
    }

    // Something in the mirror changed: route what appeared, link what the
    // session manager linked to a tap, tell listeners.
    void graphChanged()
    {
        for (auto& [id, aggregate] : aggregates) {
            if (aggregate->routes.active)
                route(*aggregate);
            aggregate->streams->followLinks();
        }
        notifyListeners();
    }

    void tapStateChanged() override { graphChanged(); }

    void rateNegotiated(const DuplexStreams& streams, uint32_t rate) override
    {
        if (streams.outputUID())
            negotiatedRates[*streams.outputUID()] = rate;
        notifyListeners();
    }

    // While its device is away an output plays on the default device, as a
    // stream whose target is missing would.
    const Node* playbackDevice(const std::string& uid) const override
    {
        if (const Node* n = deviceNodeByUID(uid))
            return n;
        auto fallback = graph.defaultSinkName();
        return fallback ? deviceNodeByUID(*fallback) : nullptr;
    }

    void route(Aggregate& aggregate)
    {
        // A program sent to the tap before the session manager has set it up
        // would stay where it plays.
        auto tap = taps.find(aggregate.tapID);
        if (tap != taps.end() && aggregate.streams->tapHasPorts())
            router.routePass(aggregate.routes, selectionOf(tap->second.description), aggregate.streams->tapNodeID());
    }

    void stop(Aggregate& aggregate)
    {
        if (aggregate.routes.active)
            router.unroute(aggregate.routes, aggregate.streams->tapNodeID());
        if (aggregate.started) {
            aggregate.started = false;
            aggregate.streams->setRunning(false);
        }
    }

    // --- Devices -------------------------------------------------------------

    bool isOurs(const Node& n) const
    {
        return router.isOurStreamNode(n.id) || graph.pidOf(n) == graph.ownPID();
    }

    bool isOutputDevice(const Node& n) const
    {
        return n.property(PW_KEY_MEDIA_CLASS) == "Audio/Sink" && !isOurs(n)
            && n.property(PW_KEY_NODE_NAME) != DuplexStreams::tapNodeName;
    }

    const Node* deviceNodeByUID(const std::string& uid) const
    {
        for (auto& [id, n] : graph.nodes()) {
            if (isOutputDevice(*n) && n->property(PW_KEY_NODE_NAME) == uid)
                return n.get();
        }
        return nullptr;
    }

    AudioObjectID defaultDevice() const
    {
        auto name = graph.defaultSinkName();
        const Node* n = name ? deviceNodeByUID(*name) : nullptr;
        return n ? n->id : 0;
    }

    const Node* deviceNode(AudioObjectID device) const
    {
        const Node* n = device < processObjectBase ? graph.node(device) : nullptr;
        return n && isOutputDevice(*n) ? n : nullptr;
    }

    // A text of an aggregate or of an output device.
    template <typename OfAggregate, typename OfDevice>
    OSStatus deviceText(AudioObjectID device, std::string& text, OfAggregate ofAggregate, OfDevice ofDevice)
    {
        return connected([&] {
            if (Aggregate* found = aggregate(device)) {
                text = ofAggregate(found->description);
                return kAudioHardwareNoError;
            }
            const Node* n = deviceNode(device);
            if (!n)
                return kAudioHardwareBadObjectError;
            text = ofDevice(*n);
            return kAudioHardwareNoError;
        });
    }

    // The rate a device runs at: a forced graph rate, else the rate our
    // streams last negotiated on it, else the device's own configured rate,
    // else the graph's default rate.
    std::optional<double> deviceRate(AudioObjectID device) const
    {
        if (auto found = aggregates.find(device); found != aggregates.end()) {
            const DuplexStreams& streams = *found->second->streams;
            if (uint32_t rate = streams.negotiatedRate())
                return static_cast<double>(rate);
            if (streams.outputUID()) {
                if (const Node* n = deviceNodeByUID(*streams.outputUID()))
                    return deviceRate(n->id);
            }
            return graph.graphRate();
        }
        const Node* n = deviceNode(device);
        if (!n)
            return std::nullopt;
        if (auto forced = graph.setting("clock.force-rate"))
            return *forced;
        // The rate our streams last ran at on this device is the graph's
        // real rate there (it may have switched from its default to suit the
        // programs playing).
        if (auto found = negotiatedRates.find(n->property(PW_KEY_NODE_NAME)); found != negotiatedRates.end())
            return static_cast<double>(found->second);
        if (auto rate = PipeWireGraph::parseInteger(n->property(PW_KEY_AUDIO_RATE)); rate && *rate > 0)
            return static_cast<double>(*rate);
        return graph.setting("clock.rate").value_or(48000.0);
    }

    std::vector<AudioObjectID> playingProcesses() const
    {
        std::set<AudioObjectID> objects;
        for (auto& [id, n] : graph.nodes()) {
            if (!isPlaybackStream(*n))
                continue;
            int32_t pid = graph.pidOf(*n);
            if (pid > 0)
                objects.insert(processObjectBase + static_cast<AudioObjectID>(pid));
        }
        return { objects.begin(), objects.end() };
    }

    // --- Listeners -------------------------------------------------------------

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
    return data->connected([] { return kAudioHardwareNoError; }) == kAudioHardwareNoError;
}

bool PipeWireAudioHardware::accessRefused()
{
    LoopLock lock(data->graph.loop());
    return data->graph.refused();
}

OSStatus PipeWireAudioHardware::defaultOutputDevice(AudioObjectID& device)
{
    return data->connected([&] {
        device = data->defaultDevice();
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::deviceName(AudioObjectID device, std::string& name)
{
    return data->deviceText(
        device, name, [](const AggregateDescription& description) { return description.name; },
        [](const Node& n) {
            std::string description = n.property(PW_KEY_NODE_DESCRIPTION);
            return description.empty() ? n.property(PW_KEY_NODE_NAME) : description;
        });
}

OSStatus PipeWireAudioHardware::deviceUID(AudioObjectID device, std::string& uid)
{
    return data->deviceText(
        device, uid, [](const AggregateDescription& description) { return description.uid; },
        [](const Node& n) { return n.property(PW_KEY_NODE_NAME); });
}

OSStatus PipeWireAudioHardware::nominalSampleRate(AudioObjectID device, double& rate)
{
    return data->connected([&] {
        auto value = data->deviceRate(device);
        if (!value)
            return kAudioHardwareBadObjectError;
        rate = *value;
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::bufferFrameSize(AudioObjectID device, uint32_t& frames)
{
    return data->connected([&] {
        double fallback = data->graph.setting("clock.force-quantum").value_or(data->graph.setting("clock.quantum").value_or(1024.0));
        if (Aggregate* aggregate = data->aggregate(device)) {
            uint32_t quantum = aggregate->streams->quantum();
            frames = quantum ? quantum : static_cast<uint32_t>(fallback);
            return kAudioHardwareNoError;
        }
        if (!data->deviceNode(device))
            return kAudioHardwareBadObjectError;
        frames = static_cast<uint32_t>(fallback);
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::setBufferFrameSize(AudioObjectID device, uint32_t frames)
{
    return data->connected([&] {
        Aggregate* aggregate = data->aggregate(device);
        if (!aggregate)
            return data->deviceNode(device) ? kAudioHardwareUnsupportedOperationError : kAudioHardwareBadObjectError;
        if (frames == 0)
            return kAudio_ParamError;
        // A latency request on our own nodes: the graph then runs at that
        // quantum (or the nearest it allows) while they are linked.
        aggregate->streams->requestLatency(
            std::to_string(frames) + "/"
            + std::to_string(static_cast<uint32_t>(data->deviceRate(device).value_or(48000.0))));
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::translatePIDToProcessObject(int32_t pid, AudioObjectID& process)
{
    return data->connected([&] {
        if (pid <= 0 || static_cast<AudioObjectID>(pid) > processObjectLast - processObjectBase)
            return kAudio_ParamError;
        bool exists = pid == data->graph.ownPID() || ::kill(pid, 0) == 0 || errno == EPERM;
        process = exists ? processObjectBase + static_cast<AudioObjectID>(pid) : 0;
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::processObjectListByteSize(uint32_t& byteSize)
{
    return data->connected([&] {
        byteSize = static_cast<uint32_t>(data->playingProcesses().size() * sizeof(AudioObjectID));
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::processObjectList(std::vector<AudioObjectID>& processes)
{
    return data->connected([&] {
        auto all = data->playingProcesses();
        size_t count = std::min(all.size(), processes.size());
        std::copy_n(all.begin(), count, processes.begin());
        processes.resize(count);
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::processPID(AudioObjectID process, int32_t& pid)
{
    if (!isProcessObject(process))
        return kAudioHardwareBadObjectError;
    pid = static_cast<int32_t>(process - processObjectBase);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::processIsRunningOutput(AudioObjectID process, uint32_t& running)
{
    if (!isProcessObject(process))
        return kAudioHardwareBadObjectError;
    return data->connected([&] {
        auto pid = static_cast<int32_t>(process - processObjectBase);
        running = 0;
        for (auto& [id, n] : data->graph.nodes()) {
            if (isPlaybackStream(*n) && n->state == PW_NODE_STATE_RUNNING && data->graph.pidOf(*n) == pid)
                running = 1;
        }
        return kAudioHardwareNoError;
    });
}

std::vector<RunningApplication> PipeWireAudioHardware::runningApplications()
{
    std::vector<RunningApplication> applications;
    data->connected([&] {
        for (auto& [id, client] : data->graph.clients()) {
            auto pid = PipeWireGraph::parseInteger(client->property(PW_KEY_SEC_PID));
            if (!pid || *pid <= 0)
                pid = PipeWireGraph::parseInteger(client->property(PW_KEY_APP_PROCESS_ID));
            if (!pid || *pid <= 0)
                continue;
            RunningApplication application;
            application.processIdentifier = static_cast<int32_t>(*pid);
            for (const char* key : { PW_KEY_APP_ID, PW_KEY_APP_PROCESS_BINARY, PW_KEY_APP_NAME }) {
                std::string value = client->property(key);
                if (!value.empty()) {
                    application.bundleIdentifier = value;
                    break;
                }
            }
            applications.push_back(std::move(application));
        }
        return kAudioHardwareNoError;
    });
    return applications;
}

OSStatus PipeWireAudioHardware::createProcessTap(const TapDescription& description, AudioObjectID& tap)
{
    return data->connected([&] {
        data->graph.sync();
        if (data->graph.refused())
            return kAudioHardwarePermissionDenied;
        if (!data->graph.defaultMetadata())
            return kAudioHardwareNotRunningError; // no session manager
        // Routing writes the "default" metadata; a client that may not write
        // it (restricted by the access rules) cannot tap anything.
        if ((data->graph.defaultMetadata()->permissions & PW_PERM_W) == 0)
            return kAudioHardwarePermissionDenied;
        data->router.replayJournal();
        AudioObjectID id = data->nextTap++;
        data->taps[id] = Tap { description };
        tap = id;
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::destroyProcessTap(AudioObjectID tap)
{
    LoopLock lock(data->graph.loop());
    return data->taps.erase(tap) ? kAudioHardwareNoError : kAudioHardwareBadObjectError;
}

OSStatus PipeWireAudioHardware::tapFormat(AudioObjectID tap, AudioStreamBasicDescription& format)
{
    LoopLock lock(data->graph.loop());
    if (!data->taps.count(tap))
        return kAudioHardwareBadObjectError;
    double rate = data->graph.graphRate();
    for (auto& [id, aggregate] : data->aggregates) {
        if (aggregate->tapID == tap && aggregate->streams->negotiatedRate())
            rate = aggregate->streams->negotiatedRate();
    }
    format = {};
    format.mSampleRate = rate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    format.mBytesPerPacket = DuplexStreams::bytesPerFrame;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = DuplexStreams::bytesPerFrame;
    format.mChannelsPerFrame = 2;
    format.mBitsPerChannel = 32;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::tapDescription(AudioObjectID tap, TapDescription& description)
{
    LoopLock lock(data->graph.loop());
    auto found = data->taps.find(tap);
    if (found == data->taps.end())
        return kAudioHardwareBadObjectError;
    description = found->second.description;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::setTapDescription(AudioObjectID tap, const TapDescription& description)
{
    LoopLock lock(data->graph.loop());
    auto found = data->taps.find(tap);
    if (found == data->taps.end())
        return kAudioHardwareBadObjectError;
    found->second.description = description;
    // Re-applying decides again on every stream not routed now.
    for (auto& [id, aggregate] : data->aggregates) {
        if (aggregate->tapID == tap && aggregate->routes.active) {
            data->router.reconsider(aggregate->routes);
            data->route(*aggregate);
        }
    }
    data->graph.sync();
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::createAggregateDevice(const AggregateDescription& description, AudioObjectID& device)
{
    return data->connected([&] {
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

        auto aggregate = std::make_unique<Aggregate>();
        aggregate->id = data->nextAggregate++;
        aggregate->tapID = tapID;
        aggregate->description = description;
        aggregate->streams = std::make_unique<DuplexStreams>(data->graph, *data, outputUID);
        Aggregate& created = *aggregate;
        data->aggregates[created.id] = std::move(aggregate);
        std::string group = "sorva-" + std::to_string(data->graph.ownPID()) + "-"
            + std::to_string(created.id - aggregateBase);
        if (OSStatus status = created.streams->connect(group)) {
            data->aggregates.erase(created.id);
            return status;
        }
        device = created.id;
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::destroyAggregateDevice(AudioObjectID device)
{
    LoopLock lock(data->graph.loop());
    Aggregate* aggregate = data->aggregate(device);
    if (!aggregate)
        return kAudioHardwareBadObjectError;
    data->stop(*aggregate);
    data->aggregates.erase(device);
    data->graph.sync();
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* context,
                                               AudioDeviceIOProcID& procID)
{
    LoopLock lock(data->graph.loop());
    Aggregate* aggregate = data->aggregate(device);
    if (!aggregate)
        return kAudioHardwareBadDeviceError;
    if (!proc)
        return kAudio_ParamError;
    if (aggregate->procID)
        return kAudioHardwareUnsupportedOperationError; // one procedure per aggregate
    aggregate->streams->setProcedure(proc, context, false);
    aggregate->procID = data->nextProcID++;
    procID = aggregate->procID;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID)
{
    return data->withProcedure(device, procID, [&](Aggregate& aggregate) {
        if (data->graph.disconnected())
            return kAudioHardwareNotRunningError;
        if (!aggregate.started) {
            aggregate.started = true;
            aggregate.streams->setRunning(true);
        }
        if (!aggregate.routes.active) {
            aggregate.routes.active = true;
            data->route(aggregate);
            data->graph.sync();
            if (data->graph.refused()) {
                data->stop(aggregate);
                return kAudioHardwarePermissionDenied;
            }
        }
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::stopDevice(AudioObjectID device, AudioDeviceIOProcID procID)
{
    return data->withProcedure(device, procID, [&](Aggregate& aggregate) {
        data->stop(aggregate);
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID)
{
    return data->withProcedure(device, procID, [&](Aggregate& aggregate) {
        data->stop(aggregate);
        aggregate.streams->setProcedure(nullptr, nullptr, false);
        aggregate.procID = 0;
        return kAudioHardwareNoError;
    });
}

OSStatus PipeWireAudioHardware::addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    AudioObjectPropertyListener handler,
                                                    AudioPropertyListenerRegistration& registration)
{
    if (!queue || !handler)
        return kAudio_ParamError;
    return data->connected([&] {
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
    });
}

OSStatus PipeWireAudioHardware::removePropertyListener(const AudioPropertyListenerRegistration& registration)
{
    LoopLock lock(data->graph.loop());
    auto& listeners = data->listeners;
    auto found = std::find_if(listeners.begin(), listeners.end(),
                              [&](const Listener& l) { return l.token == registration.token && registration.token; });
    if (found == listeners.end())
        return kAudioHardwareBadObjectError;
    listeners.erase(found);
    return kAudioHardwareNoError;
}

} // namespace sorva
