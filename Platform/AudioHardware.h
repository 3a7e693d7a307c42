// The audio hardware as the capture engines see it: output devices and their
// properties, process objects, process taps, aggregate devices, IO procedures
// and property listeners. Two implementations: Platform/PipeWire (the real
// one) and Platform/Simulated (in memory, for tests and demos). Engines take an
// AudioHardware& and never know which one they have.
//
// Statuses: every call returns an OSStatus, 0 on success and a non-zero signed
// 32-bit status on failure (AudioTypes.h lists the usual ones). On failure the
// out-parameters are left untouched. kAudioHardwarePermissionDenied
// (1852797029, "nope") from createProcessTap means the program may not record
// system audio. Object IDs are never 0; 0 means "none".
//
// Threads: every operation may be called from any thread that is not an IO
// thread (the main thread and the listener queues call concurrently), and
// never from inside an IO procedure or while holding a lock an IO procedure
// takes. Implementations are internally synchronised. The IO procedure runs on
// the backend's real-time thread; listener handlers run on the serial queue
// they were registered with.
//
// Units: sample rates in hertz (64-bit float), buffer sizes in frames (one
// frame = one sample per channel), byte sizes in bytes, host times in
// hostTicks() nanoseconds.
#pragma once

#include "Platform/AggregateDescription.h"
#include "Platform/AudioTypes.h"
#include "Platform/SerialQueue.h"
#include "Platform/TapDescription.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorva {

// The render callback of an aggregate device, called once per hardware buffer
// on the device's real-time IO thread, one call at a time. context is the
// pointer given at registration. input carries the device's input side (for
// our aggregates: the tap's stereo mix, interleaved 32-bit float); output is
// written in place and goes to the device's output side. Any list may have 0
// buffers and any mData may be null; the time stamps may be ignored.
//
// A plain function pointer and a context, so that nothing is constructed or
// allocated per cycle. It must not block, allocate, throw or call back into
// AudioHardware.
using AudioDeviceIOProc = void (*)(void* context,
                                   const AudioTimeStamp* now,
                                   const AudioBufferList* input,
                                   const AudioTimeStamp* inputTime,
                                   AudioBufferList* output,
                                   const AudioTimeStamp* outputTime) noexcept;

// A property-listener handler. It takes no arguments: a handler reads the
// properties it cares about itself (they may have changed again by then).
using AudioObjectPropertyListener = std::function<void()>;

// Everything needed to remove a listener: the object, the address, the queue
// and the handler as they were registered, and the backend's token for the
// registration. Obtained from addPropertyListener, handed back to
// removePropertyListener. A default-constructed registration names nothing.
struct AudioPropertyListenerRegistration {
    AudioObjectID object = kAudioObjectUnknown;
    AudioObjectPropertyAddress address;
    std::shared_ptr<SerialQueue> queue;
    std::shared_ptr<const AudioObjectPropertyListener> handler;
    uint64_t token = 0; // 0 = not registered
};

// A running application as the desktop lists it, for the tap's test mode.
struct RunningApplication {
    int32_t processIdentifier = 0; // PID
    // The application's identifier (on PipeWire: application.id, else
    // application.process.binary, else application.name); absent when it has
    // none.
    std::optional<std::string> bundleIdentifier;
};

class AudioHardware {
public:
    virtual ~AudioHardware() = default;

    // Whether the audio service behind this backend can be reached: false
    // while its daemon is gone (a lost connection, or no daemon to connect
    // to). Asking again retries the connection once nothing lives on the
    // lost one. Backends without a separate service are always available.
    virtual bool serviceAvailable() { return true; }

    // --- Devices ---------------------------------------------------------

    // "dOut" on the system object: the output device that the system's sound
    // currently goes to (on PipeWire: the sink named by default.audio.sink),
    // never one of our own taps or aggregates. Status 0 with device 0 means
    // there is no output device at all.
    virtual OSStatus defaultOutputDevice(AudioObjectID& device) = 0;

    // "lnam": the human-readable name of a device (on PipeWire:
    // node.description).
    virtual OSStatus deviceName(AudioObjectID device, std::string& name) = 0;

    // "uid ": the device's stable unique identifier (on PipeWire: node.name).
    // Aggregate descriptions name their sub-devices by it.
    virtual OSStatus deviceUID(AudioObjectID device, std::string& uid) = 0;

    // "nsrt": the device's nominal sample rate in hertz. A readable rate may
    // still be 0 when the device has none yet; callers treat <= 0 as unknown.
    virtual OSStatus nominalSampleRate(AudioObjectID device, double& rate) = 0;

    // "fsiz": the device's IO buffer size in frames (the frames per IO cycle).
    // The aggregate devices we create accept a request; the backend may round
    // it or refuse it with a non-zero status.
    virtual OSStatus bufferFrameSize(AudioObjectID device, uint32_t& frames) = 0;
    virtual OSStatus setBufferFrameSize(AudioObjectID device, uint32_t frames) = 0;

    // --- Processes -------------------------------------------------------

    // "id2p" on the system object with the PID as qualifier: the process
    // object of a process. Status 0 with process 0 means the process is known
    // to the system but has no audio object (callers pass 0 on as it is).
    virtual OSStatus translatePIDToProcessObject(int32_t pid, AudioObjectID& process) = 0;

    // "prs#" on the system object, in two steps as the property is read: the
    // list's size in bytes (4 per process object), then the list itself. On
    // entry processes.size() is the capacity the caller offers; on success it
    // is resized to the number of objects written (at most the capacity).
    virtual OSStatus processObjectListByteSize(uint32_t& byteSize) = 0;
    virtual OSStatus processObjectList(std::vector<AudioObjectID>& processes) = 0;

    // "ppid": the PID of a process object (-1 if it has none).
    virtual OSStatus processPID(AudioObjectID process, int32_t& pid) = 0;

    // "piro": non-zero while the process is playing audio (on PipeWire: one of
    // its output streams is running).
    virtual OSStatus processIsRunningOutput(AudioObjectID process, uint32_t& running) = 0;

    // The running applications in the order the desktop lists them. Never
    // fails; empty when nothing can be listed.
    virtual std::vector<RunningApplication> runningApplications() = 0;

    // --- Process taps ----------------------------------------------------

    // Creates a process tap. The tap captures the selected processes' output
    // mixed down to stereo and, with muteBehavior mutedWhenTapped, silences
    // them at their devices while the tap is read by a running aggregate.
    // kAudioHardwarePermissionDenied: recording system audio is not allowed.
    virtual OSStatus createProcessTap(const TapDescription& description, AudioObjectID& tap) = 0;
    // Destroys a tap; the tapped processes play at their devices again.
    virtual OSStatus destroyProcessTap(AudioObjectID tap) = 0;

    // "tfmt": the tap's stream format (the sample rate the tap delivers).
    virtual OSStatus tapFormat(AudioObjectID tap, AudioStreamBasicDescription& format) = 0;
    // "tdsc": reads or replaces the tap's description. Writing the same
    // description re-applies it (the tap picks up processes that appeared).
    virtual OSStatus tapDescription(AudioObjectID tap, TapDescription& description) = 0;
    virtual OSStatus setTapDescription(AudioObjectID tap, const TapDescription& description) = 0;

    // --- Aggregate devices -----------------------------------------------

    // Creates an aggregate device: its input side is the taps of the
    // description, its output side (if any) the sub-devices, clocked by the
    // main sub-device. The taps must exist.
    virtual OSStatus createAggregateDevice(const AggregateDescription& description, AudioObjectID& device) = 0;
    // Destroys an aggregate device. Any IO procedure still registered on it is
    // stopped and destroyed first.
    virtual OSStatus destroyAggregateDevice(AudioObjectID device) = 0;

    // --- IO procedures ---------------------------------------------------

    // Registers proc with context on a device. It is not called until
    // startDevice. A backend may answer status 0 and leave procID 0; callers
    // treat that as a failure.
    virtual OSStatus createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* context,
                                    AudioDeviceIOProcID& procID)
        = 0;
    // Starts calling the procedure, once per hardware buffer.
    virtual OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
    // Stops calling it. When this returns, the procedure is not running and is
    // not called again (unless started again).
    virtual OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
    // Unregisters it (stopping it first if it runs). When this returns, the
    // backend holds no reference to the context any more.
    virtual OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) = 0;

    // --- Property listeners ----------------------------------------------

    // Registers handler for changes of a property of an object. Supported:
    // "dOut" on the system object (the default output device changed) and
    // "nsrt" on a device (its nominal rate changed). Each change is delivered
    // by queue->async(*handler) (one job per change, in order); handlers run
    // only on that queue. The backend keeps the queue alive while registered.
    // On success registration holds everything removePropertyListener needs.
    virtual OSStatus addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                         std::shared_ptr<SerialQueue> queue, AudioObjectPropertyListener handler,
                                         AudioPropertyListenerRegistration& registration)
        = 0;
    // Removes what addPropertyListener registered. When this returns no new
    // job is queued for it; jobs already queued still run. Call it from
    // outside the registration's own queue.
    virtual OSStatus removePropertyListener(const AudioPropertyListenerRegistration& registration) = 0;
};

} // namespace sorva
