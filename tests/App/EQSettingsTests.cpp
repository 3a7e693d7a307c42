#include "Models/EQSettings.h"

#include "Audio/EQLog.h"
#include "TestFolders.h"

#include <gtest/gtest.h>

#include <QSettings>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <mutex>
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
    bands.resize(gains.size(), EQBand("Extra", 16000, 0));
    for (size_t i = 0; i < gains.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

void expectDefault(const EQConfig& config, const std::string& why)
{
    SCOPED_TRACE(why);
    const EQConfig& reference = EQConfig::defaultConfig();
    ASSERT_EQ(config.bands.size(), reference.bands.size());
    for (size_t i = 0; i < reference.bands.size(); ++i) {
        EXPECT_EQ(config.bands[i].label, reference.bands[i].label);
        EXPECT_EQ(config.bands[i].frequency, reference.bands[i].frequency);
        EXPECT_EQ(config.bands[i].gain, 0.0);
    }
    EXPECT_EQ(config.outputGain, 0.0);
}

// Each case gets its own folder, hence its own file path: QSettings keeps
// parsed files per path, and a fresh path makes it parse what the test wrote.
struct Captured {
    std::mutex lock;
    std::vector<std::string> lines;
};

} // namespace

TEST(EQSettings, FileLivesUnderTheConfigHome)
{
    ConfigHome home;
    EXPECT_EQ(EQSettings::filePath(), home.path / "sorva" / "sorva.conf");
    setenv("XDG_CONFIG_HOME", "relative/path", 1);
    const char* userHome = std::getenv("HOME");
    ASSERT_NE(userHome, nullptr);
    EXPECT_EQ(EQSettings::filePath(), std::filesystem::path(userHome) / ".config" / "sorva" / "sorva.conf");
}

TEST(EQSettings, FirstRunGivesTheDefaultsAndNothingIsWritten)
{
    ConfigHome home;
    expectDefault(EQSettings::loadConfig(), "no file");
    EXPECT_FALSE(EQSettings::bufferedMode());
    EXPECT_FALSE(EQSettings::eqEnabled());
    EXPECT_EQ(EQSettings::bufferLatencyMs(), 125.0);
    EXPECT_FALSE(std::filesystem::exists(EQSettings::filePath()));
}

TEST(EQSettings, SavedValuesSurviveARestartExactly)
{
    ConfigHome home;
    const std::vector<double> gains { 0.1, -1.0 / 3.0, 23.999999999, -7.25, 1e-9 };
    EQSettings::saveGains(bandsWith(gains));
    EQSettings::saveOutputGain(-2.5);
    EQSettings::setEQEnabled(true);

    // Another process reads only what reached the disk.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        QSettings fresh(QString::fromStdString(EQSettings::filePath().string()), QSettings::IniFormat);
        const EQConfig config = EQSettings::loadConfig();
        bool same = EQSettings::eqEnabled() && config.outputGain == -2.5;
        for (size_t i = 0; i < gains.size(); ++i)
            same = same && config.bands[i].gain == gains[i];
        _exit(same ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(EQSettings::filePath());

    const EQConfig config = EQSettings::loadConfig();
    EXPECT_EQ(gainsOf(config), gains);
    EXPECT_EQ(config.outputGain, -2.5);
    EXPECT_EQ(config.bands[2].label, "Mid");
    EXPECT_TRUE(EQSettings::eqEnabled());
    const std::string text = readFile(EQSettings::filePath());
    EXPECT_NE(text.find("bandGains="), std::string::npos) << text;
    EXPECT_NE(text.find("eqEnabled=true"), std::string::npos) << text;
}

TEST(EQSettings, HandWrittenFilesLoadAsDescribed)
{
    struct Case {
        const char* file;
        std::vector<double> gains; // empty: the default configuration
        double output;
    };
    const double inf = INFINITY;
    const Case cases[] = {
        { "[General]\nbandGains=30, -30, 0, 5, -5\noutputGain=9\n", { 24, -24, 0, 5, -5 }, 6 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=-9\n", { 1, 2, 3, 4, 5 }, -6 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\n", { 1, 2, 3, 4, 5 }, 0 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=loud\n", { 1, 2, 3, 4, 5 }, 0 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=nan\n", { 1, 2, 3, 4, 5 }, 0 },
        { "[General]\nbandGains=inf, -inf, 24, -24, 24.5\noutputGain=-inf\n", { 24, -24, 24, -24, 24 }, -6 },
        { "[General]\nbandGains = 1 ,2,  3 , 4,5\noutputGain= 6 \n", { 1, 2, 3, 4, 5 }, 6 },
        { "[General]\nbandGains=1, 2, 3, 4\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=1, 2, 3, 4, 5, 6\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=1, 2, loud, 4, 5\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=1, 2, nan, 4, 5\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=1, 2, , 4, 5\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=5\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=\noutputGain=3\n", {}, 0 },
        { "[General]\noutputGain=3\n", {}, 0 },
        { "[General]\nbandGains=\"1, 2, 3", {}, 0 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=2\n[Other]\nbandGains=9\n", { 1, 2, 3, 4, 5 }, 2 },
        { "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=2\nbandGains=9\n", {}, 0 },
        { "bandGains=1, 2, 3, 4, 5\noutputGain=2\n", { 1, 2, 3, 4, 5 }, 2 },
        { "[General\x01\xff]\nbandGains=\x00\x01\x02\xfe\n\x7f\x80=\xc3\x28\n", {}, 0 },
        { "", {}, 0 },
    };
    for (const Case& c : cases) {
        ConfigHome home;
        writeFile(EQSettings::filePath(), std::string(c.file, std::strlen(c.file)));
        const EQConfig config = EQSettings::loadConfig();
        if (c.gains.empty()) {
            expectDefault(config, c.file);
            continue;
        }
        SCOPED_TRACE(c.file);
        EXPECT_EQ(gainsOf(config), c.gains);
        EXPECT_EQ(config.outputGain, c.output);
        EXPECT_EQ(config.bands[4].label, "Treble");
        (void)inf;
    }
}

TEST(EQSettings, BinaryJunkLoadsAsDefaultsAndIsRepairedByTheNextSave)
{
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round) {
        ConfigHome home;
        std::string junk(64 + random() % 2000, '\0');
        for (char& c : junk)
            c = static_cast<char>(random());
        if (round % 2 == 0) // junk after a valid beginning: a torn write as it would look
            junk = "[General]\nbandGains=1, 2, 3, 4, 5\noutputGain=1\neqEnabled=tr" + junk;
        writeFile(EQSettings::filePath(), junk);
        const EQConfig loaded = EQSettings::loadConfig();
        for (double gain : gainsOf(loaded)) {
            EXPECT_TRUE(std::isfinite(gain));
            EXPECT_LE(std::abs(gain), 24.0);
        }
        EXPECT_LE(std::abs(loaded.outputGain), 6.0);
        EXPECT_EQ(EQSettings::bufferLatencyMs() > 0, true);

        EQSettings::saveGains(bandsWith({ 3, 2, 1, 0, -1 }));
        EQSettings::saveOutputGain(1.5);
        const EQConfig saved = EQSettings::loadConfig();
        EXPECT_EQ(gainsOf(saved), (std::vector<double> { 3, 2, 1, 0, -1 }));
        EXPECT_EQ(saved.outputGain, 1.5);
    }
}

TEST(EQSettings, ExpertSwitchesReadOnlyTheirOwnTypes)
{
    struct Case {
        const char* text;
        bool buffered;
        double latency;
    };
    const Case cases[] = {
        { "", false, 125 },
        { "bufferedMode=true\nbufferLatencyMs=80\n", true, 80 },
        { "bufferedMode=TRUE\nbufferLatencyMs=80.7\n", true, 80.7 },
        { "bufferedMode=false\nbufferLatencyMs=0\n", false, 125 },
        { "bufferedMode=1\nbufferLatencyMs=-20\n", false, 125 },
        { "bufferedMode=yes\nbufferLatencyMs=fast\n", false, 125 },
        { "bufferedMode=true, true\nbufferLatencyMs=nan\n", false, 125 },
        { "bufferLatencyMs=inf\n", false, 125 },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ConfigHome home;
        writeFile(EQSettings::filePath(), std::string("[General]\n") + c.text);
        EXPECT_EQ(EQSettings::bufferedMode(), c.buffered);
        EXPECT_EQ(EQSettings::bufferLatencyMs(), c.latency);
    }
}

TEST(EQSettings, WritesKeepEveryOtherKeyIncludingOnesWeDoNotKnow)
{
    ConfigHome home;
    writeFile(EQSettings::filePath(),
              "[General]\nbufferedMode=true\nbufferLatencyMs=80\neqEnabled=true\nfutureKey=kept\n"
              "[Other]\nsomething=else\n");
    EQSettings::saveGains(bandsWith({ 1, 1, 1, 1, 1 }));
    EQSettings::saveOutputGain(-1);
    EQSettings::setEQEnabled(false);

    const std::string text = readFile(EQSettings::filePath());
    for (const char* kept : { "bufferedMode=true", "bufferLatencyMs=80", "futureKey=kept", "[Other]", "something=else",
                              "eqEnabled=false", "outputGain=-1" })
        EXPECT_NE(text.find(kept), std::string::npos) << kept << " missing from\n" << text;
    EXPECT_TRUE(EQSettings::bufferedMode());
    EXPECT_EQ(EQSettings::bufferLatencyMs(), 80.0);
}

TEST(EQSettings, EachWriteReplacesTheFileAtomically)
{
    ConfigHome home;
    EQSettings::setEQEnabled(true);
    struct stat before {};
    ASSERT_EQ(stat(EQSettings::filePath().c_str(), &before), 0);
    EQSettings::saveGains(bandsWith({ 4, 4, 4, 4, 4 }));
    struct stat after {};
    ASSERT_EQ(stat(EQSettings::filePath().c_str(), &after), 0);
    // A new inode: the content was written elsewhere and renamed into place,
    // never rewritten in place where a crash could truncate it.
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_NE(readFile(EQSettings::filePath()).find("bandGains=4, 4, 4, 4, 4"), std::string::npos);
}

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
            close(progress[0]);
            for (int i = 1;; ++i) {
                const double g = i % 24 + 1;
                EQSettings::saveGains(bandsWith({ g, g, g, g, g }));
                if (i == 1)
                    (void)!write(progress[1], "w", 1);
            }
        }
        close(progress[1]);
        // Wait for one complete write, then kill at a random point of a
        // later one (a write takes a few milliseconds: lock, read, fsync,
        // rename).
        char done = 0;
        ASSERT_EQ(read(progress[0], &done, 1), 1);
        close(progress[0]);
        usleep(static_cast<useconds_t>(random() % 3000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);

        // Read as a new process would: straight from the file.
        const pid_t reader = fork();
        ASSERT_GE(reader, 0);
        if (reader == 0) {
            const EQConfig config = EQSettings::loadConfig();
            const std::vector<double> gains = gainsOf(config);
            const bool saved = readFile(EQSettings::filePath()).find("bandGains=") != std::string::npos;
            // Before the first completed write the gains are absent and the
            // output gain is not read; after it, both are whole.
            bool whole = EQSettings::bufferedMode() && EQSettings::bufferLatencyMs() == 80.0 && EQSettings::eqEnabled()
                && config.outputGain == (saved ? 2.0 : 0.0);
            for (double g : gains)
                whole = whole && g == gains[0];
            _exit(whole ? (saved ? 0 : 3) : 1);
        }
        ASSERT_EQ(waitpid(reader, &status, 0), reader);
        ASSERT_TRUE(WIFEXITED(status)) << readFile(EQSettings::filePath());
        ASSERT_NE(WEXITSTATUS(status), 1) << "round " << round << ":\n" << readFile(EQSettings::filePath());
        writesSeen += WEXITSTATUS(status) == 0;
    }
    EXPECT_GT(writesSeen, 0) << "the writer never got a write through; the test proved nothing";
    // No temporary files are left behind in a way that would grow the folder.
    size_t entries = 0;
    for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator(EQSettings::filePath().parent_path()))
        ++entries;
    EXPECT_LE(entries, 3u + 25u);
}

TEST(EQSettings, AnUnwritableFolderLogsAndLeavesTheFileAsItWas)
{
    ConfigHome home;
    EQSettings::saveGains(bandsWith({ 1, 2, 3, 4, 5 }));
    const std::string before = readFile(EQSettings::filePath());

    auto captured = std::make_shared<Captured>();
    EQLog::setObserver([captured](const std::string& line) {
        std::lock_guard guard(captured->lock);
        captured->lines.push_back(line);
    });
    {
        sorva::testing::ReadOnlyFolder readOnly(EQSettings::filePath().parent_path());
        ASSERT_TRUE(readOnly.isEffective());
        EQSettings::saveGains(bandsWith({ 9, 9, 9, 9, 9 }));
    }
    EQLog::setObserver({});
    EXPECT_EQ(readFile(EQSettings::filePath()), before);
    std::lock_guard guard(captured->lock);
    ASSERT_EQ(captured->lines.size(), 1u);
    EXPECT_EQ(captured->lines[0], "settings not saved: cannot write " + EQSettings::filePath().string());
}
