// The states of the audio lifecycle: what the coordinator is doing with the
// capture engine. Each state has a string raw value equal to its case name
// (used in log lines and wherever a state is written out), and a state can be
// built back from that string. Plain value type; safe to use on any thread.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>

namespace sorva {

enum class AudioLifecycleState : uint8_t {
    inactive, // engine not running, nothing pending
    starting, // startOperation in progress
    running, // the last start succeeded
    stopping, // stopOperation in progress
    failed, // a start failed, or recovery gave up
    sleeping, // stopped because the machine sleeps; wake resumes
    recovering, // stopping before a retry, or waiting between attempts
};

// "inactive", "starting", …: the case name.
std::string_view rawValue(AudioLifecycleState state);

// The state whose raw value is exactly rawValue; nothing for any other string
// (matching is case-sensitive, no surrounding spaces allowed).
std::optional<AudioLifecycleState> audioLifecycleStateFromRawValue(std::string_view rawValue);

// Writes the case name (so that test failures and streams read naturally).
std::ostream& operator<<(std::ostream& stream, AudioLifecycleState state);

} // namespace sorva
