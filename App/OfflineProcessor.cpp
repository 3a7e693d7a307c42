#include "App/OfflineProcessor.h"

#include "Audio/BiquadEQ.h"
#include "Models/EQPresets.h"

#include <sndfile.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sorva {

namespace {

std::string quoted(const std::filesystem::path& path)
{
    return "'" + path.string() + "'";
}

std::string lowercase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// libsndfile's messages read "Format not recognised." or "System error : File
// too large."; after our own colon they read like strerror's texts.
std::string soundFileMessage(SNDFILE* file)
{
    std::string text = sf_strerror(file);
    // libsndfile's wording for a header whose rate or channel count it
    // rejects (0, or beyond what it handles) reads like a bug of its own.
    if (text.find("SF_INFO struct incomplete") != std::string::npos)
        return "its header gives no usable sample rate or channel count";
    const std::string systemPrefix = "System error : ";
    if (text.rfind(systemPrefix, 0) == 0)
        text.erase(0, systemPrefix.size());
    while (!text.empty() && (text.back() == '.' || text.back() == ' ' || text.back() == '\n'))
        text.pop_back();
    return text;
}

std::string formatGain(double dB)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", dB);
    return text;
}

// A file descriptor closed when it goes out of scope (close errors of the
// output are checked by closing it explicitly first).
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd(fd) { }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }
    int get() const { return fd; }
    int close()
    {
        int result = 0;
        if (fd >= 0)
            result = ::close(fd);
        fd = -1;
        return result;
    }

private:
    int fd;
};

struct SoundFileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

// The partly written output: a hidden file next to the target, removed unless
// it was renamed into place.
class PartialOutput {
public:
    explicit PartialOutput(const std::filesystem::path& target)
    {
        std::filesystem::path folder = target.parent_path();
        if (folder.empty())
            folder = ".";
        std::random_device entropy;
        for (int attempt = 0; attempt < 100; ++attempt) {
            char suffix[16];
            std::snprintf(suffix, sizeof suffix, "%08x", static_cast<unsigned>(entropy()));
            // Named after the target, so that a file left by a crash says
            // where it came from; shortened to stay within the name limit.
            std::string name = ".";
            name.append(target.filename().string().substr(0, 200)).append(".sorva-").append(suffix).append(".part");
            std::filesystem::path candidate = folder / name;
            // 0666 and the umask: the finished file gets the usual permissions.
            int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                descriptor = std::make_unique<Descriptor>(fd);
                path = candidate;
                return;
            }
            if (errno != EEXIST)
                throw OfflineProcessor::Error("cannot write " + quoted(target) + ": " + std::strerror(errno));
        }
        throw OfflineProcessor::Error("cannot write " + quoted(target) + ": no free temporary name in its folder");
    }
    PartialOutput(const PartialOutput&) = delete;
    PartialOutput& operator=(const PartialOutput&) = delete;
    ~PartialOutput()
    {
        descriptor.reset();
        if (!path.empty())
            ::unlink(path.c_str());
    }

    int fd() const { return descriptor->get(); }

    void commit(const std::filesystem::path& target)
    {
        if (descriptor->close() != 0)
            throw OfflineProcessor::Error("cannot write " + quoted(target) + ": " + std::strerror(errno));
        if (::rename(path.c_str(), target.c_str()) != 0)
            throw OfflineProcessor::Error("cannot write " + quoted(target) + ": " + std::strerror(errno));
        path.clear();
    }

private:
    std::unique_ptr<Descriptor> descriptor;
    std::filesystem::path path;
};

// Writes equalized blocks, in order, on a thread of its own: the copy into
// the page cache costs about a third of a run and overlaps the reading and
// equalizing of the next blocks. The caller fills the block freeBlock()
// returns and hands it over with submit(); the writer owns the sound file
// until finish() or destruction.
class BlockWriter {
public:
    BlockWriter(SNDFILE* sink, int64_t channels)
        : sink(sink)
        , channels(channels)
        , storage(static_cast<size_t>(slotCount * OfflineProcessor::blockFrames * channels))
        , thread([this] { run(); })
    {
    }
    BlockWriter(const BlockWriter&) = delete;
    BlockWriter& operator=(const BlockWriter&) = delete;
    ~BlockWriter()
    {
        {
            std::lock_guard guard(lock);
            abandoned = true;
        }
        changed.notify_all();
        thread.join();
    }

    // The next block to fill, once one is free; nullptr after a failed write.
    float* freeBlock()
    {
        std::unique_lock guard(lock);
        changed.wait(guard, [this] { return failed || submitted - written < slotCount; });
        if (failed)
            return nullptr;
        return slot(submitted);
    }

    // Hands over the block freeBlock() returned, holding this many frames.
    void submit(int64_t frames)
    {
        {
            std::lock_guard guard(lock);
            frameCounts[static_cast<size_t>(submitted % slotCount)] = frames;
            ++submitted;
        }
        changed.notify_all();
    }

    // Waits until every submitted block is written; false if a write failed.
    bool finish()
    {
        std::unique_lock guard(lock);
        changed.wait(guard, [this] { return failed || written == submitted; });
        return !failed;
    }

    std::string failure() const
    {
        std::lock_guard guard(lock);
        return message;
    }

private:
    static constexpr int64_t slotCount = 4;

    float* slot(int64_t index) { return &storage[static_cast<size_t>((index % slotCount) * OfflineProcessor::blockFrames * channels)]; }

    void run()
    {
        std::unique_lock guard(lock);
        for (;;) {
            changed.wait(guard, [this] { return abandoned || written < submitted; });
            if (abandoned)
                return;
            const int64_t index = written;
            const sf_count_t frames = frameCounts[static_cast<size_t>(index % slotCount)];
            guard.unlock();
            const bool complete = sf_writef_float(sink, slot(index), frames) == frames;
            guard.lock();
            if (!complete) {
                failed = true;
                message = soundFileMessage(sink);
                changed.notify_all();
                return;
            }
            ++written;
            changed.notify_all();
        }
    }

    SNDFILE* const sink;
    const int64_t channels;
    std::vector<float> storage;
    mutable std::mutex lock;
    std::condition_variable changed;
    // Blocks are handed over and written in order; slot i % slotCount holds block i.
    int64_t submitted = 0;
    int64_t written = 0;
    int64_t frameCounts[slotCount] = {};
    bool failed = false;
    bool abandoned = false;
    std::string message;
    std::thread thread; // last: starts once everything above is set up
};

} // namespace

EQConfig OfflineProcessor::configure(const Options& options, const EQConfig& base)
{
    EQConfig result = base;

    if (options.preset) {
        const std::string wanted = lowercase(*options.preset);
        const EQPreset* found = nullptr;
        for (const EQPreset& preset : EQPresets::all()) {
            if (lowercase(preset.name) == wanted) {
                found = &preset;
                break;
            }
        }
        if (!found) {
            std::string names;
            for (const EQPreset& preset : EQPresets::all())
                names += (names.empty() ? "" : ", ") + preset.name;
            throw Error("unknown preset '" + *options.preset + "' (the presets are " + names + ")");
        }
        // As the panel applies a preset: every band both lists have, then the
        // preset's output gain.
        for (size_t i = 0; i < std::min(found->gains.size(), result.bands.size()); ++i)
            result.bands[i].gain = found->gains[i];
        result.outputGain = found->outputGain;
    }

    if (options.gains) {
        const std::vector<double>& gains = *options.gains;
        if (gains.size() != result.bands.size())
            throw Error("--gains needs " + std::to_string(result.bands.size())
                        + " gains in dB separated by commas, one per band (got " + std::to_string(gains.size()) + ")");
        for (double gain : gains) {
            if (!std::isfinite(gain))
                throw Error("--gains needs finite numbers (got " + formatGain(gain) + ")");
        }
        for (size_t i = 0; i < gains.size(); ++i)
            result.bands[i].gain = gains[i];
    }

    if (options.outputGain) {
        if (!std::isfinite(*options.outputGain))
            throw Error("--output-gain needs a finite number (got " + formatGain(*options.outputGain) + ")");
        result.outputGain = *options.outputGain;
    }

    for (EQBand& band : result.bands)
        band.gain = std::clamp(band.gain, minBandGain, maxBandGain);
    result.outputGain = std::clamp(result.outputGain, minOutputGain, maxOutputGain);
    return result;
}

OfflineProcessor::OfflineProcessor(EQConfig configuration)
    : config(std::move(configuration))
{
}

OfflineProcessor::Summary OfflineProcessor::process(const std::filesystem::path& input,
                                                    const std::filesystem::path& output,
                                                    const Progress& progress) const
{
    // The input: opened first, so that its own errno explains a failure.
    Descriptor inputDescriptor(::open(input.c_str(), O_RDONLY | O_CLOEXEC));
    if (inputDescriptor.get() < 0)
        throw Error("cannot read " + quoted(input) + ": " + std::strerror(errno));
    struct stat inputStatus {};
    if (::fstat(inputDescriptor.get(), &inputStatus) != 0)
        throw Error("cannot read " + quoted(input) + ": " + std::strerror(errno));
    if (S_ISDIR(inputStatus.st_mode))
        throw Error("cannot read " + quoted(input) + ": it is a folder");

    SF_INFO inputInfo {};
    SoundFile source(sf_open_fd(inputDescriptor.get(), SFM_READ, &inputInfo, SF_FALSE));
    if (!source)
        throw Error("cannot read " + quoted(input) + " as audio: " + soundFileMessage(nullptr));
    if (inputInfo.channels < 1 || inputInfo.samplerate < 1)
        throw Error("cannot read " + quoted(input) + " as audio: it has no channels or no sample rate");

    // The output: checked before any work, so that a mistake costs nothing.
    // A symbolic link is written through, as any other program would.
    std::filesystem::path target = output;
    std::error_code failure;
    if (std::filesystem::is_symlink(output, failure) && std::filesystem::exists(output, failure)) {
        std::filesystem::path resolved = std::filesystem::canonical(output, failure);
        if (!failure)
            target = resolved;
    }
    struct stat outputStatus {};
    if (::stat(target.c_str(), &outputStatus) == 0) {
        if (outputStatus.st_dev == inputStatus.st_dev && outputStatus.st_ino == inputStatus.st_ino)
            throw Error("input and output are the same file (" + quoted(output) + ")");
        if (S_ISDIR(outputStatus.st_mode))
            throw Error("cannot write " + quoted(output) + ": it is a folder");
        // Renaming over a device or a pipe would replace it with a file.
        if (!S_ISREG(outputStatus.st_mode))
            throw Error("cannot write " + quoted(output) + ": it is not a regular file");
    }
    PartialOutput partial(target);

    // A plain float WAV whenever the data surely fits its 4 GiB limit; past
    // that, or when the length is unknown, RF64, which falls back to a WAV
    // header if the data turns out small enough.
    const bool totalKnown = inputInfo.frames > 0 && inputInfo.frames < SF_COUNT_MAX;
    const int64_t total = totalKnown ? static_cast<int64_t>(inputInfo.frames) : -1;
    constexpr int64_t wavDataLimit = (int64_t(1) << 32) - (int64_t(1) << 16);
    const bool fitsWav = totalKnown && total <= wavDataLimit / (4 * static_cast<int64_t>(inputInfo.channels));
    SF_INFO outputInfo {};
    outputInfo.samplerate = inputInfo.samplerate;
    outputInfo.channels = inputInfo.channels;
    outputInfo.format = (fitsWav ? SF_FORMAT_WAV : SF_FORMAT_RF64) | SF_FORMAT_FLOAT;
    SoundFile sink(sf_open_fd(partial.fd(), SFM_WRITE, &outputInfo, SF_FALSE));
    if (!sink)
        throw Error("cannot write " + quoted(output) + ": " + soundFileMessage(nullptr));
    if (!fitsWav)
        sf_command(sink.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    // The PEAK chunk is optional and would cost a scan of every block.
    sf_command(sink.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);

    // Exactly as an engine sets up its equalizer: two filtered channels,
    // reset, then the coefficients for this rate. Channels beyond the second
    // are gain-staged and limited with the others but not filtered.
    const int64_t channels = inputInfo.channels;
    BiquadEQ eq(static_cast<int64_t>(config.bands.size()), 2);
    eq.reset();
    eq.update(config.bands, config.outputGain, static_cast<double>(inputInfo.samplerate));

    BlockWriter writer(sink.get(), channels);
    int64_t done = 0;
    for (;;) {
        float* block = writer.freeBlock();
        if (!block)
            throw Error("cannot write " + quoted(output) + ": " + writer.failure());
        const sf_count_t got = sf_readf_float(source.get(), block, blockFrames);
        if (got <= 0)
            break;
        eq.processInterleaved(block, got, channels);
        writer.submit(got);
        done += got;
        if (progress && !progress(done, total, inputInfo.samplerate))
            throw Error("interrupted");
    }
    if (sf_error(source.get()) != SF_ERR_NO_ERROR)
        throw Error("cannot read " + quoted(input) + " as audio: " + soundFileMessage(source.get()));
    if (!writer.finish())
        throw Error("cannot write " + quoted(output) + ": " + writer.failure());
    // Once more at the end: a stop requested while the last read waited
    // (a pipe, a slow disk) still keeps the output from appearing.
    if (progress && !progress(done, total, inputInfo.samplerate))
        throw Error("interrupted");

    // sf_close writes the final header; its failure means a broken file.
    SNDFILE* finished = sink.release();
    if (sf_close(finished) != 0)
        throw Error("cannot write " + quoted(output) + ": the file could not be completed");
    partial.commit(target);

    return { done, channels, static_cast<int64_t>(inputInfo.samplerate) };
}

} // namespace sorva
