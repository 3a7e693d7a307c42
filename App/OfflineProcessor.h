// Offline equalizing: runs an audio file through the same BiquadEQ, gain stage
// and limiter as the live path, at the file's own sample rate, and writes a
// 32-bit float WAV with the same rate and channel count.
//
// The output appears only when complete: it is written to a temporary file in
// the target folder and renamed over OUTPUT at the end; on any failure the
// temporary file is removed and OUTPUT is left as it was.
//
// Threads: an instance is used by one thread at a time. process() reads and
// equalizes on the caller's thread and hands the blocks to a writer thread of
// its own, which has finished before process() returns or throws; the
// progress callback runs on the caller's thread. Failures throw
// OfflineProcessor::Error with a one-line message for the user.
#pragma once

#include "Models/EQConfig.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sorva {

class OfflineProcessor {
public:
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // What the user asked for on top of a base configuration. Unset fields
    // keep the base's values.
    struct Options {
        std::optional<std::string> preset; // a name of EQPresets::all(), any letter case
        std::optional<std::vector<double>> gains; // dB, one per band, band order
        std::optional<double> outputGain; // dB
    };

    struct Summary {
        int64_t frames = 0;
        int64_t channels = 0;
        int64_t sampleRate = 0;
    };

    // Called after every block, and once more before the output is put in
    // place, with the frames equalized so far, the file's total (-1 when the
    // format does not tell) and its sample rate. Returning false stops the
    // run, which then fails with "interrupted".
    using Progress = std::function<bool(int64_t framesDone, int64_t framesTotal, int64_t sampleRate)>;

    // The ranges the settings store and the panel allow.
    static constexpr double minBandGain = -24.0;
    static constexpr double maxBandGain = 24.0;
    static constexpr double minOutputGain = -6.0;
    static constexpr double maxOutputGain = 6.0;

    // Frames per block; the result does not depend on it (the equalizer keeps
    // its filter memory and limiter envelope from block to block).
    static constexpr int64_t blockFrames = 4096;

    // The configuration for a run: the base, then the preset's gains and
    // output gain, then explicit gains, then an explicit output gain; every
    // gain clamped to its range. Throws Error for an unknown preset or a gain
    // list that is not one finite number per band.
    static EQConfig configure(const Options& options, const EQConfig& base);

    explicit OfflineProcessor(EQConfig configuration);

    const EQConfig& configuration() const { return config; }

    // Equalizes input into output. Throws Error for a missing, unreadable or
    // non-audio input, an output that cannot be written, the same file as
    // input and output, and an interrupted run.
    Summary process(const std::filesystem::path& input, const std::filesystem::path& output,
                    const Progress& progress = {}) const;

private:
    EQConfig config;
};

} // namespace sorva
