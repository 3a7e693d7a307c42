// An audio system in memory, behind the AudioHardware interface: output
// devices with IDs, names, UIDs, rates and buffer sizes; process objects and
// running applications; taps, aggregate devices and IO procedures that are
// recorded when created and forgotten when destroyed, so that a test can
// assert that nothing is left; a status to inject for every call; IO cycles
// run one at a time by the caller (runIOCycle) or at real-time pace by
// SimulatedRealtimeDriver; device and rate changes that fire the registered
// listeners on their queues.
//
// Threads: every operation is thread-safe. runIOCycle() may be called from
// any thread (the test's, or the driver's "IO thread"); it calls the
// procedure with the object lock released but holds the procedure's cycle
// lock, so stopDevice()/destroyIOProcID() return only after a cycle in
// progress has finished, and no cycle starts after they return. The
// simulator's own statuses: kAudioHardwareBadObjectError for an unknown
// object, kAudioHardwareUnknownPropertyError for a listener on an
// unsupported property.
#pragma once

#include "Platform/AudioHardware.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sorva {

class SimulatedAudioHardware final : public AudioHardware {
public:
    // Every call of the interface, for fault injection and call counting.
    enum class Call {
        defaultOutputDevice,
        deviceName,
        deviceUID,
        nominalSampleRate,
        bufferFrameSize,
        setBufferFrameSize,
        translatePIDToProcessObject,
        processObjectListByteSize,
        processObjectList,
        processPID,
        processIsRunningOutput,
        createProcessTap,
        destroyProcessTap,
        tapFormat,
        tapDescription,
        setTapDescription,
        createAggregateDevice,
        destroyAggregateDevice,
        createIOProcID,
        startDevice,
        stopDevice,
        destroyIOProcID,
        addPropertyListener,
        removePropertyListener,
    };
    static const char* callName(Call call);

    // Starts with no devices, no default device, and one process object: this
    // process (getpid()), not playing.
    SimulatedAudioHardware();
    ~SimulatedAudioHardware() override;
    SimulatedAudioHardware(const SimulatedAudioHardware&) = delete;
    SimulatedAudioHardware& operator=(const SimulatedAudioHardware&) = delete;

    // --- Building the simulated system ------------------------------------

    // Adds an output device; the first one added becomes the default.
    AudioObjectID addOutputDevice(std::string name, std::string uid, double nominalRate = 48000.0,
                                  uint32_t bufferFrames = 512);
    // Removes a device (reads of it fail afterwards). If it was the default,
    // there is no default device any more (listeners fire).
    void removeDevice(AudioObjectID device);
    // Makes device (0 = none) the default output device and fires the "dOut"
    // listeners, whether or not the value changed.
    void setDefaultOutputDevice(AudioObjectID device);
    // Changes a device's nominal rate and fires its "nsrt" listeners.
    void setNominalSampleRate(AudioObjectID device, double rate);

    // Adds a process object for pid; with a bundle identifier it is also
    // listed as a running application (in the order added).
    AudioObjectID addProcess(int32_t pid, bool runningOutput,
                             std::optional<std::string> bundleIdentifier = std::nullopt);
    void setProcessRunningOutput(AudioObjectID process, bool running);

    // The audio service going away and coming back (a daemon restart); the
    // calls themselves keep working, failures are injected separately.
    void setServiceAvailable(bool available) { serviceUp = available; }
    bool serviceAvailable() override { return serviceUp; }
    AudioObjectID ownProcessObject() const { return ownProcess; }

    // The rate taps report in "tfmt" (48000 unless set).
    void setTapSampleRate(double rate);

    // --- Fault injection --------------------------------------------------

    // After letting `skip` further calls of `call` through, the next `times`
    // calls return status without doing anything (times < 0: every call until
    // cleared).
    void injectStatus(Call call, OSStatus status, int times = -1, int skip = 0);
    void clearInjectedStatuses();
    // createIOProcID answers 0 but leaves the procedure ID empty.
    void setCreateIOProcLeavesIDEmpty(bool leavesEmpty);
    // Taps deliver silence (what the real-time driver feeds while set).
    void setTapsDeliverSilence(bool silent);
    bool tapsDeliverSilence() const { return silentTaps.load(); }

    int callCount(Call call) const;

    // While paused, changes are remembered instead of delivered; resuming
    // queues them in order (for "changed twice before the handler ran").
    void pauseListenerDelivery();
    void resumeListenerDelivery();

    // Waits until every listener job queued so far on the queues of the
    // registered listeners has run.
    void drainListenerQueues();

    // --- Inspection --------------------------------------------------------

    size_t liveTaps() const;
    size_t liveAggregates() const;
    size_t liveIOProcs() const;
    size_t runningIOProcs() const;
    size_t liveListeners() const;
    // No tap, aggregate, IO procedure or listener is left.
    bool nothingAlive() const;

    std::optional<TapDescription> tapDescriptionOf(AudioObjectID tap) const;
    std::optional<AggregateDescription> aggregateDescriptionOf(AudioObjectID device) const;
    // Descriptions of every tap and aggregate ever created, in order.
    std::vector<TapDescription> createdTaps() const;
    std::vector<AggregateDescription> createdAggregates() const;
    // The last buffer size written with setBufferFrameSize on device.
    std::optional<uint32_t> requestedBufferFrameSize(AudioObjectID device) const;
    // Devices that have a started IO procedure, in creation order.
    std::vector<AudioObjectID> devicesWithRunningIOProcs() const;

    // --- IO cycles ----------------------------------------------------------

    // Runs one cycle of every started IO procedure of device with the given
    // lists. Returns how many procedures ran (0 if none is started).
    int runIOCycle(AudioObjectID device, const AudioBufferList* input, AudioBufferList* output);

    // --- AudioHardware -------------------------------------------------------

    OSStatus defaultOutputDevice(AudioObjectID& device) override;
    OSStatus deviceName(AudioObjectID device, std::string& name) override;
    OSStatus deviceUID(AudioObjectID device, std::string& uid) override;
    OSStatus nominalSampleRate(AudioObjectID device, double& rate) override;
    OSStatus bufferFrameSize(AudioObjectID device, uint32_t& frames) override;
    OSStatus setBufferFrameSize(AudioObjectID device, uint32_t frames) override;
    OSStatus translatePIDToProcessObject(int32_t pid, AudioObjectID& process) override;
    OSStatus processObjectListByteSize(uint32_t& byteSize) override;
    OSStatus processObjectList(std::vector<AudioObjectID>& processes) override;
    OSStatus processPID(AudioObjectID process, int32_t& pid) override;
    OSStatus processIsRunningOutput(AudioObjectID process, uint32_t& running) override;
    std::vector<RunningApplication> runningApplications() override;
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID& tap) override;
    OSStatus destroyProcessTap(AudioObjectID tap) override;
    OSStatus tapFormat(AudioObjectID tap, AudioStreamBasicDescription& format) override;
    OSStatus tapDescription(AudioObjectID tap, TapDescription& description) override;
    OSStatus setTapDescription(AudioObjectID tap, const TapDescription& description) override;
    OSStatus createAggregateDevice(const AggregateDescription& description, AudioObjectID& device) override;
    OSStatus destroyAggregateDevice(AudioObjectID device) override;
    OSStatus createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* context,
                            AudioDeviceIOProcID& procID) override;
    OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 std::shared_ptr<SerialQueue> queue, AudioObjectPropertyListener handler,
                                 AudioPropertyListenerRegistration& registration) override;
    OSStatus removePropertyListener(const AudioPropertyListenerRegistration& registration) override;

private:
    struct Device {
        std::string name;
        std::string uid;
        double nominalRate = 48000.0;
        uint32_t bufferFrames = 512;
        std::optional<uint32_t> requestedBufferFrames;
        bool isAggregate = false;
        AggregateDescription aggregate;
    };
    struct Process {
        int32_t pid = 0;
        bool runningOutput = false;
        std::optional<std::string> bundleIdentifier;
    };
    struct Tap {
        TapDescription description;
    };
    struct IOProc {
        AudioObjectID device = 0;
        AudioDeviceIOProc proc = nullptr;
        void* context = nullptr;
        bool running = false;
        // Held for the whole of a cycle, so that stopping waits for it.
        std::shared_ptr<std::mutex> cycleLock = std::make_shared<std::mutex>();
    };
    struct Listener {
        AudioObjectID object = 0;
        AudioObjectPropertyAddress address;
        std::shared_ptr<SerialQueue> queue;
        std::shared_ptr<const AudioObjectPropertyListener> handler;
    };
    struct Injection {
        OSStatus status = 0;
        int remaining = 0; // < 0: forever
        int skip = 0; // calls still let through first
    };

    // Counts the call and returns the injected status (0 if none). Caller
    // holds objectsLock.
    OSStatus enter(Call call);
    void fireListeners(AudioObjectID object, uint32_t selector);
    void stopAndForgetIOProcsOf(AudioObjectID device, std::unique_lock<std::mutex>& held);

    mutable std::mutex objectsLock;
    AudioObjectID nextObjectID = 2; // 1 is the system object
    AudioDeviceIOProcID nextIOProcID = 1;
    uint64_t nextListenerToken = 1;
    AudioObjectID defaultDevice = kAudioObjectUnknown;
    AudioObjectID ownProcess = kAudioObjectUnknown;
    double tapRate = 48000.0;
    bool ioProcIDLeftEmpty = false;
    std::atomic<bool> silentTaps { false };
    std::map<AudioObjectID, Device> devices;
    std::map<AudioObjectID, Process> processes;
    std::vector<AudioObjectID> processOrder;
    std::map<AudioObjectID, Tap> taps;
    std::map<AudioDeviceIOProcID, IOProc> ioProcs;
    std::map<uint64_t, Listener> listeners;
    std::map<Call, Injection> injections;
    std::map<Call, int> calls;
    std::vector<TapDescription> tapHistory;
    std::vector<AggregateDescription> aggregateHistory;
    bool deliveryPaused = false;
    std::vector<Listener> heldDeliveries;
    std::atomic<bool> serviceUp { true };
};

} // namespace sorva
