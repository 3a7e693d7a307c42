// The error every failure of setting up the audio path is reported with: the
// failing call's (or step's) name and its status, or the missing permission
// to record system audio. Thrown by the engines' start operations on the main
// thread; never thrown on an audio thread.
#pragma once

#include "Platform/AudioTypes.h"

#include <exception>
#include <string>

namespace sorva {

class AudioTapError : public std::exception {
public:
    enum class Kind { osStatus, permissionDenied };

    static AudioTapError osStatus(std::string callName, OSStatus status);
    static AudioTapError permissionDenied();

    Kind kind() const { return errorKind; }
    bool isPermissionDenied() const { return errorKind == Kind::permissionDenied; }
    // The call or step name and status of an osStatus error ("" and 0 for
    // permissionDenied).
    const std::string& callName() const { return call; }
    OSStatus status() const { return code; }

    // "<call> failed (OSStatus <signed decimal>)" or
    // "System audio recording permission not granted".
    const std::string& errorDescription() const { return description; }
    const char* what() const noexcept override { return description.c_str(); }

    bool operator==(const AudioTapError& other) const
    {
        return errorKind == other.errorKind && call == other.call && code == other.code;
    }

private:
    AudioTapError(Kind kind, std::string callName, OSStatus status);

    Kind errorKind;
    std::string call;
    OSStatus code;
    std::string description;
};

} // namespace sorva
