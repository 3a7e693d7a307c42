// `sorva process` end to end: the built program on generated files,
// its output compared sample for sample with the equalizer's plain loop.
#include "App/ProgramTestSupport.h"
#include "Models/EQSettings.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <QProcess>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <fstream>
#include <map>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace sorva;
using namespace sorva::testing;

namespace {

// The input as the program sees it: the file decoded to floats.
Sound makeInput(const std::filesystem::path& path, int64_t seconds, int64_t channels, int64_t rate, int format)
{
    Sound sound { rate, channels, format,
                  noise(seconds * rate, channels, static_cast<uint32_t>(channels * rate)) };
    writeSound(path, sound);
    return readSound(path);
}

} // namespace

TEST(OfflineProcess, EveryFileAndOptionOnTheSavedConfigurationMatchesThePlainEqualizer)
{
    ConfigHome home; // inherited by the program
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    const std::vector<double> saved { 6, -3, 4, -2, 30 }; // the last is clamped to 24 on load
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = saved[i];
    EQSettings::saveGains(bands);
    EQSettings::saveOutputGain(-2);

    ScratchFolder folder;
    const std::map<std::string, Sound> inputs {
        { "stereo.wav", makeInput(folder / "stereo.wav", 6, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16) },
        // The 8 kHz band sits above 45 % of the rate.
        { "mono.wav", makeInput(folder / "mono.wav", 5, 1, 8000, SF_FORMAT_WAV | SF_FORMAT_FLOAT) },
        // Only the first two channels are filtered; all are gain-staged and limited together.
        { "three.flac", makeInput(folder / "three.flac", 4, 3, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_24) },
    };
    // An older, unrelated file in the way, and a link to it.
    writeFile(folder / "out" / "result.wav", "an older, unrelated file");
    std::filesystem::create_symlink("out/result.wav", folder / "latest.wav");
    struct Run {
        std::string input;
        std::vector<std::string> options;
        Settings expected;
        std::string output = "out.wav";
    };
    const Run runs[] = {
        { "stereo.wav", {}, { { 6, -3, 4, -2, 24 }, -2 } },
        // Explicit gains replace the saved ones; the saved output gain stays.
        { "stereo.wav", { "--gains", "0,0,0,0,3" }, { { 0, 0, 0, 0, 3 }, -2 } },
        { "stereo.wav", { "--preset", "ROCK" }, { { 10, 0, -2, -6, 2 }, -0.5 }, "out/result.wav" },
        // Explicit gains replace the preset's; its output gain stays unless given too.
        { "stereo.wav", { "--preset", "vocal", "--gains", "1,2,3,4,5" }, { { 1, 2, 3, 4, 5 }, 0.0 } },
        { "stereo.wav", { "--gains", "30,-30,24.5,-1e6,7", "--output-gain", "9" }, { { 24, -24, 24, -24, 7 }, 6.0 } },
        // Through a symbolic link, the file it points to is replaced.
        { "stereo.wav", { "--gains=12,-6,3,0,9", "--output-gain=4.5" }, { { 12, -6, 3, 0, 9 }, 4.5 }, "latest.wav" },
        { "mono.wav", { "--gains", "-3,6,0,2,8" }, { { -3, 6, 0, 2, 8 }, -2 } },
        { "three.flac", { "--preset", "Electro", "--output-gain", "-2" }, { { 12, 4, -10, 0, 8 }, -2.0 } },
        { "three.flac", { "--gains", "0,0,0,0,0", "--output-gain", "0" }, { { 0, 0, 0, 0, 0 }, 0.0 } },
    };
    const mode_t mask = ::umask(022);
    for (const Run& run : runs) {
        std::vector<std::string> arguments { "process", run.input, run.output };
        arguments.insert(arguments.end(), run.options.begin(), run.options.end());
        SCOPED_TRACE(run.input + (run.options.empty() ? "" : " " + run.options[0]));
        const ProgramRun result = runSorva(arguments, folder.path());
        ASSERT_EQ(result.exitStatus, 0) << result.err;
        EXPECT_EQ(result.err, "");
        const Sound& input = inputs.at(run.input);
        const Sound output = readSound(folder / run.output);
        EXPECT_EQ(output.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
        EXPECT_EQ(output.sampleRate, input.sampleRate);
        ASSERT_EQ(output.channels, input.channels);
        ASSERT_EQ(output.frames(), input.frames());
        const std::vector<float> expected = equalized(input, run.expected);
        const auto at = std::mismatch(output.samples.begin(), output.samples.end(), expected.begin(), expected.end());
        EXPECT_EQ(at.first, output.samples.end()) << "first difference at sample " << at.first - output.samples.begin();
    }
    ::umask(mask);

    struct stat status {};
    ASSERT_EQ(::lstat((folder / "out" / "result.wav").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "latest.wav"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / "out"), {}), 1) << "no temporary file left";
    // The loud run drives the limiter for a good part of the file.
    const Sound loud = readSound(folder / "out" / "result.wav");
    EXPECT_GT(std::ranges::count_if(loud.samples, [](float x) { return std::fabs(x) > 0.95f; }), loud.frames() / 100);
}

TEST(OfflineProcess, EveryMistakeGivesOneLineExitStatusTwoAndLeavesNoFileBehind)
{
    ScratchFolder folder;
    makeInput(folder / "music.wav", 1, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    std::ofstream(folder / "notes.txt") << "not audio\n";
    std::ofstream(folder / "empty.wav").flush();
    std::filesystem::create_symlink("music.wav", folder / "link.wav");
    std::filesystem::create_hard_link(folder / "music.wav", folder / "hardlink.wav");
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    std::ofstream(folder / "keep.wav") << "precious"; // must survive a failed run unchanged
    // A header with no sample rate: said plainly, not in libsndfile's words.
    std::string header = readFile(folder / "music.wav");
    header.replace(24, 4, 4, '\0');
    std::ofstream(folder / "rate-0.wav", std::ios::binary) << header;
    const std::vector<std::string> before = folder.names();

    // Each with the start of its one line.
    const std::pair<std::vector<std::string>, std::string> mistakes[] = {
        { { "process", "missing.wav", "out.wav" }, "cannot read 'missing.wav': " },
        { { "process", "notes.txt", "out.wav" }, "cannot read 'notes.txt' as audio: " },
        { { "process", "empty.wav", "out.wav" }, "cannot read 'empty.wav' as audio: " },
        { { "process", "rate-0.wav", "out.wav" },
          "cannot read 'rate-0.wav' as audio: its header gives no usable sample rate or channel count" },
        { { "process", "music.wav", "music.wav" }, "input and output are the same file ('music.wav')" },
        { { "process", "music.wav", "link.wav" }, "input and output are the same file ('link.wav')" },
        { { "process", "music.wav", "hardlink.wav" }, "input and output are the same file ('hardlink.wav')" },
        { { "process", "music.wav", "no-such-folder/out.wav" }, "cannot write 'no-such-folder/out.wav': " },
        { { "process", "music.wav", "fifo" }, "cannot write 'fifo': it is not a regular file" },
        { { "process", "music.wav", "keep.wav", "--preset", "jazz" }, "unknown preset 'jazz' (the presets are AirPods, Vocal, Electro, Rock)" },
        { { "process", "music.wav", "out.wav", "--gains", "1,2,3,4" }, "--gains needs 5 gains in dB separated by commas, one per band (got 4)" },
        { { "process", "music.wav", "out.wav", "--gains", "1,2,nan,4,5" }, "--gains needs finite numbers in dB" },
        { { "process", "music.wav", "out.wav", "--gains", "1,2,3,4,5dB" }, "--gains needs finite numbers in dB" },
        { { "process", "music.wav", "out.wav", "--output-gain", "loud" }, "--output-gain needs a finite number in dB (got 'loud')" },
        { { "process", "music.wav", "out.wav", "--volume", "3" }, "unknown option '--volume' for process (see 'sorva process --help')" },
        { { "process", "music.wav" }, "process needs an input file and an output file" },
        { { "--no-such-option" }, "unknown option '--no-such-option' (see 'sorva --help')" },
    };
    auto expectRefused = [&](const std::vector<std::string>& arguments, const std::string& start) {
        std::string shown;
        for (const std::string& word : arguments)
            shown += " '" + word + "'";
        const ProgramRun run = runSorva(arguments, folder.path());
        EXPECT_EQ(run.exitStatus, 2) << shown;
        EXPECT_EQ(run.out, "") << shown;
        EXPECT_TRUE(run.err.starts_with(start)) << shown << ": " << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << shown << ": " << run.err;
        EXPECT_EQ(folder.names(), before) << shown;
    };
    for (const auto& [arguments, start] : mistakes)
        expectRefused(arguments, "sorva: " + start);

    // A disk that fills up halfway: writes beyond 256 KiB fail (a file-size
    // limit, with its signal ignored so that the write reports EFBIG).
    rlimit original {};
    ::getrlimit(RLIMIT_FSIZE, &original);
    rlimit small = original;
    small.rlim_cur = 256 * 1024;
    auto previous = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    expectRefused({ "process", "music.wav", "out.wav" }, "sorva: cannot write 'out.wav': ");
    ::setrlimit(RLIMIT_FSIZE, &original);
    std::signal(SIGXFSZ, previous);

    // Help wins over any mistake, on standard output.
    const ProgramRun help = runSorva({ "process", "--gains", "nonsense", "--help" }, folder.path());
    EXPECT_EQ(help.exitStatus, 0) << help.err;
    for (const char* word : { "sorva process INPUT OUTPUT", "--preset", "--output-gain", "AirPods", "Rock" })
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    EXPECT_EQ(folder.names(), before);

    EXPECT_EQ(readFile(folder / "keep.wav"), "precious");
    EXPECT_EQ(readSound(folder / "music.wav").frames(), 44100) << "the same-file checks must not touch the input";
    EXPECT_TRUE(std::filesystem::is_fifo(folder / "fifo"));
}

TEST(OfflineProcess, ShowsProgressOnATerminalForLongFilesOnly)
{
    ScratchFolder folder;
    makeInput(folder / "long.wav", 12, 2, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    makeInput(folder / "short.wav", 2, 2, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    // What the program shows on a terminal; it must succeed.
    auto onTerminal = [&](const std::string& input) {
        int terminal = -1;
        const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0) {
            if (::chdir(folder.path().c_str()) == 0)
                ::execl(SORVA_BINARY, SORVA_BINARY, "process", input.c_str(), "out.wav", "--preset", "rock",
                        static_cast<char*>(nullptr));
            ::_exit(98);
        }
        std::string seen;
        char buffer[4096];
        for (ssize_t got; (got = ::read(terminal, buffer, sizeof buffer)) > 0;) // EIO once the program exited
            seen.append(buffer, static_cast<size_t>(got));
        ::close(terminal);
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << input << ": " << seen;
        return seen;
    };
    const std::string seen = onTerminal("long.wav");
    EXPECT_NE(seen.find("100%"), std::string::npos) << seen;
    EXPECT_NE(seen.find('\r'), std::string::npos) << seen;
    EXPECT_EQ(onTerminal("short.wav"), "");
}

// A WAV that announces 20 s but arrives on standard input, a pipe that stalls
// after the first second: the run is mid-file when it is interrupted.
TEST(OfflineProcess, AnInterruptedRunLeavesNeitherOutputNorTemporaryFile)
{
    ScratchFolder folder;
    makeInput(folder / "source.wav", 20, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    const std::string firstSecond = readFile(folder / "source.wav").substr(0, 44 + 44100 * 4);
    std::filesystem::remove(folder / "source.wav");
    qtApp();
    QProcess sorva;
    const QString output = QString::fromStdString(folder.path() / "out.wav");
    sorva.start(QStringLiteral(SORVA_BINARY), { QStringLiteral("process"), QStringLiteral("/dev/stdin"), output });
    sorva.write(firstSecond.data(), static_cast<qint64>(firstSecond.size()));
    while (sorva.bytesToWrite() > 0 && sorva.waitForBytesWritten(10000)) { }
    ASSERT_EQ(sorva.bytesToWrite(), 0) << "the program stopped reading";

    // More than a pipe holds went through, so the program is past its set-up
    // and reading samples into its temporary output.
    const std::vector<std::string> names = folder.names();
    EXPECT_TRUE(names.size() == 1 && names[0].find(".part") != std::string::npos) << ::testing::PrintToString(names);
    // The signal is pending before the pipe closes, so the program sees it at
    // the latest when its read returns at the end of the data.
    ::kill(static_cast<pid_t>(sorva.processId()), SIGINT);
    sorva.closeWriteChannel();
    ASSERT_TRUE(sorva.waitForFinished(10000));
    EXPECT_EQ(sorva.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(sorva.exitCode(), 130);
    EXPECT_EQ(folder.names(), std::vector<std::string> {});
    EXPECT_EQ(sorva.readAllStandardError().toStdString(), "sorva: interrupted\n");
}
