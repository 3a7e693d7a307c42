#include "Platform/Simulated/SimulatedAudioHardware.h"

#include <algorithm>
#include <unistd.h>

namespace sorva {

const char* SimulatedAudioHardware::callName(Call call)
{
    switch (call) {
    case Call::defaultOutputDevice: return "defaultOutputDevice";
    case Call::deviceName: return "deviceName";
    case Call::deviceUID: return "deviceUID";
    case Call::nominalSampleRate: return "nominalSampleRate";
    case Call::bufferFrameSize: return "bufferFrameSize";
    case Call::setBufferFrameSize: return "setBufferFrameSize";
    case Call::translatePIDToProcessObject: return "translatePIDToProcessObject";
    case Call::processObjectListByteSize: return "processObjectListByteSize";
    case Call::processObjectList: return "processObjectList";
    case Call::processPID: return "processPID";
    case Call::processIsRunningOutput: return "processIsRunningOutput";
    case Call::createProcessTap: return "createProcessTap";
    case Call::destroyProcessTap: return "destroyProcessTap";
    case Call::tapFormat: return "tapFormat";
    case Call::tapDescription: return "tapDescription";
    case Call::setTapDescription: return "setTapDescription";
    case Call::createAggregateDevice: return "createAggregateDevice";
    case Call::destroyAggregateDevice: return "destroyAggregateDevice";
    case Call::createIOProcID: return "createIOProcID";
    case Call::startDevice: return "startDevice";
    case Call::stopDevice: return "stopDevice";
    case Call::destroyIOProcID: return "destroyIOProcID";
    case Call::addPropertyListener: return "addPropertyListener";
    case Call::removePropertyListener: return "removePropertyListener";
    }
    return "?";
}

SimulatedAudioHardware::SimulatedAudioHardware()
{
    ownProcess = nextObjectID++;
    processes[ownProcess] = Process { static_cast<int32_t>(::getpid()), false, std::nullopt };
    processOrder.push_back(ownProcess);
}

SimulatedAudioHardware::~SimulatedAudioHardware() = default;

OSStatus SimulatedAudioHardware::enter(Call call)
{
    ++calls[call];
    auto found = injections.find(call);
    if (found == injections.end())
        return kAudioHardwareNoError;
    Injection& injection = found->second;
    if (injection.skip > 0) {
        --injection.skip;
        return kAudioHardwareNoError;
    }
    const OSStatus status = injection.status;
    if (injection.remaining > 0 && --injection.remaining == 0)
        injections.erase(found);
    return status;
}

// --- Building the simulated system ------------------------------------------

AudioObjectID SimulatedAudioHardware::addOutputDevice(std::string name, std::string uid, double nominalRate,
                                                      uint32_t bufferFrames)
{
    std::lock_guard guard(objectsLock);
    const AudioObjectID id = nextObjectID++;
    Device device;
    device.name = std::move(name);
    device.uid = std::move(uid);
    device.nominalRate = nominalRate;
    device.bufferFrames = bufferFrames;
    devices[id] = std::move(device);
    if (defaultDevice == kAudioObjectUnknown)
        defaultDevice = id;
    return id;
}

void SimulatedAudioHardware::removeDevice(AudioObjectID device)
{
    bool wasDefault = false;
    {
        std::lock_guard guard(objectsLock);
        devices.erase(device);
        if (defaultDevice == device) {
            defaultDevice = kAudioObjectUnknown;
            wasDefault = true;
        }
    }
    if (wasDefault)
        fireListeners(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
}

void SimulatedAudioHardware::setDefaultOutputDevice(AudioObjectID device)
{
    {
        std::lock_guard guard(objectsLock);
        defaultDevice = device;
    }
    fireListeners(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
}

void SimulatedAudioHardware::setNominalSampleRate(AudioObjectID device, double rate)
{
    {
        std::lock_guard guard(objectsLock);
        auto found = devices.find(device);
        if (found == devices.end())
            return;
        found->second.nominalRate = rate;
    }
    fireListeners(device, kAudioDevicePropertyNominalSampleRate);
}

AudioObjectID SimulatedAudioHardware::addProcess(int32_t pid, bool runningOutput,
                                                 std::optional<std::string> bundleIdentifier)
{
    std::lock_guard guard(objectsLock);
    const AudioObjectID id = nextObjectID++;
    processes[id] = Process { pid, runningOutput, std::move(bundleIdentifier) };
    processOrder.push_back(id);
    return id;
}

void SimulatedAudioHardware::setProcessRunningOutput(AudioObjectID process, bool running)
{
    std::lock_guard guard(objectsLock);
    auto found = processes.find(process);
    if (found != processes.end())
        found->second.runningOutput = running;
}

void SimulatedAudioHardware::setTapSampleRate(double rate)
{
    std::lock_guard guard(objectsLock);
    tapRate = rate;
}

void SimulatedAudioHardware::fireListeners(AudioObjectID object, uint32_t selector)
{
    // Queue the jobs outside the object lock: a handler may read properties.
    std::vector<Listener> matching;
    {
        std::lock_guard guard(objectsLock);
        for (const auto& [token, listener] : listeners)
            if (listener.object == object && listener.address.mSelector == selector)
                matching.push_back(listener);
        if (deliveryPaused) {
            heldDeliveries.insert(heldDeliveries.end(), matching.begin(), matching.end());
            return;
        }
    }
    for (const Listener& listener : matching) {
        auto handler = listener.handler;
        listener.queue->async([handler] { (*handler)(); });
    }
}

// --- Fault injection ---------------------------------------------------------

void SimulatedAudioHardware::injectStatus(Call call, OSStatus status, int times, int skip)
{
    std::lock_guard guard(objectsLock);
    if (times == 0) {
        injections.erase(call);
        return;
    }
    injections[call] = Injection { status, times, skip };
}

void SimulatedAudioHardware::pauseListenerDelivery()
{
    std::lock_guard guard(objectsLock);
    deliveryPaused = true;
}

void SimulatedAudioHardware::resumeListenerDelivery()
{
    std::vector<Listener> held;
    {
        std::lock_guard guard(objectsLock);
        deliveryPaused = false;
        held.swap(heldDeliveries);
    }
    for (const Listener& listener : held) {
        auto handler = listener.handler;
        listener.queue->async([handler] { (*handler)(); });
    }
}

void SimulatedAudioHardware::drainListenerQueues()
{
    std::vector<std::shared_ptr<SerialQueue>> queues;
    {
        std::lock_guard guard(objectsLock);
        for (const auto& [token, listener] : listeners)
            if (std::find(queues.begin(), queues.end(), listener.queue) == queues.end())
                queues.push_back(listener.queue);
    }
    for (auto& queue : queues)
        queue->drain();
}

void SimulatedAudioHardware::clearInjectedStatuses()
{
    std::lock_guard guard(objectsLock);
    injections.clear();
}

void SimulatedAudioHardware::setCreateIOProcLeavesIDEmpty(bool leavesEmpty)
{
    std::lock_guard guard(objectsLock);
    ioProcIDLeftEmpty = leavesEmpty;
}

void SimulatedAudioHardware::setTapsDeliverSilence(bool silent) { silentTaps.store(silent); }

int SimulatedAudioHardware::callCount(Call call) const
{
    std::lock_guard guard(objectsLock);
    auto found = calls.find(call);
    return found == calls.end() ? 0 : found->second;
}

// --- Inspection ----------------------------------------------------------------

size_t SimulatedAudioHardware::liveTaps() const
{
    std::lock_guard guard(objectsLock);
    return taps.size();
}

size_t SimulatedAudioHardware::liveAggregates() const
{
    std::lock_guard guard(objectsLock);
    return static_cast<size_t>(
        std::count_if(devices.begin(), devices.end(), [](const auto& entry) { return entry.second.isAggregate; }));
}

size_t SimulatedAudioHardware::liveIOProcs() const
{
    std::lock_guard guard(objectsLock);
    return ioProcs.size();
}

size_t SimulatedAudioHardware::runningIOProcs() const
{
    std::lock_guard guard(objectsLock);
    return static_cast<size_t>(
        std::count_if(ioProcs.begin(), ioProcs.end(), [](const auto& entry) { return entry.second.running; }));
}

size_t SimulatedAudioHardware::liveListeners() const
{
    std::lock_guard guard(objectsLock);
    return listeners.size();
}

bool SimulatedAudioHardware::nothingAlive() const
{
    return liveTaps() == 0 && liveAggregates() == 0 && liveIOProcs() == 0 && liveListeners() == 0;
}

std::optional<TapDescription> SimulatedAudioHardware::tapDescriptionOf(AudioObjectID tap) const
{
    std::lock_guard guard(objectsLock);
    auto found = taps.find(tap);
    if (found == taps.end())
        return std::nullopt;
    return found->second.description;
}

std::optional<AggregateDescription> SimulatedAudioHardware::aggregateDescriptionOf(AudioObjectID device) const
{
    std::lock_guard guard(objectsLock);
    auto found = devices.find(device);
    if (found == devices.end() || !found->second.isAggregate)
        return std::nullopt;
    return found->second.aggregate;
}

std::vector<TapDescription> SimulatedAudioHardware::createdTaps() const
{
    std::lock_guard guard(objectsLock);
    return tapHistory;
}

std::vector<AggregateDescription> SimulatedAudioHardware::createdAggregates() const
{
    std::lock_guard guard(objectsLock);
    return aggregateHistory;
}

std::optional<uint32_t> SimulatedAudioHardware::requestedBufferFrameSize(AudioObjectID device) const
{
    std::lock_guard guard(objectsLock);
    auto found = devices.find(device);
    if (found == devices.end())
        return std::nullopt;
    return found->second.requestedBufferFrames;
}

std::vector<AudioObjectID> SimulatedAudioHardware::devicesWithRunningIOProcs() const
{
    std::lock_guard guard(objectsLock);
    std::vector<AudioObjectID> result;
    for (const auto& [id, proc] : ioProcs)
        if (proc.running && std::find(result.begin(), result.end(), proc.device) == result.end())
            result.push_back(proc.device);
    return result;
}

// --- IO cycles -------------------------------------------------------------------

int SimulatedAudioHardware::runIOCycle(AudioObjectID device, const AudioBufferList* input, AudioBufferList* output)
{
    std::vector<AudioDeviceIOProcID> candidates;
    {
        std::lock_guard guard(objectsLock);
        for (const auto& [id, proc] : ioProcs)
            if (proc.device == device && proc.running)
                candidates.push_back(id);
    }
    int ran = 0;
    const AudioTimeStamp now {};
    for (AudioDeviceIOProcID id : candidates) {
        std::shared_ptr<std::mutex> cycleLock;
        {
            std::lock_guard guard(objectsLock);
            auto found = ioProcs.find(id);
            if (found == ioProcs.end())
                continue;
            cycleLock = found->second.cycleLock;
        }
        std::lock_guard cycle(*cycleLock);
        AudioDeviceIOProc proc = nullptr;
        void* context = nullptr;
        {
            // Re-check under the cycle lock: a stop that got in first wins.
            std::lock_guard guard(objectsLock);
            auto found = ioProcs.find(id);
            if (found == ioProcs.end() || !found->second.running)
                continue;
            proc = found->second.proc;
            context = found->second.context;
        }
        proc(context, &now, input, &now, output, &now);
        ++ran;
    }
    return ran;
}

// --- Devices -----------------------------------------------------------------------

OSStatus SimulatedAudioHardware::defaultOutputDevice(AudioObjectID& device)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::defaultOutputDevice))
        return status;
    device = defaultDevice;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::deviceName(AudioObjectID device, std::string& name)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::deviceName))
        return status;
    auto found = devices.find(device);
    if (found == devices.end())
        return kAudioHardwareBadObjectError;
    name = found->second.name;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::deviceUID(AudioObjectID device, std::string& uid)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::deviceUID))
        return status;
    auto found = devices.find(device);
    if (found == devices.end())
        return kAudioHardwareBadObjectError;
    uid = found->second.uid;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::nominalSampleRate(AudioObjectID device, double& rate)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::nominalSampleRate))
        return status;
    auto found = devices.find(device);
    if (found == devices.end())
        return kAudioHardwareBadObjectError;
    rate = found->second.nominalRate;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::bufferFrameSize(AudioObjectID device, uint32_t& frames)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::bufferFrameSize))
        return status;
    auto found = devices.find(device);
    if (found == devices.end())
        return kAudioHardwareBadObjectError;
    frames = found->second.bufferFrames;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::setBufferFrameSize(AudioObjectID device, uint32_t frames)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::setBufferFrameSize))
        return status;
    auto found = devices.find(device);
    if (found == devices.end())
        return kAudioHardwareBadObjectError;
    if (frames == 0)
        return kAudio_ParamError;
    found->second.requestedBufferFrames = frames;
    found->second.bufferFrames = frames;
    return kAudioHardwareNoError;
}

// --- Processes --------------------------------------------------------------------------

OSStatus SimulatedAudioHardware::translatePIDToProcessObject(int32_t pid, AudioObjectID& process)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::translatePIDToProcessObject))
        return status;
    process = kAudioObjectUnknown;
    for (AudioObjectID id : processOrder)
        if (processes[id].pid == pid) {
            process = id;
            break;
        }
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::processObjectListByteSize(uint32_t& byteSize)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::processObjectListByteSize))
        return status;
    byteSize = static_cast<uint32_t>(processOrder.size() * sizeof(AudioObjectID));
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::processObjectList(std::vector<AudioObjectID>& list)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::processObjectList))
        return status;
    const size_t count = std::min(list.size(), processOrder.size());
    std::copy_n(processOrder.begin(), count, list.begin());
    list.resize(count);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::processPID(AudioObjectID process, int32_t& pid)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::processPID))
        return status;
    auto found = processes.find(process);
    if (found == processes.end())
        return kAudioHardwareBadObjectError;
    pid = found->second.pid;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::processIsRunningOutput(AudioObjectID process, uint32_t& running)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::processIsRunningOutput))
        return status;
    auto found = processes.find(process);
    if (found == processes.end())
        return kAudioHardwareBadObjectError;
    running = found->second.runningOutput ? 1 : 0;
    return kAudioHardwareNoError;
}

std::vector<RunningApplication> SimulatedAudioHardware::runningApplications()
{
    std::lock_guard guard(objectsLock);
    std::vector<RunningApplication> applications;
    for (AudioObjectID id : processOrder) {
        const Process& process = processes[id];
        if (process.bundleIdentifier)
            applications.push_back(RunningApplication { process.pid, process.bundleIdentifier });
    }
    return applications;
}

// --- Taps ---------------------------------------------------------------------------------

OSStatus SimulatedAudioHardware::createProcessTap(const TapDescription& description, AudioObjectID& tap)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::createProcessTap))
        return status;
    for (AudioObjectID process : description.processes)
        if (processes.find(process) == processes.end())
            return kAudioHardwareBadObjectError;
    const AudioObjectID id = nextObjectID++;
    taps[id] = Tap { description };
    tapHistory.push_back(description);
    tap = id;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::destroyProcessTap(AudioObjectID tap)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::destroyProcessTap))
        return status;
    return taps.erase(tap) ? kAudioHardwareNoError : kAudioHardwareBadObjectError;
}

OSStatus SimulatedAudioHardware::tapFormat(AudioObjectID tap, AudioStreamBasicDescription& format)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::tapFormat))
        return status;
    if (taps.find(tap) == taps.end())
        return kAudioHardwareBadObjectError;
    AudioStreamBasicDescription stereoFloat;
    stereoFloat.mSampleRate = tapRate;
    stereoFloat.mFormatID = kAudioFormatLinearPCM;
    stereoFloat.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    stereoFloat.mBytesPerPacket = 8;
    stereoFloat.mFramesPerPacket = 1;
    stereoFloat.mBytesPerFrame = 8;
    stereoFloat.mChannelsPerFrame = 2;
    stereoFloat.mBitsPerChannel = 32;
    format = stereoFloat;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::tapDescription(AudioObjectID tap, TapDescription& description)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::tapDescription))
        return status;
    auto found = taps.find(tap);
    if (found == taps.end())
        return kAudioHardwareBadObjectError;
    description = found->second.description;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::setTapDescription(AudioObjectID tap, const TapDescription& description)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::setTapDescription))
        return status;
    auto found = taps.find(tap);
    if (found == taps.end())
        return kAudioHardwareBadObjectError;
    found->second.description = description;
    return kAudioHardwareNoError;
}

// --- Aggregates ----------------------------------------------------------------------------

OSStatus SimulatedAudioHardware::createAggregateDevice(const AggregateDescription& description,
                                                       AudioObjectID& device)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::createAggregateDevice))
        return status;
    // Like the real thing, refuse sub-devices and taps that do not exist.
    auto deviceWithUID = [&](const std::string& uid) {
        return std::find_if(devices.begin(), devices.end(), [&](const auto& entry) {
            return !entry.second.isAggregate && entry.second.uid == uid;
        });
    };
    for (const auto& sub : description.subDevices)
        if (deviceWithUID(sub.uid) == devices.end())
            return kAudioHardwareBadDeviceError;
    if (description.mainSubDevice && deviceWithUID(*description.mainSubDevice) == devices.end())
        return kAudioHardwareBadDeviceError;
    for (const auto& subTap : description.taps) {
        const bool exists = std::any_of(taps.begin(), taps.end(), [&](const auto& entry) {
            std::string uuid = entry.second.description.uuid;
            std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::toupper(c); });
            return uuid == subTap.uid;
        });
        if (!exists)
            return kAudioHardwareBadObjectError;
    }

    Device aggregate;
    aggregate.name = description.name;
    aggregate.uid = description.uid;
    aggregate.isAggregate = true;
    aggregate.aggregate = description;
    aggregate.nominalRate = tapRate;
    if (description.mainSubDevice) {
        const Device& main = deviceWithUID(*description.mainSubDevice)->second;
        aggregate.nominalRate = main.nominalRate;
        aggregate.bufferFrames = main.bufferFrames;
    }
    const AudioObjectID id = nextObjectID++;
    devices[id] = std::move(aggregate);
    aggregateHistory.push_back(description);
    device = id;
    return kAudioHardwareNoError;
}

void SimulatedAudioHardware::stopAndForgetIOProcsOf(AudioObjectID device, std::unique_lock<std::mutex>& held)
{
    std::vector<std::shared_ptr<std::mutex>> cycleLocks;
    for (auto it = ioProcs.begin(); it != ioProcs.end();) {
        if (it->second.device == device) {
            cycleLocks.push_back(it->second.cycleLock);
            it = ioProcs.erase(it);
        } else {
            ++it;
        }
    }
    // Wait for cycles in progress without holding the object lock.
    held.unlock();
    for (auto& cycleLock : cycleLocks)
        std::lock_guard wait(*cycleLock);
    held.lock();
}

OSStatus SimulatedAudioHardware::destroyAggregateDevice(AudioObjectID device)
{
    std::unique_lock guard(objectsLock);
    if (OSStatus status = enter(Call::destroyAggregateDevice))
        return status;
    auto found = devices.find(device);
    if (found == devices.end() || !found->second.isAggregate)
        return kAudioHardwareBadObjectError;
    devices.erase(found);
    stopAndForgetIOProcsOf(device, guard);
    return kAudioHardwareNoError;
}

// --- IO procedures -----------------------------------------------------------------------------

OSStatus SimulatedAudioHardware::createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* context,
                                                AudioDeviceIOProcID& procID)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::createIOProcID))
        return status;
    if (devices.find(device) == devices.end())
        return kAudioHardwareBadObjectError;
    if (proc == nullptr)
        return kAudio_ParamError;
    if (ioProcIDLeftEmpty) {
        procID = 0;
        return kAudioHardwareNoError;
    }
    const AudioDeviceIOProcID id = nextIOProcID++;
    IOProc registered;
    registered.device = device;
    registered.proc = proc;
    registered.context = context;
    ioProcs[id] = std::move(registered);
    procID = id;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::startDevice))
        return status;
    auto found = ioProcs.find(procID);
    if (found == ioProcs.end() || found->second.device != device)
        return kAudioHardwareBadObjectError;
    found->second.running = true;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::stopDevice(AudioObjectID device, AudioDeviceIOProcID procID)
{
    std::unique_lock guard(objectsLock);
    if (OSStatus status = enter(Call::stopDevice))
        return status;
    auto found = ioProcs.find(procID);
    if (found == ioProcs.end() || found->second.device != device)
        return kAudioHardwareBadObjectError;
    found->second.running = false;
    auto cycleLock = found->second.cycleLock;
    guard.unlock();
    std::lock_guard wait(*cycleLock); // a cycle in progress finishes first
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID)
{
    std::unique_lock guard(objectsLock);
    if (OSStatus status = enter(Call::destroyIOProcID))
        return status;
    auto found = ioProcs.find(procID);
    if (found == ioProcs.end() || found->second.device != device)
        return kAudioHardwareBadObjectError;
    auto cycleLock = found->second.cycleLock;
    ioProcs.erase(found);
    guard.unlock();
    std::lock_guard wait(*cycleLock);
    return kAudioHardwareNoError;
}

// --- Listeners ---------------------------------------------------------------------------------

OSStatus SimulatedAudioHardware::addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                     std::shared_ptr<SerialQueue> queue,
                                                     AudioObjectPropertyListener handler,
                                                     AudioPropertyListenerRegistration& registration)
{
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::addPropertyListener))
        return status;
    if (!queue || !handler)
        return kAudio_ParamError;
    const bool supported
        = (object == kAudioObjectSystemObject && address.mSelector == kAudioHardwarePropertyDefaultOutputDevice)
        || (devices.find(object) != devices.end() && address.mSelector == kAudioDevicePropertyNominalSampleRate);
    if (!supported)
        return object == kAudioObjectSystemObject || devices.count(object) ? kAudioHardwareUnknownPropertyError
                                                                           : kAudioHardwareBadObjectError;
    Listener listener;
    listener.object = object;
    listener.address = address;
    listener.queue = queue;
    listener.handler = std::make_shared<const AudioObjectPropertyListener>(std::move(handler));
    const uint64_t token = nextListenerToken++;
    registration = AudioPropertyListenerRegistration { object, address, queue, listener.handler, token };
    listeners[token] = std::move(listener);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::removePropertyListener(const AudioPropertyListenerRegistration& registration)
{
    std::shared_ptr<SerialQueue> released; // dropped after the lock
    std::lock_guard guard(objectsLock);
    if (OSStatus status = enter(Call::removePropertyListener))
        return status;
    auto found = listeners.find(registration.token);
    if (found == listeners.end() || found->second.object != registration.object
        || !(found->second.address == registration.address) || found->second.queue != registration.queue
        || found->second.handler != registration.handler)
        return kAudioHardwareBadObjectError;
    released = std::move(found->second.queue);
    listeners.erase(found);
    return kAudioHardwareNoError;
}

} // namespace sorva
