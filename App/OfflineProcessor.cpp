#include "App/OfflineProcessor.h"

#include "Audio/BiquadEQ.h"
#include "Models/EQPresets.h"

#include <sndfile.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <random>
#include <sys/stat.h>
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

// libsndfile's messages read "Format not recognised." or "System error : ...";
// they follow a colon in our own line.
std::string soundFileMessage(SNDFILE* file)
{
    std::string text = sf_strerror(file);
    while (!text.empty() && (text.back() == '.' || text.back() == ' ' || text.back() == '\n'))
        text.pop_back();
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
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
            std::string name = ".";
            name.append(target.filename().string()).append(".sorva-").append(suffix).append(".part");
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
    struct stat outputStatus {};
    if (::stat(output.c_str(), &outputStatus) == 0) {
        if (outputStatus.st_dev == inputStatus.st_dev && outputStatus.st_ino == inputStatus.st_ino)
            throw Error("input and output are the same file (" + quoted(output) + ")");
        if (S_ISDIR(outputStatus.st_mode))
            throw Error("cannot write " + quoted(output) + ": it is a folder");
    }
    PartialOutput partial(output);

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

    std::vector<float> block(static_cast<size_t>(blockFrames * channels));
    int64_t done = 0;
    for (;;) {
        const sf_count_t got = sf_readf_float(source.get(), block.data(), blockFrames);
        if (got <= 0)
            break;
        eq.processInterleaved(block.data(), got, channels);
        if (sf_writef_float(sink.get(), block.data(), got) != got)
            throw Error("cannot write " + quoted(output) + ": " + soundFileMessage(sink.get()));
        done += got;
        if (progress && !progress(done, total, inputInfo.samplerate))
            throw Error("interrupted");
    }
    if (sf_error(source.get()) != SF_ERR_NO_ERROR)
        throw Error("cannot read " + quoted(input) + " as audio: " + soundFileMessage(source.get()));
    // Once more at the end: a stop requested while the last read waited
    // (a pipe, a slow disk) still keeps the output from appearing.
    if (progress && !progress(done, total, inputInfo.samplerate))
        throw Error("interrupted");

    // sf_close writes the final header; its failure means a broken file.
    SNDFILE* finished = sink.release();
    if (sf_close(finished) != 0)
        throw Error("cannot write " + quoted(output) + ": the file could not be completed");
    partial.commit(output);

    return { done, channels, static_cast<int64_t>(inputInfo.samplerate) };
}

} // namespace sorva
