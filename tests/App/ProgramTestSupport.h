// Helpers for tests that run the built `sorva` program on real files: running
// the program with its output captured, writing and reading sound files, a
// test signal, and what the equalizer's plain loop makes of it.
#pragma once

#include "TestSupport.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace sorva::testing {

struct ProgramRun {
    int exitStatus = -1; // -1: did not exit normally
    std::string out;
    std::string err;
};

// What a run changes in the environment: a variable set, or removed where
// its value is empty.
using Variables = std::map<std::string, std::string>;

// Runs SORVA_BINARY with these arguments in the given working folder,
// standard output and error captured. With `ready`, once standard error shows
// it, sends `signal` (a program that does not show it within ten seconds is
// killed).
ProgramRun runSorva(const std::vector<std::string>& arguments, const std::filesystem::path& workingFolder,
                    const Variables& variables = {}, const std::string& ready = {}, int signal = 0);

struct Sound {
    int64_t sampleRate = 0;
    int64_t channels = 0;
    int format = 0; // libsndfile's major | subtype
    std::vector<float> samples; // interleaved
    int64_t frames() const { return channels > 0 ? static_cast<int64_t>(samples.size()) / channels : 0; }
};

void writeSound(const std::filesystem::path& path, const Sound& sound);
Sound readSound(const std::filesystem::path& path);

// Seeded white noise, each sample on its own, so that every band has
// something to work on and mixing channels up shows.
std::vector<float> noise(int64_t frames, int64_t channels, uint32_t seed);

struct Settings {
    std::vector<double> gains; // dB, band order
    double outputGain = 0.0; // dB
};

// The sound through the equalizer's plain per-band loop in one pass: the
// filters on the first two channels, gain stage and limiter on all. The
// equalizer itself is checked against an independent reference with the
// audio tests; what the program adds is everything around it.
std::vector<float> equalized(const Sound& sound, const Settings& settings);

} // namespace sorva::testing
