// `sorva process` end to end: the built program on generated music-like files,
// its output compared sample for sample with a plain reference loop.
#include "App/ProgramTestSupport.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <pty.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace sorva::testing;

namespace {

// Index of the first differing sample, or -1 when both are bit-identical in
// value (NaNs never occur: the limiter clips them).
int64_t firstDifference(const std::vector<float>& a, const std::vector<float>& b)
{
    if (a.size() != b.size())
        return 0;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i])
            return static_cast<int64_t>(i);
    }
    return -1;
}

void expectMatchesReference(const std::filesystem::path& output, const Sound& input, const ReferenceSettings& settings,
                            int64_t* limitedFrames = nullptr)
{
    const Sound result = readSound(output);
    EXPECT_EQ(result.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_EQ(result.sampleRate, input.sampleRate);
    ASSERT_EQ(result.channels, input.channels);
    ASSERT_EQ(result.frames(), input.frames());
    const std::vector<float> expected = referenceEqualize(input.samples, input.channels,
                                                          static_cast<double>(input.sampleRate), settings, limitedFrames);
    const int64_t at = firstDifference(result.samples, expected);
    EXPECT_EQ(at, -1) << "frame " << at / input.channels << ", channel " << at % input.channels << ": program "
                      << result.samples[static_cast<size_t>(std::max<int64_t>(at, 0))] << ", reference "
                      << expected[static_cast<size_t>(std::max<int64_t>(at, 0))];
}

// The input as the program sees it: the file decoded to floats.
Sound makeInput(const std::filesystem::path& path, int64_t seconds, int64_t channels, int64_t rate, int format)
{
    Sound sound;
    sound.sampleRate = rate;
    sound.channels = channels;
    sound.format = format;
    sound.samples = musicLike(seconds * rate, channels, static_cast<double>(rate), static_cast<uint32_t>(channels * rate));
    writeSound(path, sound);
    return readSound(path);
}

} // namespace

TEST(OfflineProcess, StereoMusicWithAPresetOrCustomGainsMatchesTheReferenceSampleForSample)
{
    ScratchFolder folder;
    const Sound input = makeInput(folder / "music.wav", 6, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);

    ProgramRun run = runSorva({ "process", "music.wav", "rock.wav", "--preset", "Rock" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.err, "");
    expectMatchesReference(folder / "rock.wav", input, { { 10, 0, -2, -6, 2 }, -0.5 });

    // Boosts loud enough that the limiter works for a good part of the file,
    // the options in "--name=value" form and after the file names.
    run = runSorva({ "process", "music.wav", "loud.wav", "--gains=12,-6,3,0,9", "--output-gain", "4.5" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    int64_t limited = 0;
    expectMatchesReference(folder / "loud.wav", input, { { 12, -6, 3, 0, 9 }, 4.5 }, &limited);
    EXPECT_GT(limited, input.frames() / 100) << "the test signal no longer drives the limiter";
    EXPECT_EQ(folder.names(), (std::vector<std::string> { "loud.wav", "music.wav", "rock.wav" }));
}

TEST(OfflineProcess, MonoAndThreeChannelFilesKeepTheirRateAndChannelsAndOnlyTheFirstTwoAreFiltered)
{
    ScratchFolder folder;
    // Mono float WAV at 8 kHz: the 8 kHz band sits above 45 % of the rate.
    const Sound mono = makeInput(folder / "mono.wav", 5, 1, 8000, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    // Three channels of 24-bit FLAC at 48 kHz: the third is only gain-staged
    // and limited, together with the others.
    const Sound three = makeInput(folder / "three.flac", 4, 3, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);

    ProgramRun run = runSorva({ "process", "mono.wav", "mono-out.wav", "--gains", "-3,6,0,2,8" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "mono-out.wav", mono, { { -3, 6, 0, 2, 8 }, 0.0 });

    run = runSorva({ "process", "three.flac", "three-out.wav", "--preset", "Electro", "--output-gain", "-2" },
                   folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "three-out.wav", three, { { 12, 4, -10, 0, 8 }, -2.0 });

    // No options: flat bands; the file passes the gain stage and limiter only.
    run = runSorva({ "process", "three.flac", "flat.wav" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "flat.wav", three, { { 0, 0, 0, 0, 0 }, 0.0 });
}

TEST(OfflineProcess, PresetNamesIgnoreLetterCaseAndGainsAreClampedToTheirRanges)
{
    ScratchFolder folder;
    const Sound input = makeInput(folder / "music.wav", 3, 2, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16);

    for (const char* name : { "airpods", "AIRPODS", "AirPods", "aIrPoDs" }) {
        ProgramRun run = runSorva({ "process", "music.wav", "preset.wav", "--preset", name }, folder.path());
        ASSERT_EQ(run.exitStatus, 0) << name << ": " << run.err;
        expectMatchesReference(folder / "preset.wav", input, { { 20, 2, -12, -2, 2 }, 2.0 });
    }

    // Explicit gains replace the preset's gains; the preset's output gain
    // stays unless given too.
    ProgramRun run = runSorva({ "process", "music.wav", "mixed.wav", "--preset", "vocal", "--gains", "1,2,3,4,5" },
                              folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "mixed.wav", input, { { 1, 2, 3, 4, 5 }, 0.0 });

    run = runSorva({ "process", "music.wav", "high.wav", "--gains", "30,-30,24.5,-1e6,7", "--output-gain", "9" },
                   folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "high.wav", input, { { 24, -24, 24, -24, 7 }, 6.0 });

    run = runSorva({ "process", "music.wav", "low.wav", "--preset", "rock", "--output-gain=-10" }, folder.path());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "low.wav", input, { { 10, 0, -2, -6, 2 }, -6.0 });
}

TEST(OfflineProcess, EveryMistakeGivesOneLineExitStatusTwoAndLeavesNoFileBehind)
{
    ScratchFolder folder;
    makeInput(folder / "music.wav", 1, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    std::ofstream(folder / "notes.txt") << "not audio\n";
    std::ofstream(folder / "empty.wav").flush();
    std::filesystem::create_directory(folder / "folder");
    std::filesystem::create_symlink("music.wav", folder / "link.wav");
    std::filesystem::create_hard_link(folder / "music.wav", folder / "hardlink.wav");
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    // An output that already exists must survive a failed run unchanged.
    std::ofstream(folder / "keep.wav") << "precious";
    const std::vector<std::string> before = folder.names();

    const std::vector<std::vector<std::string>> mistakes {
        { "process", "missing.wav", "out.wav" },
        { "process", "notes.txt", "out.wav" },
        { "process", "empty.wav", "out.wav" },
        { "process", "folder", "out.wav" },
        { "process", "music.wav", "music.wav" },
        { "process", "music.wav", "./folder/../music.wav" },
        { "process", "music.wav", "link.wav" },
        { "process", "music.wav", "hardlink.wav" },
        { "process", "music.wav", "no-such-folder/out.wav" },
        { "process", "music.wav", "notes.txt/out.wav" },
        { "process", "music.wav", "folder" },
        { "process", "music.wav", "fifo" },
        { "process", "music.wav", "keep.wav", "--preset", "jazz" },
        { "process", "music.wav", "keep.wav", "--preset", "" },
        { "process", "music.wav", "out.wav", "--gains", "1,2,3,4" },
        { "process", "music.wav", "out.wav", "--gains", "1,2,3,4,5,6" },
        { "process", "music.wav", "out.wav", "--gains", "1,2,nan,4,5" },
        { "process", "music.wav", "out.wav", "--gains", "1,2,inf,4,5" },
        { "process", "music.wav", "out.wav", "--gains", "1,2,,4,5" },
        { "process", "music.wav", "out.wav", "--gains", "1,2,3,4,5dB" },
        { "process", "music.wav", "out.wav", "--gains", "" },
        { "process", "music.wav", "out.wav", "--output-gain", "loud" },
        { "process", "music.wav", "out.wav", "--output-gain" },
        { "process", "music.wav", "out.wav", "--volume", "3" },
        { "process", "music.wav" },
        { "process", "music.wav", "out.wav", "extra.wav" },
        { "process" },
        { "--no-such-option" },
        { "equalize", "music.wav", "out.wav" },
    };
    for (const auto& arguments : mistakes) {
        std::string shown;
        for (const std::string& word : arguments)
            shown += " '" + word + "'";
        const ProgramRun run = runSorva(arguments, folder.path());
        EXPECT_EQ(run.exitStatus, 2) << shown;
        EXPECT_EQ(run.out, "") << shown;
        EXPECT_EQ(run.err.rfind("sorva: ", 0), 0u) << shown << ": " << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << shown << ": " << run.err;
        EXPECT_EQ(folder.names(), before) << shown;
    }

    // A disk that fills up halfway: writes beyond 256 KiB fail (a file-size
    // limit, with its signal ignored so that the write reports EFBIG).
    {
        rlimit original {};
        ::getrlimit(RLIMIT_FSIZE, &original);
        rlimit small = original;
        small.rlim_cur = 256 * 1024;
        auto previous = std::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &small);
        const ProgramRun run = runSorva({ "process", "music.wav", "out.wav" }, folder.path());
        ::setrlimit(RLIMIT_FSIZE, &original);
        std::signal(SIGXFSZ, previous);
        EXPECT_EQ(run.exitStatus, 2);
        EXPECT_EQ(run.err.rfind("sorva: cannot write 'out.wav': ", 0), 0u) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_EQ(folder.names(), before);
    }

    std::ifstream kept(folder / "keep.wav");
    std::string content;
    std::getline(kept, content);
    EXPECT_EQ(content, "precious");
    // The same-file checks must not have touched the input.
    EXPECT_EQ(readSound(folder / "music.wav").frames(), 44100);
    EXPECT_TRUE(std::filesystem::is_fifo(folder / "fifo"));
}

TEST(OfflineProcess, AnExistingOutputIsReplacedByACompleteFileWithOrdinaryPermissions)
{
    ScratchFolder folder;
    const Sound input = makeInput(folder / "music.wav", 2, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    std::filesystem::create_directory(folder / "out");
    std::ofstream(folder / "out" / "result.wav") << "an older, unrelated file";

    const mode_t mask = ::umask(022);
    const ProgramRun run = runSorva({ "process", "music.wav", "out/result.wav", "--preset", "ROCK" }, folder.path());
    ::umask(mask);
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    expectMatchesReference(folder / "out" / "result.wav", input, { { 10, 0, -2, -6, 2 }, -0.5 });
    struct stat status {};
    ASSERT_EQ(::stat((folder / "out" / "result.wav").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(std::filesystem::directory_iterator(folder / "out")->path().filename(), "result.wav");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / "out"), {}), 1);

    // Through a symbolic link, the file it points to is replaced; the link stays.
    std::filesystem::create_symlink("out/result.wav", folder / "latest.wav");
    const ProgramRun again = runSorva({ "process", "music.wav", "latest.wav" }, folder.path());
    ASSERT_EQ(again.exitStatus, 0) << again.err;
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "latest.wav"));
    expectMatchesReference(folder / "out" / "result.wav", input, { { 0, 0, 0, 0, 0 }, 0.0 });
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / "out"), {}), 1);
}

TEST(OfflineProcess, HelpAndVersionGoToStandardOutput)
{
    ScratchFolder folder;
    ProgramRun run = runSorva({ "--help" }, folder.path());
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_NE(run.out.find("sorva process INPUT OUTPUT"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");

    run = runSorva({ "--version" }, folder.path());
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.out.rfind("sorva ", 0), 0u) << run.out;
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1);

    // Help wins over anything else on the process command line.
    run = runSorva({ "process", "--gains", "nonsense", "--help" }, folder.path());
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    for (const char* word : { "--preset", "--gains", "--output-gain", "AirPods", "Vocal", "Electro", "Rock" })
        EXPECT_NE(run.out.find(word), std::string::npos) << word;
    EXPECT_EQ(folder.names(), std::vector<std::string> {});
}

TEST(OfflineProcess, ShowsProgressOnATerminalForLongFilesOnly)
{
    ScratchFolder folder;
    const Sound longInput = makeInput(folder / "long.wav", 12, 2, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    makeInput(folder / "short.wav", 2, 2, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16);

    auto runOnTerminal = [&](const std::string& input, const std::string& output, std::string& seen) {
        int terminal = -1;
        const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0) {
            if (::chdir(folder.path().c_str()) != 0)
                ::_exit(99);
            ::execl(SORVA_BINARY, SORVA_BINARY, "process", input.c_str(), output.c_str(), "--preset", "rock",
                    static_cast<char*>(nullptr));
            ::_exit(98);
        }
        char buffer[4096];
        for (;;) {
            const ssize_t got = ::read(terminal, buffer, sizeof buffer);
            if (got <= 0)
                break; // EIO once the program has exited
            seen.append(buffer, static_cast<size_t>(got));
        }
        ::close(terminal);
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };

    std::string seen;
    ASSERT_EQ(runOnTerminal("long.wav", "long-out.wav", seen), 0) << seen;
    EXPECT_NE(seen.find("100%"), std::string::npos) << seen;
    EXPECT_NE(seen.find('\r'), std::string::npos) << seen;
    expectMatchesReference(folder / "long-out.wav", longInput, { { 10, 0, -2, -6, 2 }, -0.5 });

    seen.clear();
    ASSERT_EQ(runOnTerminal("short.wav", "short-out.wav", seen), 0) << seen;
    EXPECT_EQ(seen, "");
}

TEST(OfflineProcess, AnInterruptedRunLeavesNeitherOutputNorTemporaryFile)
{
    ScratchFolder folder;
    // A WAV that announces 20 s but arrives through a pipe that stalls after
    // the first second: the run is mid-file when it is interrupted.
    makeInput(folder / "source.wav", 20, 2, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    std::ifstream source(folder / "source.wav", std::ios::binary);
    std::vector<char> firstSecond(44 + 44100 * 4);
    source.read(firstSecond.data(), static_cast<std::streamsize>(firstSecond.size()));
    ASSERT_EQ(::mkfifo((folder / "pipe.wav").c_str(), 0600), 0);
    const std::vector<std::string> before = folder.names();

    const std::string pipePath = (folder / "pipe.wav").string();
    const std::string outputPath = (folder / "out.wav").string();
    ScratchFolder capture;
    const std::string errorPath = (capture / "err").string();
    pid_t child = ::fork();
    if (child == 0) {
        const int error = ::open(errorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (error < 0 || ::dup2(error, STDERR_FILENO) < 0)
            ::_exit(97);
        ::execl(SORVA_BINARY, SORVA_BINARY, "process", pipePath.c_str(), outputPath.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(98);
    }
    // Non-blocking until the program has the pipe open for reading, so that a
    // program that never opens it fails the test instead of hanging it.
    int writer = -1;
    for (int attempt = 0; attempt < 2000 && writer < 0; ++attempt) {
        writer = ::open(pipePath.c_str(), O_WRONLY | O_NONBLOCK);
        if (writer < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (writer < 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    ASSERT_GE(writer, 0);
    ::fcntl(writer, F_SETFL, ::fcntl(writer, F_GETFL) & ~O_NONBLOCK);
    ASSERT_EQ(::write(writer, firstSecond.data(), firstSecond.size()), static_cast<ssize_t>(firstSecond.size()));

    // Wait (briefly, in small steps) until the partial output exists.
    bool partialSeen = false;
    for (int attempt = 0; attempt < 2000 && !partialSeen; ++attempt) {
        for (const std::string& name : folder.names())
            partialSeen = partialSeen || name.find(".part") != std::string::npos;
        if (!partialSeen)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(partialSeen);
    // The signal is pending before the pipe closes, so the program sees it at
    // the latest when its read returns at the end of the data.
    ::kill(child, SIGINT);
    ::close(writer);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_EQ(folder.names(), before);
    std::ifstream errors(errorPath);
    std::stringstream text;
    text << errors.rdbuf();
    EXPECT_EQ(text.str(), "sorva: interrupted\n");
}
