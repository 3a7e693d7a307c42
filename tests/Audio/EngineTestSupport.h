// Helpers shared by the engine and render-path tests: a capture of the trace
// log, a one-buffer list over a test's samples, and the tap both engines make.
// Threads: LogLines may be written from any thread; the rest is single-threaded.
#pragma once

#include "Audio/EQLog.h"
#include "Platform/AudioTypes.h"
#include "Platform/TapDescription.h"

#include <cctype>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sorva {

// Every line traced while alive.
class LogLines {
public:
    LogLines()
    {
        EQLog::setObserver([s = state](const std::string& line) {
            std::lock_guard guard(s->lock);
            s->lines.push_back(line);
        });
    }
    ~LogLines() { EQLog::setObserver({}); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    std::vector<std::string> all() const
    {
        std::lock_guard guard(state->lock);
        return state->lines;
    }
    void clear()
    {
        std::lock_guard guard(state->lock);
        state->lines.clear();
    }
    // Lines equal to text or, with prefix, starting with it.
    int count(const std::string& text, bool prefix = false) const
    {
        int n = 0;
        for (const auto& line : all())
            n += prefix ? line.starts_with(text) : line == text;
        return n;
    }

private:
    struct State {
        std::mutex lock;
        std::vector<std::string> lines;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

// A one-buffer list over samples (interleaved, channels per frame).
struct OneBuffer {
    OneBuffer(std::vector<float>& samples, uint32_t channels)
        : buffer { channels, static_cast<uint32_t>(samples.size() * sizeof(float)), samples.data() }
    {
    }
    OneBuffer(const OneBuffer&) = delete;
    AudioBuffer buffer;
    AudioBufferList list { 1, &buffer };
};

inline std::string uppercase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// The private global tap of everything but this process, muted while read.
inline TapDescription systemTap(AudioObjectID ownProcess, const std::string& uuid)
{
    TapDescription tap = TapDescription::stereoGlobalTapButExcludeProcesses({ ownProcess });
    tap.uuid = uuid;
    tap.name = "SORVA System Tap";
    tap.isPrivate = true;
    tap.muteBehavior = TapDescription::MuteBehavior::mutedWhenTapped;
    return tap;
}

} // namespace sorva
