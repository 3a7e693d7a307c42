#include "Audio/EQLog.h"
#include "Audio/LogOnce.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace sorva;

namespace {

// Points the log at a fresh folder for one test and back afterwards.
class EQLogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-log-test-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
        EQLog::setDirectoryForTesting(folder);
    }
    void TearDown() override
    {
        EQLog::setDirectoryForTesting(std::nullopt);
        std::filesystem::remove_all(folder);
    }

    std::string fileContents()
    {
        EQLog::flush();
        std::ifstream in(folder / "sorva-diagnostic.log", std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::vector<std::string> lines()
    {
        std::vector<std::string> result;
        std::stringstream text(fileContents());
        for (std::string line; std::getline(text, line);)
            result.push_back(line);
        return result;
    }

    std::filesystem::path folder;
};

// "[" + time of day + "] " + message; the time as the locale writes it
// (24-hour in the C locale, possibly with AM/PM elsewhere).
const std::regex timedLine(R"(\[\d{1,2}:\d{2}:\d{2}( ?[AaPp]\.?[Mm]\.?)?\] (.*))");

// Captures what the process writes to standard error while alive.
class StandardErrorCapture {
public:
    StandardErrorCapture()
    {
        std::fflush(stderr);
        saved = ::dup(2);
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-stderr-XXXXXX").string();
        file = ::mkstemp(pattern.data());
        path = pattern;
        ::dup2(file, 2);
    }
    std::string finish()
    {
        EQLog::flush();
        std::fflush(stderr);
        ::dup2(saved, 2);
        ::close(saved);
        ::close(file);
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        std::filesystem::remove(path);
        return text.str();
    }

private:
    int saved = -1, file = -1;
    std::filesystem::path path;
};

} // namespace

TEST_F(EQLogTest, FirstLineInAFreshFolderCreatesTheFileWithExactlyThatLine)
{
    ASSERT_FALSE(std::filesystem::exists(folder / "sorva-diagnostic.log"));
    EQLog::trace("engine started");
    const std::string text = fileContents();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    std::smatch match;
    const std::string line = text.substr(0, text.size() - 1);
    ASSERT_TRUE(std::regex_match(line, match, timedLine)) << line;
    EXPECT_EQ(match[2], "engine started");
    EXPECT_EQ(EQLog::logFilePath(), folder / "sorva-diagnostic.log");
    EXPECT_EQ(EQLog::diagnosticsDirectory(), folder / "sorva-diagnostics");
    EXPECT_FALSE(std::filesystem::exists(folder / "sorva-diagnostics")) << "never created by the log";
}

TEST_F(EQLogTest, LinesKeepCallOrderAndEmbeddedLineFeedsBreakTheLine)
{
    StandardErrorCapture standardError;
    std::vector<std::string> observed;
    EQLog::setObserver([&](const std::string& message) { observed.push_back(message); });
    int evaluations = 0;
    EQLog::trace("first");
    EQLog::trace([&] {
        ++evaluations;
        return std::string("second");
    });
    EQLog::trace(std::string("third part one\nthird part two"));
    EQLog::setObserver({});
    const std::string error = standardError.finish();

    EXPECT_EQ(evaluations, 1) << "a lazy message is evaluated exactly once";
    EXPECT_EQ(observed, (std::vector<std::string> { "first", "second", "third part one\nthird part two" }));
    const auto file = lines();
    ASSERT_EQ(file.size(), 4u);
    std::smatch match;
    const char* messages[] = { "first", "second", "third part one" };
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(std::regex_match(file[i], match, timedLine)) << file[i];
        EXPECT_EQ(match[2], messages[i]);
    }
    EXPECT_EQ(file[3], "third part two");
    EXPECT_NE(error.find("[sorva] first\n[sorva] second\n[sorva] third part one\nthird part two\n"), std::string::npos)
        << error;
}

TEST_F(EQLogTest, ALogOnceSharedByManyThreadsLogsOnce)
{
    for (int round = 0; round < 20; ++round) {
        LogOnce once;
        std::atomic<int> evaluated { 0 };
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([&, round] {
                once.log([&, round] {
                    evaluated.fetch_add(1);
                    return "layout " + std::to_string(round);
                });
            });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(evaluated.load(), 1);
        EXPECT_TRUE(once.hasFired());
    }
    const auto file = lines();
    ASSERT_EQ(file.size(), 20u);
    std::smatch match;
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(std::regex_match(file[size_t(round)], match, timedLine));
        EXPECT_EQ(match[2], "layout " + std::to_string(round));
    }
}

TEST_F(EQLogTest, LinesFromManyThreadsNeverMix)
{
    constexpr int threadCount = 6, perThread = 300;
    const std::string padding(200, 'x'); // long lines make a torn write likely if writes could interleave
    StandardErrorCapture standardError;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                EQLog::trace("thread " + std::to_string(t) + " line " + std::to_string(i) + " " + padding);
        });
    for (auto& thread : threads)
        thread.join();
    std::stringstream error(standardError.finish());
    int errorLines = 0;
    for (std::string line; std::getline(error, line); ++errorLines)
        ASSERT_TRUE(std::regex_match(line, std::regex(R"(\[sorva\] thread \d+ line \d+ x{200})"))) << line;
    EXPECT_EQ(errorLines, threadCount * perThread);

    const auto file = lines();
    ASSERT_EQ(file.size(), size_t(threadCount * perThread));
    const std::regex message(R"(thread (\d+) line (\d+) (x+))");
    std::vector<int> next(threadCount, 0);
    std::smatch match, parts;
    for (const auto& line : file) {
        ASSERT_TRUE(std::regex_match(line, match, timedLine)) << line;
        const std::string text = match[2];
        ASSERT_TRUE(std::regex_match(text, parts, message)) << line;
        ASSERT_EQ(parts[3].length(), padding.size()) << line;
        const int t = std::stoi(parts[1]), i = std::stoi(parts[2]);
        EXPECT_EQ(i, next[size_t(t)]) << "thread " << t << "'s lines keep their order";
        next[size_t(t)] = i + 1;
    }
}

TEST_F(EQLogTest, AnUnusableFolderLosesOnlyTheFileLines)
{
    StandardErrorCapture standardError;
    EQLog::setDirectoryForTesting(folder / "missing" / "deeper");
    std::vector<std::string> observed;
    EQLog::setObserver([&](const std::string& message) { observed.push_back(message); });
    EQLog::trace("still traced");
    EQLog::flush();
    EQLog::setObserver({});
    EXPECT_EQ(observed, std::vector<std::string> { "still traced" });
    EXPECT_EQ(standardError.finish(), "[sorva] still traced\n");
    EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
}
