#include "App/ProgramTestSupport.h"

#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <QProcess>

#include <csignal>

#include <random>

namespace sorva::testing {

ProgramRun runSorva(const std::vector<std::string>& arguments, const std::filesystem::path& workingFolder,
                    const Variables& variables, const std::string& ready, int signal)
{
    qtApp();
    QStringList words;
    for (const std::string& word : arguments)
        words << QString::fromStdString(word);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const auto& [name, value] : variables)
        value.empty() ? environment.remove(QString::fromStdString(name))
                      : environment.insert(QString::fromStdString(name), QString::fromStdString(value));
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(QString::fromStdString(workingFolder.string()));
    process.setStandardInputFile(QProcess::nullDevice());
    process.setReadChannel(QProcess::StandardError);
    process.start(QStringLiteral(SORVA_BINARY), words);
    std::string err;
    if (!ready.empty()) {
        while (err.find(ready) == std::string::npos && process.waitForReadyRead(10000))
            err += process.readAllStandardError().toStdString();
        if (err.find(ready) == std::string::npos)
            process.kill();
        else
            ::kill(static_cast<pid_t>(process.processId()), signal);
    }
    if (!process.waitForFinished(120000))
        process.kill();
    process.waitForFinished();
    err += process.readAllStandardError().toStdString();
    return { process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
             process.readAllStandardOutput().toStdString(), err };
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

std::vector<float> noise(int64_t frames, int64_t channels, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-0.6f, 0.6f);
    std::vector<float> samples(static_cast<size_t>(frames * channels));
    for (float& sample : samples)
        sample = uniform(random);
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
