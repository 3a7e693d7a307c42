// DiagnosticRecorder: keeps the last seconds of the single-device engine's
// audio twice (raw as captured, processed as played) and, once a minute,
// writes both as 32-bit float WAV files plus a context text file into the
// diagnostics folder, keeping only the newest captures.
//
// Threading: push() runs on the audio thread and takes `lock` (with priority
// inheritance) for the copy
// (no allocation, no logging). startContinuousCapture()/stopContinuousCapture()
// and the destructor run on the main thread; the timer ticks and the context
// provider run there too. All file work runs on the serial queue
// "com.sorva.app.diagnostics". markEvent() may be called from any thread but
// the audio thread (it is what the queue runs).
#pragma once

#include "Platform/HotPath.h"
#include "Platform/MainExecutor.h"
#include "Platform/SerialQueue.h"
#include "Platform/PriorityInheritanceMutex.h"
#include "Platform/ResidentSamples.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace sorva {

class DiagnosticRecorder {
public:
    struct CaptureFiles {
        std::filesystem::path raw;
        std::filesystem::path processed;
        std::filesystem::path context;
    };

    // Wall-clock time for file names and the context text; injectable so
    // tests can give captures distinct stamps.
    using WallClock = std::function<std::chrono::system_clock::time_point()>;

    // Allocates and clears both rings; no timer yet. Throws
    // std::invalid_argument unless there is at least one frame of history,
    // one channel and a positive rate.
    DiagnosticRecorder(double seconds, int64_t channels, double sampleRate, MainExecutor& mainExecutor,
                       WallClock wallClock = {});
    ~DiagnosticRecorder();
    DiagnosticRecorder(const DiagnosticRecorder&) = delete;
    DiagnosticRecorder& operator=(const DiagnosticRecorder&) = delete;

    // Two interleaved blocks of frames × channels samples. Audio thread.
    SORVA_HOT void push(const float* raw, const float* processed, int64_t frames) noexcept;
    // The same from planar stereo blocks (a recorder of two channels; any
    // other ignores them). Audio thread.
    SORVA_HOT void pushPlanar(const float* rawLeft, const float* rawRight, const float* processedLeft,
                    const float* processedRight, int64_t frames) noexcept;

    // Replaces any running timer by one that captures "chunk" every
    // chunkSeconds and then keeps the newest retainChunks captures. Main thread.
    // Throws std::invalid_argument for an interval that is not positive.
    void startContinuousCapture(std::filesystem::path directory, double chunkSeconds, int64_t retainChunks,
                                std::function<std::string()> contextProvider);
    // Main thread.
    void stopContinuousCapture();

    // Writes one capture of the whole history held so far; nothing when no
    // audio was pushed yet or a write failed (logged).
    std::optional<CaptureFiles> markEvent(const std::string& label, const std::filesystem::path& directory,
                                          const std::string& extraContext);

    // Waits until every capture handed to the queue so far has finished.
    void waitForCaptures();

    const int64_t capacityFrames;
    const int64_t channels;
    const double sampleRate;

private:
    // Hands copy(done, slot, run) the runs of a block of frames up to the
    // ring's end, then advances the write position: equal to writing frame
    // by frame into slot (writeIndex + i) mod capacityFrames, even for a
    // block longer than the ring. Called with the lock held.
    template <typename CopyRun>
    void writeRuns(int64_t frames, CopyRun copy) noexcept
    {
        int64_t slot = writeIndex;
        for (int64_t done = 0; done < frames;) {
            const int64_t run = std::min(frames - done, capacityFrames - slot);
            copy(done, slot, run);
            done += run;
            slot = (slot + run) % capacityFrames;
        }
        writeIndex = (writeIndex + frames) % capacityFrames;
        totalFramesWritten += frames;
    }

    void prune(const std::filesystem::path& directory, int64_t keepingNewest);
    // Writes the 44-byte header and the samples in one piece; returns the
    // failure, or an empty error code.
    static std::error_code writeWAV(std::span<const float> samples, int64_t channels, double sampleRate,
                                    const std::filesystem::path& file);

    // Resident from the start: the audio thread never faults a page in.
    ResidentSamples rawRing;
    ResidentSamples processedRing;
    int64_t writeIndex = 0;
    int64_t totalFramesWritten = 0;
    // Priority inheritance: the capture thread, holding it for a slice of
    // the copy, runs at the audio thread's priority while that waits.
    PriorityInheritanceMutex lock;
    MainExecutor& mainExecutor;
    WallClock wallClock;
    std::unique_ptr<MainExecutor::Timer> flushTimer;
    // markEvent's copies of the history, made once at the first capture and
    // reused: a fresh pair of multi-megabyte arrays every minute would leave
    // the allocator holding their pages after a few captures, so the
    // process's memory would creep instead of staying flat.
    std::mutex captureLock;
    std::vector<float> rawCopy;
    std::vector<float> processedCopy;
    // Last member: destroyed first, so queued captures finish while the
    // rings still exist.
    SerialQueue flushQueue;
};

} // namespace sorva
