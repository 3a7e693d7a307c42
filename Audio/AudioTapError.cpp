#include "Audio/AudioTapError.h"

namespace sorva {

AudioTapError::AudioTapError(Kind kind, std::string callName, OSStatus status)
    : errorKind(kind)
    , call(std::move(callName))
    , code(status)
{
    // Statuses are printed as signed decimals, never as four-character codes.
    description = kind == Kind::permissionDenied ? std::string("System audio recording permission not granted")
                                                 : call + " failed (OSStatus " + std::to_string(code) + ")";
}

AudioTapError AudioTapError::osStatus(std::string callName, OSStatus status)
{
    return AudioTapError(Kind::osStatus, std::move(callName), status);
}

AudioTapError AudioTapError::permissionDenied() { return AudioTapError(Kind::permissionDenied, {}, 0); }

} // namespace sorva
