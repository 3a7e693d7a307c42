#include "App/ProgramTestSupport.h"
#include "TestFolders.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <numbers>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace sorva::testing {

ProgramRun runSorva(const std::vector<std::string>& arguments, const std::filesystem::path& workingFolder)
{
    // Captured into files outside the working folder, so that listing that
    // folder shows only what the program left there.
    ScratchFolder capture;
    const std::string outPath = (capture / "out").string();
    const std::string errPath = (capture / "err").string();

    std::vector<std::string> words { SORVA_BINARY };
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addchdir_np(&actions, workingFolder.c_str());
    pid_t child = -1;
    const int spawned = posix_spawn(&child, SORVA_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        throw std::runtime_error("cannot start " SORVA_BINARY);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    ProgramRun run;
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    return run;
}

void writeSound(const std::filesystem::path& path, const Sound& sound)
{
    SF_INFO info {};
    info.samplerate = static_cast<int>(sound.sampleRate);
    info.channels = static_cast<int>(sound.channels);
    info.format = sound.format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(sf_writef_float(file, sound.samples.data(), sound.frames()), sound.frames());
    EXPECT_EQ(sf_close(file), 0);
}

Sound readSound(const std::filesystem::path& path)
{
    SF_INFO info {};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    Sound sound;
    EXPECT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
    if (!file)
        return sound;
    sound.sampleRate = info.samplerate;
    sound.channels = info.channels;
    sound.format = info.format;
    sound.samples.resize(static_cast<size_t>(info.frames * info.channels));
    EXPECT_EQ(sf_readf_float(file, sound.samples.data(), info.frames), info.frames);
    sf_close(file);
    return sound;
}

std::vector<float> musicLike(int64_t frames, int64_t channels, double sampleRate, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> noise(-1.0, 1.0);
    const double pi = std::numbers::pi;
    const double bassNotes[] = { 41.2, 55.0, 49.0, 36.7 };
    const double chords[][3] = { { 220.0, 277.2, 329.6 }, { 196.0, 246.9, 293.7 }, { 174.6, 220.0, 261.6 } };

    std::vector<float> samples(static_cast<size_t>(frames * channels));
    double phase[8] = {};
    for (int64_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n) / sampleRate;
        const double beat = std::fmod(t, 0.5); // a beat every half second
        const double bass = bassNotes[static_cast<int64_t>(t / 0.5) % 4];
        const double* chord = chords[static_cast<int64_t>(t / 2.0) % 3];

        // Kick: a sine falling from 120 to 40 Hz, decaying over 0.1 s.
        phase[0] += 2 * pi * (40.0 + 80.0 * std::exp(-beat / 0.03)) / sampleRate;
        const double kick = 0.5 * std::exp(-beat / 0.1) * std::sin(phase[0]);
        phase[1] += 2 * pi * bass / sampleRate;
        const double bassLine = 0.3 * (std::sin(phase[1]) + 0.4 * std::sin(2 * phase[1])) * (0.6 + 0.4 * std::exp(-beat / 0.2));
        double pad = 0;
        for (int k = 0; k < 3; ++k) {
            phase[2 + k] += 2 * pi * chord[k] / sampleRate;
            pad += 0.06 * (std::sin(phase[2 + k]) + 0.5 * std::sin(2 * phase[2 + k]) + 0.25 * std::sin(3 * phase[2 + k]));
        }
        const double hat = 0.2 * std::exp(-std::fmod(t, 0.25) / 0.02) * noise(random);
        for (int64_t c = 0; c < channels; ++c) {
            // Each channel its own balance, so that mixing channels up shows.
            const double pan = 1.0 - 0.3 * static_cast<double>(c % 3);
            const double value = kick * pan + bassLine + pad * (2.0 - pan) + hat * (0.5 + 0.5 * pan);
            samples[static_cast<size_t>(n * channels + c)] = static_cast<float>(0.9 * value);
        }
    }
    return samples;
}

std::vector<float> referenceEqualize(const std::vector<float>& input, int64_t channels, double sampleRate,
                                     const ReferenceSettings& settings, int64_t* limitedFrames)
{
    const double frequencies[5] = { 30, 125, 500, 2000, 8000 };
    const double q = 1.4;

    struct Biquad {
        float b0, b1, b2, a1, a2;
        bool active;
    } filters[5];
    for (int b = 0; b < 5; ++b) {
        const double gain = settings.gains.at(static_cast<size_t>(b));
        filters[b].active = gain != 0.0;
        const double A = std::pow(10.0, gain / 40.0);
        const double w0 = 2.0 * std::numbers::pi * std::min(frequencies[b], 0.45 * sampleRate) / sampleRate;
        const double alpha = std::sin(w0) / (2.0 * q);
        const double a0 = 1.0 + alpha / A;
        filters[b].b0 = static_cast<float>((1.0 + alpha * A) / a0);
        filters[b].b1 = static_cast<float>((-2.0 * std::cos(w0)) / a0);
        filters[b].b2 = static_cast<float>((1.0 - alpha * A) / a0);
        filters[b].a1 = static_cast<float>((-2.0 * std::cos(w0)) / a0);
        filters[b].a2 = static_cast<float>((1.0 - alpha / A) / a0);
    }

    const double largest = *std::max_element(settings.gains.begin(), settings.gains.end());
    const float makeup = static_cast<float>(largest > 0 ? std::pow(10.0, -0.12 * largest / 20.0) : 1.0);
    const float gain = makeup * static_cast<float>(std::pow(10.0, settings.outputGainDB / 20.0));
    const float attack = static_cast<float>(std::exp(-1.0 / (sampleRate * 0.015)));
    const float release = static_cast<float>(std::exp(-1.0 / (sampleRate * 0.15)));

    std::vector<float> output = input;
    float z[2][5][2] = {};
    float envelope = 0.0f;
    int64_t limited = 0;
    const int64_t frames = static_cast<int64_t>(input.size()) / channels;
    for (int64_t n = 0; n < frames; ++n) {
        float* frame = &output[static_cast<size_t>(n * channels)];
        for (int64_t c = 0; c < std::min<int64_t>(channels, 2); ++c) {
            float x = frame[c];
            for (int b = 0; b < 5; ++b) {
                const Biquad& f = filters[b];
                if (!f.active)
                    continue;
                const float y = z[c][b][0] + f.b0 * x;
                z[c][b][0] = z[c][b][1] + (f.b1 * x - f.a1 * y);
                z[c][b][1] = f.b2 * x - f.a2 * y;
                x = y;
            }
            frame[c] = x;
        }
        float peak = 0.0f;
        for (int64_t c = 0; c < channels; ++c) {
            frame[c] *= gain;
            peak = std::max(peak, std::fabs(frame[c]));
        }
        const float coefficient = envelope < peak ? attack : release;
        envelope = envelope * coefficient + (1.0f - coefficient) * peak;
        if (envelope > 0.99f) {
            ++limited;
            for (int64_t c = 0; c < channels; ++c)
                frame[c] *= 0.99f / envelope;
        }
        for (int64_t c = 0; c < channels; ++c)
            frame[c] = std::isnan(frame[c]) ? 0.995f : std::clamp(frame[c], -0.995f, 0.995f);
    }
    if (limitedFrames)
        *limitedFrames = limited;
    return output;
}

} // namespace sorva::testing
