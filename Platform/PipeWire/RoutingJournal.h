// The record of every stream SORVA re-routed to its tap, kept on disk in the
// per-user state folder so that a crash cannot leave other programs' audio
// pointing at a tap that no longer exists. One line per routed stream, written
// (and flushed) before the stream is moved; the next start replays what it
// finds and clears the file; a clean stop clears it after undoing the moves.
//
// Not thread-safe: the PipeWire backend calls it with its loop lock held.
// Never used on the audio thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace sorva {

class RoutingJournal {
public:
    // One "default" metadata value: its type (may be empty) and its text.
    struct Value {
        std::string type;
        std::string value;
        bool operator==(const Value&) const = default;
    };

    // A stream as it was before SORVA routed it to the tap with serial
    // tapSerial.
    struct Entry {
        uint64_t streamSerial = 0;
        uint64_t tapSerial = 0;
        std::optional<Value> previousObject; // "target.object"
        std::optional<Value> previousNode; // "target.node"
        bool operator==(const Entry&) const = default;
    };

    explicit RoutingJournal(std::filesystem::path file);

    // $XDG_STATE_HOME/sorva/routing-journal (~/.local/state when unset).
    static std::filesystem::path defaultPath();

    const std::filesystem::path& path() const { return file; }

    // Appends one entry and flushes it to disk. False (with errno-based text in
    // error) when the folder or file cannot be written.
    bool append(const Entry& entry, std::string& error);
    // Every well-formed entry in file order; unreadable lines are skipped.
    // Anything but a regular file reads as empty; only the first
    // largestJournal bytes are read.
    std::vector<Entry> entries() const;
    // The entries of a journal's text, as entries() reads them.
    static std::vector<Entry> parse(std::string_view text);
    // One entry as append() writes it, line feed included.
    static std::string line(const Entry& entry);

    // Thousands of streams' worth: more is not a journal this program wrote.
    static constexpr off_t largestJournal = 4 << 20;
    // Removes the file. Missing is fine.
    void clear();

private:
    std::filesystem::path file;
};

} // namespace sorva
