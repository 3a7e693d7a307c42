// The settings file: typed reads with defaults and clamping, damaged files,
// writes that keep every other key and survive a writer killed mid-write.
#include "Models/EQSettings.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>

using namespace sorva;
using sorva::testing::ConfigHome;
using sorva::testing::readFile;
using sorva::testing::writeFile;

namespace {

std::vector<double> gainsOf(const EQConfig& config)
{
    std::vector<double> gains;
    for (const EQBand& band : config.bands)
        gains.push_back(band.gain);
    return gains;
}

std::vector<EQBand> bandsWith(std::vector<double> gains)
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    for (size_t i = 0; i < gains.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

// The default configuration: the default bands, all flat, output gain 0.
void expectDefault(const EQConfig& config)
{
    ASSERT_EQ(config.bands.size(), 5u);
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(config.bands[i].label, EQConfig::defaultConfig().bands[i].label);
    EXPECT_EQ(gainsOf(config), std::vector<double>(5, 0.0));
    EXPECT_EQ(config.outputGain, 0.0);
}

// Runs check in a new process: it sees only what reached the disk.
bool inAnotherProcess(const std::function<bool()>& check)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(check() ? 0 : 1);
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

TEST(EQSettings, FirstRunGivesTheDefaultsAndSavedValuesReachTheDiskExactlyKeepingEveryOtherKey)
{
    ConfigHome home;
    EXPECT_EQ(EQSettings::filePath(), home.path / "sorva" / "sorva.conf");
    expectDefault(EQSettings::loadConfig());
    EXPECT_FALSE(EQSettings::bufferedMode());
    EXPECT_FALSE(EQSettings::eqEnabled());
    EXPECT_EQ(EQSettings::bufferLatencyMs(), 125.0);
    EXPECT_FALSE(std::filesystem::exists(EQSettings::filePath())) << "reading wrote something";

    writeFile(EQSettings::filePath(), "[General]\nbufferedMode=true\nbufferLatencyMs=80\nfutureKey=kept\n"
                                      "[Other]\nsomething=else\n");
    const std::vector<double> gains { 0.1, -1.0 / 3.0, 23.999999999, -7.25, 1e-9 };
    EQSettings::saveGains(bandsWith(gains));
    EQSettings::saveOutputGain(-2.5);
    EQSettings::setEQEnabled(true);
    EXPECT_TRUE(inAnotherProcess([&] {
        const EQConfig config = EQSettings::loadConfig();
        return gainsOf(config) == gains && config.outputGain == -2.5 && config.bands[2].label == "Mid"
            && EQSettings::eqEnabled() && EQSettings::bufferedMode() && EQSettings::bufferLatencyMs() == 80.0;
    })) << readFile(EQSettings::filePath());
    const std::string text = readFile(EQSettings::filePath());
    for (const char* kept : { "bandGains=", "eqEnabled=true", "futureKey=kept", "[Other]", "something=else" })
        EXPECT_NE(text.find(kept), std::string::npos) << kept << " missing from\n" << text;

    setenv("XDG_CONFIG_HOME", "relative/path", 1); // not absolute: ignored
    EXPECT_EQ(EQSettings::filePath(), std::filesystem::path(std::getenv("HOME")) / ".config" / "sorva" / "sorva.conf");
}

TEST(EQSettings, HandWrittenAndDamagedFilesLoadAsDescribed)
{
    struct Case {
        const char* file;
        std::vector<double> gains; // empty: the default configuration
        double output = 0;
        bool buffered = false; // the expert switches read only their own types
        double latency = 125;
    };
    const Case cases[] = {
        { "[General]\nbandGains=30, -30, 0, 5, -5\noutputGain=9\nbufferedMode=true\nbufferLatencyMs=80\n",
          { 24, -24, 0, 5, -5 }, 6, true, 80 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=-9\nbufferedMode=false\nbufferLatencyMs=0\n",
          { 1, 2, 3, 4, 5 }, -6 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=loud\nbufferedMode=1\nbufferLatencyMs=-20\n",
          { 1, 2, 3, 4, 5 } },
        { "[General]\nbandGains=inf, -inf, 24, -24, 24.5\noutputGain=-inf\nbufferedMode=yes\nbufferLatencyMs=fast\n",
          { 24, -24, 24, -24, 24 }, -6 },
        { "[General]\nbandGains = 1 ,2,  3 , 4,5\noutputGain= 6 \nbufferedMode=true, true\nbufferLatencyMs=nan\n",
          { 1, 2, 3, 4, 5 }, 6 },
        { "[General]\nbandGains=1, 2, 3, 4\noutputGain=3\n", {} },
        { "[General]\nbandGains=1, 2, 3, 4, 5, 6\noutputGain=3\n", {} },
        { "[General]\nbandGains=1, 2, loud, 4, 5\noutputGain=3\n", {} },
        { "[General]\nbandGains=1, 2, nan, 4, 5\noutputGain=3\n", {} },
        { "[General]\nbandGains=\"1, 2, 3", {} },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=2\n[Other]\nbandGains=9\n", { 1, 2, 3, 4, 5 }, 2 },
        { "bandGains=1, 2, 3, 4, 5\noutputGain=2\n", { 1, 2, 3, 4, 5 }, 2 },
        { "[General\x01\xff]\nbandGains=\x00\x01\x02\xfe\n\x7f\x80=\xc3\x28\n", {} },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        ConfigHome home; // a fresh path: QSettings caches parsed files per path
        writeFile(EQSettings::filePath(), c.file);
        const EQConfig config = EQSettings::loadConfig();
        if (c.gains.empty()) {
            expectDefault(config);
        } else {
            EXPECT_EQ(gainsOf(config), c.gains);
            EXPECT_EQ(config.outputGain, c.output);
            EXPECT_EQ(config.bands[4].label, "Treble");
        }
        EXPECT_EQ(EQSettings::bufferedMode(), c.buffered);
        EXPECT_EQ(EQSettings::bufferLatencyMs(), c.latency);
    }
}

// A writer killed mid-write: another process reads the old or a whole new state, and the other keys always.
TEST(EQSettings, AWriterKilledMidWriteNeverLosesTheOtherKeys)
{
    ConfigHome home;
    writeFile(EQSettings::filePath(), "[General]\nbufferedMode=true\nbufferLatencyMs=80\neqEnabled=true\noutputGain=2\n");
    std::mt19937 random(11);
    int writesSeen = 0;
    for (int round = 0; round < 25; ++round) {
        int progress[2];
        ASSERT_EQ(pipe(progress), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int i = 1;; ++i) {
                const double g = i % 24 + 1;
                EQSettings::saveGains(bandsWith({ g, g, g, g, g }));
                if (i == 1)
                    (void)!write(progress[1], "w", 1);
            }
        }
        close(progress[1]);
        char done = 0;
        ASSERT_EQ(read(progress[0], &done, 1), 1); // one write complete
        close(progress[0]);
        usleep(static_cast<useconds_t>(random() % 3000));
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);

        const bool saved = readFile(EQSettings::filePath()).find("bandGains=") != std::string::npos;
        writesSeen += saved;
        ASSERT_TRUE(inAnotherProcess([&] {
            const EQConfig config = EQSettings::loadConfig();
            const std::vector<double> gains = gainsOf(config);
            return EQSettings::bufferedMode() && EQSettings::bufferLatencyMs() == 80.0 && EQSettings::eqEnabled()
                && config.outputGain == (saved ? 2.0 : 0.0)
                && std::all_of(gains.begin(), gains.end(), [&](double g) { return g == gains[0]; });
        })) << "round " << round << ":\n" << readFile(EQSettings::filePath());
    }
    EXPECT_GT(writesSeen, 0) << "the writer never got a write through; the test proved nothing";
}

TEST(EQSettings, AnUnwritableFolderLogsAndLeavesTheFileAsItWas)
{
    ConfigHome home;
    EQSettings::saveGains(bandsWith({ 1, 2, 3, 4, 5 }));
    const std::string before = readFile(EQSettings::filePath());
    sorva::testing::LogCapture log;
    {
        sorva::testing::ReadOnlyFolder readOnly(EQSettings::filePath().parent_path());
        ASSERT_TRUE(readOnly.isEffective());
        EQSettings::saveGains(bandsWith({ 9, 9, 9, 9, 9 }));
    }
    EXPECT_EQ(readFile(EQSettings::filePath()), before);
    EXPECT_EQ(log.taken(), std::vector<std::string> { "settings not saved: cannot write " + EQSettings::filePath().string() });
}

// A file SORVA cannot read is never overwritten: it is moved aside as
// "sorva.conf.unreadable-<time>" with one log line, the defaults apply, and
// the next save starts a fresh file. A readable file with values of the wrong
// type stays where it is. Arbitrary contents are the settings fuzzer's; here
// the kinds of file that cannot be read at all.
TEST(EQSettings, AnUnreadableFileIsKeptBesideTheNewOne)
{
    struct Case {
        const char* name;
        std::function<void(const std::filesystem::path&)> plant;
        std::function<bool(const std::filesystem::path&)> intact; // checks the kept file
    };
    const Case cases[] = {
        { "100 MB", [](const auto& p) { writeFile(p, "[General]\neqEnabled=true\n"); std::filesystem::resize_file(p, 100 << 20); },
          [](const auto& p) { return std::filesystem::file_size(p) == 100u << 20; } },
        { "a folder", [](const auto& p) { writeFile(p / "inside", "mine"); },
          [](const auto& p) { return readFile(p / "inside") == "mine"; } },
        { "a pipe", [](const auto& p) { std::filesystem::create_directories(p.parent_path()); ::mkfifo(p.c_str(), 0600); },
          [](const auto& p) { return std::filesystem::is_fifo(p); } },
        { "unreadable", [](const auto& p) { writeFile(p, "[General]\neqEnabled=true\n"); std::filesystem::permissions(p, std::filesystem::perms::owner_write); },
          [](const auto& p) { std::filesystem::permissions(p, std::filesystem::perms::owner_read); return readFile(p) == "[General]\neqEnabled=true\n"; } },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ConfigHome home;
        const std::filesystem::path file = EQSettings::filePath();
        c.plant(file);
        sorva::testing::LogCapture log;
        {
            sorva::testing::WithoutFileOverride asUser; // root would read a mode-0200 file
            expectDefault(EQSettings::loadConfig());
            EXPECT_FALSE(EQSettings::eqEnabled());
            EQSettings::saveGains(bandsWith({ 1, 2, 3, 4, 5 }));
            EXPECT_EQ(gainsOf(EQSettings::loadConfig()), (std::vector<double> { 1, 2, 3, 4, 5 }));
        }
        std::vector<std::filesystem::path> kept;
        for (const auto& entry : std::filesystem::directory_iterator(file.parent_path()))
            if (entry.path().filename().string().starts_with("sorva.conf.unreadable-"))
                kept.push_back(entry.path());
        ASSERT_EQ(kept.size(), 1u);
        EXPECT_TRUE(c.intact(kept[0]));
        ASSERT_EQ(log.taken().size(), 1u);
        EXPECT_TRUE(log.taken()[0].ends_with("): kept as " + kept[0].filename().string() + ", starting from the defaults"))
            << log.taken()[0];
    }

    ConfigHome home;
    writeFile(EQSettings::filePath(), "[General]\neqEnabled=maybe\nbufferLatencyMs=nan\nbandGains=1e999, x\n");
    EXPECT_FALSE(EQSettings::eqEnabled());
    EXPECT_EQ(EQSettings::bufferLatencyMs(), 125.0);
    EQSettings::setEQEnabled(true);
    EXPECT_NE(readFile(EQSettings::filePath()).find("bufferLatencyMs=nan"), std::string::npos);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(EQSettings::filePath().parent_path()), {}), 1);
}
