// The vocabulary shared by the audio-hardware interface, its backends and the
// engines: object IDs, statuses, property selectors, buffer lists and stream
// formats. Plain values only; nothing here does anything.
#pragma once

#include <cstdint>

namespace sorva {

// An audio object: a device, a tap, an aggregate device, a process object.
// 0 never names an object.
using AudioObjectID = uint32_t;
inline constexpr AudioObjectID kAudioObjectUnknown = 0;
// The system object: owner of the default-device, process-list and
// PID-translation properties.
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

// A registered IO procedure; 0 = none.
using AudioDeviceIOProcID = uint32_t;

// Result of every audio-hardware call: 0 on success, a non-zero signed 32-bit
// status on failure. Statuses are compared and printed as signed decimals.
using OSStatus = int32_t;

constexpr uint32_t fourCharCode(const char (&code)[5]) noexcept
{
    return (static_cast<uint32_t>(static_cast<unsigned char>(code[0])) << 24)
        | (static_cast<uint32_t>(static_cast<unsigned char>(code[1])) << 16)
        | (static_cast<uint32_t>(static_cast<unsigned char>(code[2])) << 8)
        | static_cast<uint32_t>(static_cast<unsigned char>(code[3]));
}

inline constexpr OSStatus kAudioHardwareNoError = 0;
// "nope": the caller may not do this. On a tap creation it means that the user
// has not granted the permission to record system audio (a refused PipeWire
// client, -EACCES, maps here).
inline constexpr OSStatus kAudioHardwareIllegalOperationError = static_cast<OSStatus>(fourCharCode("nope"));
inline constexpr OSStatus kAudioHardwarePermissionDenied = kAudioHardwareIllegalOperationError;
static_assert(kAudioHardwarePermissionDenied == 1852797029);
inline constexpr OSStatus kAudioHardwareNotRunningError = static_cast<OSStatus>(fourCharCode("stop"));
inline constexpr OSStatus kAudioHardwareUnspecifiedError = static_cast<OSStatus>(fourCharCode("what"));
inline constexpr OSStatus kAudioHardwareUnknownPropertyError = static_cast<OSStatus>(fourCharCode("who?"));
inline constexpr OSStatus kAudioHardwareBadPropertySizeError = static_cast<OSStatus>(fourCharCode("!siz"));
inline constexpr OSStatus kAudioHardwareBadObjectError = static_cast<OSStatus>(fourCharCode("!obj"));
inline constexpr OSStatus kAudioHardwareBadDeviceError = static_cast<OSStatus>(fourCharCode("!dev"));
inline constexpr OSStatus kAudioHardwareUnsupportedOperationError = static_cast<OSStatus>(fourCharCode("unop"));
inline constexpr OSStatus kAudio_ParamError = -50;

// Property selectors (all properties use the global scope and element 0).
inline constexpr uint32_t kAudioHardwarePropertyDefaultOutputDevice = fourCharCode("dOut"); // system object
inline constexpr uint32_t kAudioHardwarePropertyProcessObjectList = fourCharCode("prs#"); // system object
inline constexpr uint32_t kAudioHardwarePropertyTranslatePIDToProcessObject = fourCharCode("id2p"); // system object
inline constexpr uint32_t kAudioDevicePropertyNominalSampleRate = fourCharCode("nsrt"); // device
inline constexpr uint32_t kAudioDevicePropertyBufferFrameSize = fourCharCode("fsiz"); // device
inline constexpr uint32_t kAudioObjectPropertyName = fourCharCode("lnam"); // device
inline constexpr uint32_t kAudioDevicePropertyDeviceUID = fourCharCode("uid "); // device
inline constexpr uint32_t kAudioProcessPropertyPID = fourCharCode("ppid"); // process object
inline constexpr uint32_t kAudioProcessPropertyIsRunningOutput = fourCharCode("piro"); // process object
inline constexpr uint32_t kAudioTapPropertyFormat = fourCharCode("tfmt"); // tap
inline constexpr uint32_t kAudioTapPropertyDescription = fourCharCode("tdsc"); // tap
inline constexpr uint32_t kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
inline constexpr uint32_t kAudioObjectPropertyElementMain = 0;

struct AudioObjectPropertyAddress {
    uint32_t mSelector = 0;
    uint32_t mScope = kAudioObjectPropertyScopeGlobal;
    uint32_t mElement = kAudioObjectPropertyElementMain;
    bool operator==(const AudioObjectPropertyAddress&) const = default;
};

// One buffer of an IO cycle: mNumberChannels interleaved 32-bit float
// channels, mDataByteSize bytes of samples, frame after frame. mData may be
// null.
struct AudioBuffer {
    uint32_t mNumberChannels = 0;
    uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

// The buffers of one side of an IO cycle: mNumberBuffers records at mBuffers.
// The list does not own the records or the samples.
struct AudioBufferList {
    uint32_t mNumberBuffers = 0;
    AudioBuffer* mBuffers = nullptr;
};

// When a cycle's samples are (were, will be) at the device: host-clock ticks
// (hostTicks()) and the device's running frame count.
struct AudioTimeStamp {
    uint64_t mHostTime = 0;
    double mSampleTime = 0.0;
    uint32_t mFlags = 0;
};

// mFlags: the stream was paused or suspended by the graph since its previous
// cycle (nothing played), so the time since then is no gap between cycles.
inline constexpr uint32_t kAudioTimeStampResumed = 1u << 0;

// A stream format (the tap's "tfmt"): 40 bytes, sample rate first.
struct AudioStreamBasicDescription {
    double mSampleRate = 0.0; // Hz
    uint32_t mFormatID = 0; // fourCharCode("lpcm") for linear PCM
    uint32_t mFormatFlags = 0;
    uint32_t mBytesPerPacket = 0;
    uint32_t mFramesPerPacket = 0;
    uint32_t mBytesPerFrame = 0;
    uint32_t mChannelsPerFrame = 0;
    uint32_t mBitsPerChannel = 0;
    uint32_t mReserved = 0;
};
static_assert(sizeof(AudioStreamBasicDescription) == 40);

inline constexpr uint32_t kAudioFormatLinearPCM = fourCharCode("lpcm");
inline constexpr uint32_t kAudioFormatFlagIsFloat = 1u << 0;
inline constexpr uint32_t kAudioFormatFlagIsPacked = 1u << 3;
inline constexpr uint32_t kAudioFormatFlagIsNonInterleaved = 1u << 5;

} // namespace sorva
