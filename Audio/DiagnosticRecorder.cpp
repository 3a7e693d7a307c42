#include "Audio/DiagnosticRecorder.h"

#include "Audio/EQLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace sorva {

namespace fs = std::filesystem;

namespace {

const std::string contextSuffix = "-context.txt";
const std::string rawSuffix = "-raw.wav";
const std::string processedSuffix = "-processed.wav";

std::tm utcTime(std::chrono::system_clock::time_point when)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm parts {};
    gmtime_r(&seconds, &parts);
    return parts;
}

std::string formatUtc(std::chrono::system_clock::time_point when, const char* format)
{
    const std::tm parts = utcTime(when);
    char text[64];
    const size_t length = std::strftime(text, sizeof text, format, &parts);
    return std::string(text, length);
}

// File names must stay valid on every file system the folder may be copied
// to, so no ":" (and no "/" from an unusual label).
std::string safeForFileName(std::string text)
{
    std::replace(text.begin(), text.end(), ':', '-');
    std::replace(text.begin(), text.end(), '/', '-');
    return text;
}

void putLittleEndian(std::array<unsigned char, 44>& header, size_t offset, uint64_t value, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        header[offset + i] = static_cast<unsigned char>((value >> (8 * i)) & 0xff);
}

void putTag(std::array<unsigned char, 44>& header, size_t offset, const char (&tag)[5])
{
    std::memcpy(header.data() + offset, tag, 4);
}

// Frames of history, or 0 when the arguments make no sense (checked by the
// constructor); guards the conversion against NaN and overflow.
int64_t historyFrames(double seconds, double sampleRate)
{
    const double frames = std::floor(seconds * sampleRate);
    if (!(frames >= 1.0) || frames > 1e12)
        return 0;
    return static_cast<int64_t>(frames);
}

std::error_code lastError() { return { errno, std::system_category() }; }

std::error_code writeAll(int descriptor, const void* data, size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(descriptor, bytes, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return lastError();
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return {};
}

std::error_code writeFile(const fs::path& file, const void* first, size_t firstSize, const void* second,
                          size_t secondSize)
{
    // Private to the user, and never written through a symbolic link planted
    // at the file's name.
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0)
        return lastError();
    std::error_code error = writeAll(descriptor, first, firstSize);
    if (!error && secondSize > 0)
        error = writeAll(descriptor, second, secondSize);
    if (::close(descriptor) != 0 && !error)
        error = lastError();
    return error;
}

// Readers of the context file never see it half written: it is written under
// a temporary name and renamed over the target.
std::error_code writeFileAtomically(const fs::path& file, const std::string& text)
{
    fs::path temporary = file;
    temporary += ".tmp";
    if (std::error_code error = writeFile(temporary, text.data(), text.size(), nullptr, 0)) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        return error;
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        std::error_code error = lastError();
        std::error_code ignored;
        fs::remove(temporary, ignored);
        return error;
    }
    return {};
}

// Writes frames of two channel blocks into the history as L R L R ... The
// history is far larger than the caches and read back only for a capture,
// so the vector part bypasses the cache (streaming stores): the audio thread
// then pays no read-for-ownership miss per cache line written, which made
// the plain frame-by-frame copy cost three times the equalizer itself.
SORVA_HOT void interleaveIntoHistory(const float* left, const float* right, float* out, int64_t frames) noexcept
{
    int64_t i = 0;
#if defined(__SSE2__)
    // out always holds whole frames (8 bytes); one frame aligns it to 16.
    if (frames > 0 && (reinterpret_cast<uintptr_t>(out) & 15) != 0) {
        out[0] = left[0];
        out[1] = right[0];
        i = 1;
    }
    for (; i + 4 <= frames; i += 4) {
        const __m128 l = _mm_loadu_ps(left + i);
        const __m128 r = _mm_loadu_ps(right + i);
        _mm_stream_ps(out + 2 * i, _mm_unpacklo_ps(l, r));
        _mm_stream_ps(out + 2 * i + 4, _mm_unpackhi_ps(l, r));
    }
#endif
    for (; i < frames; ++i) {
        out[2 * i] = left[i];
        out[2 * i + 1] = right[i];
    }
}

} // namespace

DiagnosticRecorder::DiagnosticRecorder(double seconds, int64_t channels, double sampleRate,
                                       MainExecutor& mainExecutor, WallClock wallClock)
    : capacityFrames(historyFrames(seconds, sampleRate))
    , channels(channels)
    , sampleRate(sampleRate)
    , mainExecutor(mainExecutor)
    , wallClock(wallClock ? std::move(wallClock) : WallClock([] { return std::chrono::system_clock::now(); }))
    , flushQueue("com.sorva.app.diagnostics")
{
    if (capacityFrames < 1 || channels < 1 || !(sampleRate > 0))
        throw std::invalid_argument("DiagnosticRecorder needs at least one frame of history, one channel and a "
                                    "positive sample rate (got "
                                    + std::to_string(seconds) + " s, " + std::to_string(channels) + " channels, "
                                    + std::to_string(sampleRate) + " Hz)");
    const auto size = static_cast<size_t>(capacityFrames * channels);
    rawRing = ResidentSamples(size);
    processedRing = ResidentSamples(size);
}

DiagnosticRecorder::~DiagnosticRecorder()
{
    // The timer goes first so no tick can hand new work to the queue; the
    // queue (the last member) then finishes what it already has.
    flushTimer.reset();
}

void DiagnosticRecorder::push(const float* raw, const float* processed, int64_t frames) noexcept
{
    if (!raw || !processed || frames < 1)
        return;
    std::lock_guard guard(lock);
    writeRuns(frames, [&](int64_t done, int64_t slot, int64_t run) {
        const auto bytes = static_cast<size_t>(run * channels) * sizeof(float);
        std::memcpy(rawRing.data() + slot * channels, raw + done * channels, bytes);
        std::memcpy(processedRing.data() + slot * channels, processed + done * channels, bytes);
    });
}

void DiagnosticRecorder::pushPlanar(const float* rawLeft, const float* rawRight, const float* processedLeft,
                                    const float* processedRight, int64_t frames) noexcept
{
    if (!rawLeft || !rawRight || !processedLeft || !processedRight || frames < 1 || channels != 2)
        return;
    std::lock_guard guard(lock);
    writeRuns(frames, [&](int64_t done, int64_t slot, int64_t run) {
        interleaveIntoHistory(rawLeft + done, rawRight + done, rawRing.data() + slot * 2, run);
        interleaveIntoHistory(processedLeft + done, processedRight + done, processedRing.data() + slot * 2, run);
    });
#if defined(__SSE2__)
    // Streaming stores are weakly ordered: they must be visible before the
    // lock is released to a capture.
    _mm_sfence();
#endif
}

void DiagnosticRecorder::startContinuousCapture(fs::path directory, double chunkSeconds, int64_t retainChunks,
                                                std::function<std::string()> contextProvider)
{
    if (!(chunkSeconds > 0))
        throw std::invalid_argument("DiagnosticRecorder capture interval must be positive (got "
                                    + std::to_string(chunkSeconds) + " s)");
    flushTimer.reset();
    const auto interval
        = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(chunkSeconds));
    // The recorder owns the timer and cancels it before it goes away, so a
    // tick never outlives the recorder.
    flushTimer = mainExecutor.scheduleRepeating(
        interval, [this, directory = std::move(directory), retainChunks, provider = std::move(contextProvider)] {
            std::string extraContext = provider ? provider() : std::string();
            flushQueue.async([this, directory, retainChunks, extraContext = std::move(extraContext)] {
                if (markEvent("chunk", directory, extraContext))
                    prune(directory, retainChunks);
            });
        });
}

void DiagnosticRecorder::stopContinuousCapture() { flushTimer.reset(); }

void DiagnosticRecorder::waitForCaptures() { flushQueue.drain(); }

std::optional<DiagnosticRecorder::CaptureFiles> DiagnosticRecorder::markEvent(const std::string& label,
                                                                              const fs::path& directory,
                                                                              const std::string& extraContext)
{
    std::lock_guard captureGuard(captureLock);
    // Allocated outside the audio thread's lock, which it may be waiting for.
    if (rawCopy.empty()) {
        rawCopy.resize(rawRing.size());
        processedCopy.resize(processedRing.size());
    }
    // The history is copied a slice at a time, oldest first, so that the
    // audio thread never waits for more than one slice (about 0.1 ms) where
    // it would wait for a whole 12-second copy (milliseconds: a late
    // callback at 5 ms buffers). The capture ends where the history ended
    // when it began. Should the audio thread overwrite frames not yet copied
    // (this thread stalled for seconds), the capture starts again from the
    // oldest frame still held; after a few such restarts the rest is copied
    // in one piece.
    constexpr int64_t sliceFrames = 8192;
    constexpr int restartsBeforeOnePiece = 4;
    int64_t end = 0;
    int64_t begin = 0; // absolute frame numbers: frame n sits in slot n % capacityFrames
    {
        std::lock_guard guard(lock);
        end = totalFramesWritten;
        begin = end - std::min(capacityFrames, end);
    }
    auto copyFrames = [this](int64_t first, int64_t count, int64_t into) {
        const int64_t slot = first % capacityFrames;
        const int64_t firstRun = std::min(count, capacityFrames - slot);
        const auto source = [&](const ResidentSamples& ring, int64_t at) { return ring.data() + at * channels; };
        const auto target = [&](std::vector<float>& copy, int64_t at) { return copy.begin() + static_cast<ptrdiff_t>(at * channels); };
        std::copy(source(rawRing, slot), source(rawRing, slot + firstRun), target(rawCopy, into));
        std::copy(source(rawRing, 0), source(rawRing, count - firstRun), target(rawCopy, into + firstRun));
        std::copy(source(processedRing, slot), source(processedRing, slot + firstRun), target(processedCopy, into));
        std::copy(source(processedRing, 0), source(processedRing, count - firstRun), target(processedCopy, into + firstRun));
    };
    int64_t copied = 0;
    for (int restarts = 0; copied < end - begin;) {
        std::lock_guard guard(lock);
        const int64_t oldestHeld = totalFramesWritten - capacityFrames;
        if (begin + copied < oldestHeld) {
            begin = oldestHeld;
            copied = 0;
            ++restarts;
            if (begin >= end)
                break; // nothing of the captured stretch is left
        }
        const int64_t remaining = end - begin - copied;
        const int64_t run = restarts >= restartsBeforeOnePiece ? remaining : std::min(sliceFrames, remaining);
        copyFrames(begin + copied, run, copied);
        copied += run;
    }
    const int64_t frames = end - begin;
    if (frames < 1)
        return std::nullopt;
    const auto count = static_cast<size_t>(frames * channels);
    const std::span<const float> raw(rawCopy.data(), count);
    const std::span<const float> processed(processedCopy.data(), count);

    std::error_code ignored;
    fs::create_directories(directory.parent_path(), ignored);
    ::mkdir(directory.c_str(), 0700);
    struct stat folder {};
    if (::lstat(directory.c_str(), &folder) == 0 && S_ISLNK(folder.st_mode)) {
        EQLog::trace("diagnostic capture failed: " + directory.string() + " is a symbolic link");
        return std::nullopt;
    }

    const auto now = wallClock();
    const std::string base = safeForFileName(formatUtc(now, "%Y-%m-%dT%H:%M:%SZ") + "-" + label);
    CaptureFiles files { directory / (base + rawSuffix), directory / (base + processedSuffix),
                         directory / (base + contextSuffix) };

    char duration[64];
    std::snprintf(duration, sizeof duration, "%.1f", static_cast<double>(frames) / sampleRate);
    const std::string context = "Event: " + label + "\n" + "Time: " + formatUtc(now, "%Y-%m-%d %H:%M:%S +0000")
        + "\n" + "Captured: " + duration + " s (" + std::to_string(frames) + " frames)\n" + extraContext;

    std::error_code error = writeWAV(raw, channels, sampleRate, files.raw);
    if (!error)
        error = writeWAV(processed, channels, sampleRate, files.processed);
    if (!error)
        error = writeFileAtomically(files.context, context);
    if (error) {
        EQLog::trace("diagnostic capture failed: " + error.message());
        return std::nullopt;
    }
    EQLog::trace("diagnostic event '" + label + "' captured -> " + files.raw.filename().string());
    return files;
}

void DiagnosticRecorder::prune(const fs::path& directory, int64_t keepingNewest)
{
    struct Capture {
        std::string base;
        fs::file_time_type modified;
    };
    std::vector<Capture> captures;
    std::error_code error;
    fs::directory_iterator entries(directory, error);
    if (error)
        return;
    for (const fs::directory_entry& entry : entries) {
        const std::string name = entry.path().filename().string();
        if (name.size() < contextSuffix.size() || !name.ends_with(contextSuffix))
            continue;
        std::error_code timeError;
        fs::file_time_type modified = entry.last_write_time(timeError);
        if (timeError)
            modified = fs::file_time_type::min(); // no date: the distant past
        captures.push_back({ name.substr(0, name.size() - contextSuffix.size()), modified });
    }
    if (static_cast<int64_t>(captures.size()) <= std::max<int64_t>(keepingNewest, 0))
        return;

    // Captures written within one clock tick share a date; their stamped
    // names then decide, oldest first.
    std::sort(captures.begin(), captures.end(), [](const Capture& a, const Capture& b) {
        return a.modified != b.modified ? a.modified < b.modified : a.base < b.base;
    });
    const auto excess = static_cast<size_t>(static_cast<int64_t>(captures.size()) - std::max<int64_t>(keepingNewest, 0));
    for (size_t i = 0; i < excess; ++i) {
        std::error_code ignored;
        fs::remove(directory / (captures[i].base + rawSuffix), ignored);
        fs::remove(directory / (captures[i].base + processedSuffix), ignored);
        fs::remove(directory / (captures[i].base + contextSuffix), ignored);
    }
}

std::error_code DiagnosticRecorder::writeWAV(std::span<const float> samples, int64_t channels, double sampleRate,
                                             const fs::path& file)
{
    const uint64_t dataSize = samples.size() * sizeof(float);
    const auto rate = static_cast<uint64_t>(sampleRate);
    const auto channelCount = static_cast<uint64_t>(channels);

    std::array<unsigned char, 44> header {};
    putTag(header, 0, "RIFF");
    putLittleEndian(header, 4, dataSize + 36, 4);
    putTag(header, 8, "WAVE");
    putTag(header, 12, "fmt ");
    putLittleEndian(header, 16, 16, 4);
    putLittleEndian(header, 20, 3, 2); // IEEE floating point
    putLittleEndian(header, 22, channelCount, 2);
    putLittleEndian(header, 24, rate, 4);
    putLittleEndian(header, 28, channelCount * rate * 4, 4);
    putLittleEndian(header, 32, channelCount * 4, 2);
    putLittleEndian(header, 34, 32, 2);
    putTag(header, 36, "data");
    putLittleEndian(header, 40, dataSize, 4);

    if constexpr (std::endian::native == std::endian::little) {
        return writeFile(file, header.data(), header.size(), samples.data(), static_cast<size_t>(dataSize));
    } else {
        std::vector<uint32_t> swapped(samples.size());
        for (size_t i = 0; i < samples.size(); ++i)
            swapped[i] = __builtin_bswap32(std::bit_cast<uint32_t>(samples[i]));
        return writeFile(file, header.data(), header.size(), swapped.data(), static_cast<size_t>(dataSize));
    }
}

} // namespace sorva
