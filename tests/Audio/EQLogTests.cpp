#include "Audio/EQLog.h"
#include "EngineTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <regex>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace sorva;
namespace fs = std::filesystem;

namespace {

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> result;
    std::stringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

// "[" + time of day as the locale writes it + "] " + message.
std::string messageOf(const std::string& line)
{
    static const std::regex timedLine(R"(\[\d{1,2}:\d{2}:\d{2}( ?[AaPp]\.?[Mm]\.?)?\] (.*))");
    std::smatch match;
    EXPECT_TRUE(std::regex_match(line, match, timedLine)) << line;
    return match.size() > 2 ? match[2].str() : "";
}

// Points the log at a fresh folder and captures standard error, for one test.
class EQLogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::fflush(stderr);
        savedError = ::dup(2);
        const int capture = ::open((folder / "stderr").c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
        ::dup2(capture, 2);
        ::close(capture);
    }
    void TearDown() override
    {
        standardError();
        ::dup2(savedError, 2);
        ::close(savedError);
    }
    std::vector<std::string> fileLines()
    {
        EQLog::flush();
        return splitLines(readText(file));
    }
    std::string standardError()
    {
        EQLog::flush();
        std::fflush(stderr);
        return readText(folder / "stderr");
    }

    LogFolder logFolder;
    const fs::path folder = logFolder.path, file = folder / "sorva-diagnostic.log";
    int savedError = -1;
};

} // namespace

TEST_F(EQLogTest, LinesGoToTheFileStandardErrorAndTheObserverInCallOrder)
{
    ASSERT_FALSE(fs::exists(file));
    std::vector<std::string> observed;
    EQLog::setObserver([&](const std::string& message) { observed.push_back(message); });
    int evaluations = 0;
    EQLog::trace("first");
    EQLog::trace([&] { return std::to_string(++evaluations) + "nd"; });
    EQLog::trace(std::string("third part one\nthird part two"));
    EQLog::setObserver({});

    EXPECT_EQ(evaluations, 1) << "a lazy message is evaluated exactly once";
    EXPECT_EQ(observed, (std::vector<std::string> { "first", "1nd", "third part one\nthird part two" }));
    const auto lines = fileLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ((std::vector { messageOf(lines[0]), messageOf(lines[1]), messageOf(lines[2]), lines[3] }),
              (std::vector<std::string> { "first", "1nd", "third part one", "third part two" }));
    EXPECT_EQ(readText(file).back(), '\n');
    EXPECT_EQ(standardError(), "[sorva] first\n[sorva] 1nd\n[sorva] third part one\nthird part two\n");
    EXPECT_EQ(EQLog::logFilePath(), file);
    EXPECT_EQ(EQLog::diagnosticsDirectory(), folder / "sorva-diagnostics");
    EXPECT_FALSE(fs::exists(folder / "sorva-diagnostics")) << "never created by the log";
}

// Eight threads write 300 long lines each (a torn write would show in a long line). LogOnce is claimed by
// one IO thread per start; that it logs once shows in the controller's tests.
TEST_F(EQLogTest, ManyThreadsWriteWholeLinesInTheirOwnOrder)
{
    constexpr int threadCount = 8, perThread = 300;
    const std::string padding(200, 'x');
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < threadCount; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i)
                    EQLog::trace("thread " + std::to_string(t) + " line " + std::to_string(i) + " " + padding);
            });
    }
    const std::regex message(R"(thread (\d+) line (\d+) x{200})");
    EXPECT_EQ(splitLines(standardError()).size(), size_t(threadCount * perThread));
    std::vector<int> next(threadCount, 0);
    std::smatch parts;
    for (const auto& line : fileLines()) {
        const std::string text = messageOf(line);
        ASSERT_TRUE(std::regex_match(text, parts, message)) << line;
        EXPECT_EQ(std::stoi(parts[2]), next[size_t(std::stoi(parts[1]))]++) << "a thread's lines keep their order";
    }
    EXPECT_EQ(next, std::vector<int>(threadCount, perThread));
}

TEST_F(EQLogTest, TheFileIsPrivateAndALinkAtItsNameOrAnUnusableFolderLosesOnlyTheFileLines)
{
    const auto victim = folder / "victim";
    std::ofstream(victim) << "precious\n";
    fs::create_symlink(victim, file);
    EQLog::trace("first");
    EQLog::trace("second");
    EXPECT_EQ(readText(victim), "precious\n");
    EXPECT_TRUE(fs::is_symlink(file)) << "the planted link is left for the user to see";
    EXPECT_NE(standardError().find("[sorva] log file refused: " + file.string() + " is a symbolic link\n"),
              std::string::npos);

    fs::remove(file);
    const mode_t previous = ::umask(0);
    EQLog::trace("third");
    EXPECT_EQ(fileLines().size(), 1u);
    ::umask(previous);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    EQLog::setDirectoryForTesting(folder / "missing" / "deeper");
    EQLog::trace("still traced");
    EXPECT_TRUE(standardError().ends_with("[sorva] still traced\n"));
    EXPECT_FALSE(fs::exists(folder / "missing"));
}
