// `sorva process` starts from what the user last set in the equalizer: the
// saved gains and output gain, with the command line's options on top.
#include "App/ProgramTestSupport.h"
#include "Models/EQSettings.h"
#include "TestFolders.h"

#include <gtest/gtest.h>
#include <sndfile.h>

using namespace sorva;
using namespace sorva::testing;

TEST(ProcessSavedConfiguration, WithoutOptionsTheSavedGainsApplyAndOptionsStillWin)
{
    ConfigHome home; // inherited by the program
    ScratchFolder folder;
    Sound input;
    input.sampleRate = 48000;
    input.channels = 2;
    input.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    input.samples = musicLike(2 * 48000, 2, 48000.0, 5);
    writeSound(folder / "music.wav", input);

    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    const std::vector<double> saved { 6, -3, 4, -2, 30 }; // the last is clamped to 24 on load
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = saved[i];
    EQSettings::saveGains(bands);
    EQSettings::saveOutputGain(-2);

    ProgramRun run = runSorva({ "process", "music.wav", "saved.wav" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(readSound(folder / "saved.wav").samples,
              referenceEqualize(input.samples, 2, 48000.0, { { 6, -3, 4, -2, 24 }, -2 }));

    // Gains on the command line replace the saved ones; the saved output gain
    // stays unless it is given too.
    run = runSorva({ "process", "music.wav", "gains.wav", "--gains", "0,0,0,0,3" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(readSound(folder / "gains.wav").samples,
              referenceEqualize(input.samples, 2, 48000.0, { { 0, 0, 0, 0, 3 }, -2 }));

    // A damaged settings file is the default configuration: flat.
    writeFile(EQSettings::filePath(), std::string("[General]\nbandGains=1, 2, x\x01\xff\noutputGain=5\n"));
    run = runSorva({ "process", "music.wav", "flat.wav" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(readSound(folder / "flat.wav").samples,
              referenceEqualize(input.samples, 2, 48000.0, { { 0, 0, 0, 0, 0 }, 0 }));
}
