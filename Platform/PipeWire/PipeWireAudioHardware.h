// AudioHardware on a PipeWire graph.
//
// Devices are the graph's Audio/Sink nodes (ID = node id, UID = node.name,
// name = node.description); the default output is the sink named by
// "default.audio.sink" in the "default" metadata. A process tap is realised by
// re-routing: while an aggregate built on it runs, every selected program's
// output stream is pointed (its "target.object" in the "default" metadata) at
// the capture stream "SORVA System Tap", which silences it at the speakers.
// An aggregate with an output device makes that tap inactive and adds the
// filter node "SORVA Output": the backend links the ports the session manager
// linked to the tap into the filter's inputs, and the filter's outputs into
// the output device (or, while it is away, the default device), so the path
// is one node in the graph cycle and adds no latency. Every move is written to a
// RoutingJournal first; stopping undoes the moves, and the next tap creation
// undoes what a crash left behind.
//
// Process objects, taps and aggregates are the backend's own IDs (process
// object = 0x40000000 + PID); everything else is a PipeWire global id.
//
// Statuses: no daemon reachable (the connection is retried by each call) ->
// kAudioHardwareNotRunningError; a client the access rules reject, or one that
// may not write the "default" metadata (restricted) when a tap is created ->
// kAudioHardwarePermissionDenied.
//
// Threads: all operations may be called from any non-real-time thread; they
// take the backend's PipeWire loop lock. The IO procedure runs on PipeWire's
// data thread. Listener jobs are queued on their serial queues from the
// PipeWire loop thread.
#pragma once

#include "Platform/AudioHardware.h"

#include <filesystem>
#include <memory>

namespace sorva {

class PipeWireAudioHardware final : public AudioHardware {
public:
    struct Options {
        // Where the routing journal lives; empty = RoutingJournal::defaultPath().
        std::filesystem::path journalPath;
        // How long set-up waits for the daemon to answer (a refused client's
        // streams never connect).
        int setupTimeoutMilliseconds = 3000;
    };

    PipeWireAudioHardware();
    explicit PipeWireAudioHardware(Options options);
    ~PipeWireAudioHardware() override;
    PipeWireAudioHardware(const PipeWireAudioHardware&) = delete;
    PipeWireAudioHardware& operator=(const PipeWireAudioHardware&) = delete;

    // Whether the daemon was reached (the connection is retried by every
    // call while it is not).
    bool isConnected();
    // Whether the daemon refused this client (its access rules reject it).
    // The service is there then, it only denies us: a permission problem.
    bool accessRefused();
    bool serviceAvailable() override { return isConnected() || accessRefused(); }

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

    struct Data;

private:
    std::unique_ptr<Data> data;
};

} // namespace sorva
