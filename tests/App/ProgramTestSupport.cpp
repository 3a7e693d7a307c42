#include "App/ProgramTestSupport.h"

#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <QProcess>

#include <cmath>
#include <numbers>
#include <random>

namespace sorva::testing {

ProgramRun runSorva(const std::vector<std::string>& arguments, const std::filesystem::path& workingFolder)
{
    qtApp();
    QStringList words;
    for (const std::string& word : arguments)
        words << QString::fromStdString(word);
    QProcess process;
    process.setWorkingDirectory(QString::fromStdString(workingFolder.string()));
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(QStringLiteral(SORVA_BINARY), words);
    if (!process.waitForFinished(120000))
        process.kill();
    process.waitForFinished();
    return { process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
             process.readAllStandardOutput().toStdString(), process.readAllStandardError().toStdString() };
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
    const double bassNotes[] = { 41.2, 55.0, 49.0, 36.7 };
    std::vector<float> samples(static_cast<size_t>(frames * channels));
    double kickPhase = 0, bassPhase = 0;
    for (int64_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n) / sampleRate;
        const double beat = std::fmod(t, 0.5); // a beat every half second
        // Kick: a sine falling from 120 to 40 Hz, decaying over 0.1 s.
        kickPhase += 2 * std::numbers::pi * (40.0 + 80.0 * std::exp(-beat / 0.03)) / sampleRate;
        bassPhase += 2 * std::numbers::pi * bassNotes[static_cast<int64_t>(t / 0.5) % 4] / sampleRate;
        const double kick = 0.5 * std::exp(-beat / 0.1) * std::sin(kickPhase);
        const double bass = 0.3 * (std::sin(bassPhase) + 0.4 * std::sin(2 * bassPhase));
        double chord = 0;
        for (double frequency : { 220.0, 277.2, 329.6 })
            chord += 0.08 * std::sin(2 * std::numbers::pi * frequency * t);
        const double hat = 0.2 * std::exp(-std::fmod(t, 0.25) / 0.02) * noise(random);
        for (int64_t c = 0; c < channels; ++c) {
            // Each channel its own balance, so that mixing channels up shows.
            const double pan = 1.0 - 0.3 * static_cast<double>(c % 3);
            const double value = kick * pan + bass + chord * (2.0 - pan) + hat * (0.5 + 0.5 * pan);
            samples[static_cast<size_t>(n * channels + c)] = static_cast<float>(0.65 * value);
        }
    }
    return samples;
}

std::vector<float> equalized(const Sound& sound, const Settings& settings)
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = settings.gains.at(i);
    BiquadEQ eq(static_cast<int64_t>(bands.size()), 2);
    eq.update(bands, settings.outputGain, static_cast<double>(sound.sampleRate));
    std::vector<float> samples = sound.samples;
    eq.processInterleavedScalar(samples.data(), sound.frames(), sound.channels);
    return samples;
}

} // namespace sorva::testing
