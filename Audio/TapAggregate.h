// The capture side both engines build on the audio hardware: a private
// process tap on the mix of the selected processes (muted at their own
// devices while the tap is read), a private aggregate device that holds the
// tap, and the IO procedure registered and started on that device. Each step
// reports its failure as an AudioTapError naming the failing call and leaves
// what was built before it in place: the engine decides how to take its
// whole chain down. teardown() removes IO procedure, aggregate and tap, in
// that order, and is safe at any time and repeatedly.
//
// Threads: every operation on the main thread. The IO procedure runs on the
// hardware's IO thread from startIOProc() until teardown() has stopped the
// device. The hardware must outlive the object.
#pragma once

#include "Audio/AudioTapError.h"
#include "Platform/AggregateDescription.h"
#include "Platform/AudioHardware.h"
#include "Platform/TapDescription.h"

#include <cstdint>
#include <string>

namespace sorva {

class TapAggregate {
public:
    // How a tap the hardware refuses is reported: as the missing permission
    // to record when the status says so (the four-character code "nope", or
    // 1), or always as the creation call's status.
    enum class DeniedPermission { reported, asStatus };

    // Gives the tap a new random identity.
    explicit TapAggregate(AudioHardware& hardware);
    ~TapAggregate();
    TapAggregate(const TapAggregate&) = delete;
    TapAggregate& operator=(const TapAggregate&) = delete;

    // The process object of a PID. Throws AudioTapError
    // ("TranslatePIDToProcessObject", status) when the read fails; a 0 read
    // with status 0 is returned as it is.
    static AudioObjectID translatePIDToProcessObject(AudioHardware& hardware, int32_t pid);

    // Creates the tap for a process selection, completed with this tap's
    // identity: tapUUID, "SORVA System Tap", private, muted when tapped.
    // Returns the completed description. Throws AudioTapError; no tap exists
    // then.
    TapDescription createTap(TapDescription selection, DeniedPermission deniedPermission);
    // The aggregate description every engine starts from: the given name and
    // UID, private, not stacked, starting the tap with the device, and the
    // tap (by its UUID in uppercase) drift-compensated. The caller adds the
    // main sub-device and the sub-devices, if any.
    AggregateDescription aggregateDescription(const std::string& name, const std::string& uid) const;
    // Throws AudioTapError ("AudioHardwareCreateAggregateDevice", status).
    void createAggregate(const AggregateDescription& description);
    // Registers proc on the aggregate device and starts the device. Throws
    // AudioTapError ("AudioDeviceCreateIOProcIDWithBlock" or
    // "AudioDeviceStart", status); a procedure that did register stays
    // registered until teardown().
    void startIOProc(AudioDeviceIOProc proc, void* context);
    void teardown();

    // What currently exists (0 = nothing).
    AudioObjectID currentTapID() const { return tapID; }
    AudioObjectID currentAggregateID() const { return aggregateID; }
    AudioDeviceIOProcID currentIOProcID() const { return ioProcID; }
    const std::string& tapIdentifier() const { return tapUUID; }

private:
    AudioHardware& hardware;
    AudioObjectID tapID = kAudioObjectUnknown;
    AudioObjectID aggregateID = kAudioObjectUnknown;
    AudioDeviceIOProcID ioProcID = 0;
    const std::string tapUUID;
};

} // namespace sorva
