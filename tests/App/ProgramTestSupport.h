// Helpers for tests that run the built `sorva` program on real files: a
// scratch folder, running the program with its output captured, writing and
// reading sound files, a music-like test signal, and a plain reference of
// the equalizer, gain stage and limiter written from their description.
#pragma once

#include "TestFolders.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sorva::testing {

struct ProgramRun {
    int exitStatus = -1; // -1: did not exit normally
    std::string out;
    std::string err;
};

// Runs SORVA_BINARY with these arguments, standard output and error captured,
// in the given working folder.
ProgramRun runSorva(const std::vector<std::string>& arguments, const std::filesystem::path& workingFolder);

struct Sound {
    int64_t sampleRate = 0;
    int64_t channels = 0;
    int format = 0; // libsndfile's major | subtype
    std::vector<float> samples; // interleaved
    int64_t frames() const { return channels > 0 ? static_cast<int64_t>(samples.size()) / channels : 0; }
};

void writeSound(const std::filesystem::path& path, const Sound& sound);
Sound readSound(const std::filesystem::path& path);

// Several seconds of something like music: a bass line with a kick drum
// (content down at 30 Hz), chords, hi-hat noise (up at 8 kHz); every
// channel mixed differently; peaks near full scale. Seeded, so repeatable.
std::vector<float> musicLike(int64_t frames, int64_t channels, double sampleRate, uint32_t seed);

struct ReferenceSettings {
    std::vector<double> gains; // dB for 30, 125, 500, 2000, 8000 Hz
    double outputGainDB = 0.0;
};

// Channels 0 and 1 through five peaking biquads (transposed direct form II,
// sample by sample), then every channel through the gain stage and the peak
// limiter, frame by frame. limitedFrames counts the frames the limiter
// scaled down.
std::vector<float> referenceEqualize(const std::vector<float>& input, int64_t channels, double sampleRate,
                                     const ReferenceSettings& settings, int64_t* limitedFrames = nullptr);

} // namespace sorva::testing
