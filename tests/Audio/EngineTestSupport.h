// Helpers shared by the engine, render-path, recorder and log tests: a capture
// of the trace log, a folder for the log, a one-buffer list over a test's
// samples, the simulated system both engines run on, the tap they make and the
// samples of a captured WAV file.
// Threads: LogLines may be written from any thread; the rest is single-threaded.
#pragma once

#include "Audio/EQLog.h"
#include "Platform/AudioTypes.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/MonotonicClock.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/TapDescription.h"

#include <atomic>
#include <bit>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

namespace sorva {

// Every line traced while alive. The log calls its observer under a lock that
// setObserver also takes, so no call outlives the destructor.
class LogLines {
public:
    LogLines()
    {
        EQLog::setObserver([this](const std::string& line) {
            std::lock_guard guard(lock);
            lines.push_back(line);
        });
    }
    ~LogLines() { EQLog::setObserver({}); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    std::vector<std::string> all() const
    {
        std::lock_guard guard(lock);
        return lines;
    }
    void clear()
    {
        std::lock_guard guard(lock);
        lines.clear();
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
    mutable std::mutex lock;
    std::vector<std::string> lines;
};

// A fresh folder the log (and so the recorder's diagnostics) write to while alive.
struct LogFolder {
    LogFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-test-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
        EQLog::setDirectoryForTesting(path);
    }
    ~LogFolder()
    {
        EQLog::flush();
        EQLog::setDirectoryForTesting(std::nullopt);
        std::filesystem::remove_all(path);
    }
    LogFolder(const LogFolder&) = delete;
    LogFolder& operator=(const LogFolder&) = delete;
    std::filesystem::path path;
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

// Speakers and headphones on a simulated audio system, the main thread (run by
// the test), a clock the test moves and a wait that only records what an engine
// waits for, running duringWait meanwhile.
struct SimulatedSystem {
    std::function<void(std::chrono::nanoseconds)> recordingWait()
    {
        return [this](std::chrono::nanoseconds duration) {
            waits.push_back(duration);
            if (duringWait)
                duringWait();
        };
    }
    NanosecondClock testClock()
    {
        return [this] { return now.load(); };
    }
    // Delivers the listener notifications and runs what they posted to the main thread.
    void settle()
    {
        hardware.drainListenerQueues();
        executor.runPending();
    }

    LogLines log;
    SimulatedAudioHardware hardware;
    ManualMainExecutor executor;
    AudioObjectID speakers = hardware.addOutputDevice("Speakers", "speakers-uid", 48000.0);
    AudioObjectID headphones = hardware.addOutputDevice("Headphones", "headphones-uid", 44100.0);
    std::atomic<uint64_t> now { 100'000'000'000ull };
    std::vector<std::chrono::nanoseconds> waits;
    std::function<void()> duringWait;
    int configurationChanges = 0;
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

inline std::string readText(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return { std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>() };
}

// The samples of a 32-bit float WAV file's bytes, after its 44-byte header.
inline std::vector<float> wavSamples(const std::string& bytes)
{
    static_assert(std::endian::native == std::endian::little, "the check reads samples in place");
    std::vector<float> samples((bytes.size() - 44) / 4);
    std::memcpy(samples.data(), bytes.data() + 44, samples.size() * 4);
    return samples;
}

} // namespace sorva
