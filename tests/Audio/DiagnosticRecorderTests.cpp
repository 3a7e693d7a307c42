#include "Audio/DiagnosticRecorder.h"
#include "AllocationCounter.h"
#include "EngineTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace sorva;
using namespace std::chrono;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

const system_clock::time_point exampleTime = sys_days { year { 2026 } / March / 14 } + 9h + 26min + 53s;

// The 44-byte header of a 32-bit float WAV file, built field by field.
std::string wavHeader(uint32_t channels, uint32_t rate, uint32_t frames)
{
    std::string h;
    auto put = [&h](uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            h += char((value >> (8 * i)) & 0xff);
    };
    const uint32_t dataBytes = frames * channels * 4;
    h += "RIFF", put(36 + dataBytes, 4), h += "WAVEfmt ", put(16, 4), put(3, 2), put(channels, 2), put(rate, 4);
    put(rate * channels * 4, 4), put(channels * 4, 2), put(32, 2), h += "data", put(dataBytes, 4);
    return h;
}

std::vector<std::string> namesIn(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    return names;
}

// Raw sample of frame n, channel c in these tests; processed is its negative.
float patternValue(int64_t frame, int64_t channels, int64_t channel) { return float(frame * channels + channel + 1); }

// Planar: stereo handed over as two channel blocks.
void pushPattern(DiagnosticRecorder& recorder, int64_t firstFrame, int64_t frames, int64_t blockFrames,
                 bool planar = false)
{
    const int64_t channels = recorder.channels;
    std::vector<float> raw(size_t(blockFrames * channels)), processed(raw.size());
    for (int64_t done = 0; done < frames; done += blockFrames) {
        const int64_t count = std::min(blockFrames, frames - done);
        for (int64_t i = 0; i < count * channels; ++i) {
            const int64_t at = planar ? (i % count) * channels + i / count : i; // where the sample sits in time order
            processed[size_t(i)] = -(raw[size_t(i)] = patternValue(firstFrame + done + at / channels, channels, at % channels));
        }
        EXPECT_EQ(test::allocationsDuring([&] {
                      if (planar)
                          recorder.pushPlanar(raw.data(), raw.data() + count, processed.data(),
                                              processed.data() + count, count);
                      else
                          recorder.push(raw.data(), processed.data(), count);
                  }),
                  0u) << "the audio thread's push allocates nothing";
    }
}

// A fresh log folder whose diagnostics folder is `folder`; logged lines collected.
class DiagnosticRecorderTest : public ::testing::Test {
protected:
    LogFolder logFolder;
    const fs::path root = logFolder.path, folder = *EQLog::diagnosticsDirectory();
    ManualMainExecutor mainExecutor;
    LogLines log;
};

} // namespace

TEST_F(DiagnosticRecorderTest, CapturesHoldTheHistoryPushedSoFarOldestFirstAcrossTheWrap)
{
    DiagnosticRecorder recorder(12, 2, 48000, mainExecutor, [] { return exampleTime; });
    EXPECT_FALSE(recorder.markEvent("chunk", folder, "").has_value());
    EXPECT_FALSE(fs::exists(folder)); // nothing written, not even the folder

    pushPattern(recorder, 0, 240000, 8192);
    const auto glitch = recorder.markEvent("glitch: at 12:00/now", folder, "");
    ASSERT_TRUE(glitch.has_value());
    EXPECT_EQ(fs::file_size(glitch->raw), 44u + 240000u * 8u);
    EXPECT_EQ(readText(glitch->context),
              "Event: glitch: at 12:00/now\nTime: 2026-03-14 09:26:53 +0000\nCaptured: 5.0 s (240000 frames)\n");

    constexpr int64_t pushed = 696000; // 14.5 s in planar blocks: the ring wrapped mid-block
    pushPattern(recorder, 240000, pushed - 240000, 4095, true);
    const std::string extra = "Architecture: single-device\nOutput device: Speakers";
    const auto files = recorder.markEvent("chunk", folder, extra);
    ASSERT_TRUE(files.has_value());
    EXPECT_EQ(files->raw, folder / "2026-03-14T09-26-53Z-chunk-raw.wav");
    EXPECT_EQ(files->processed, folder / "2026-03-14T09-26-53Z-chunk-processed.wav");
    EXPECT_EQ(files->context, folder / "2026-03-14T09-26-53Z-chunk-context.txt");
    for (const fs::path& file : { files->raw, files->processed }) {
        const std::string bytes = readText(file);
        ASSERT_EQ(bytes.size(), 4'608'044u) << file;
        EXPECT_EQ(bytes.substr(0, 44), wavHeader(2, 48000, 576000));
        const float sign = file == files->raw ? 1.0f : -1.0f;
        const std::vector<float> samples = wavSamples(bytes);
        for (int64_t i = 0; i < 2 * 576000; ++i)
            ASSERT_EQ(samples[size_t(i)], sign * patternValue(pushed - 576000 + i / 2, 2, i % 2)) << file << " " << i;
    }
    EXPECT_EQ(readText(files->context),
              "Event: chunk\nTime: 2026-03-14 09:26:53 +0000\nCaptured: 12.0 s (576000 frames)\n" + extra);
    const auto names = namesIn(folder);
    EXPECT_EQ(names.size(), 6u); // no temporary file left behind
    for (const std::string& name : names)
        EXPECT_EQ(name.find(':'), std::string::npos) << name;
    // Pushing logged nothing.
    EXPECT_EQ(log.all(), (std::vector<std::string> {
                                 "diagnostic event 'glitch: at 12:00/now' captured -> " + glitch->raw.filename().string(),
                                 "diagnostic event 'chunk' captured -> 2026-03-14T09-26-53Z-chunk-raw.wav" }));
}

TEST_F(DiagnosticRecorderTest, TimerCapturesEveryIntervalAndKeepsTheNewestCaptures)
{
    // Twenty earlier captures, oldest first, and files that are not captures (the orphan: a capture that failed
    // before its context file), older still.
    fs::create_directories(folder);
    const auto earlier = [](int i) { return "2026-01-01T00-00-" + std::to_string(10 + i) + "Z-chunk"; };
    const char* suffixes[] = { "-raw.wav", "-processed.wav", "-context.txt" };
    std::vector<std::string> names { "notes.txt", "orphan-raw.wav" };
    for (int i = 0; i < 20; ++i)
        for (const char* suffix : suffixes)
            names.push_back(earlier(i) + suffix);
    for (size_t i = 0; i < names.size(); ++i) {
        std::ofstream(folder / names[i]) << names[i];
        fs::last_write_time(folder / names[i], fs::file_time_type::clock::now() - 1000s + seconds(i));
    }

    system_clock::time_point stamp = exampleTime;
    auto recorder = std::make_unique<DiagnosticRecorder>(12, 2, 48000, mainExecutor, [&stamp] { return stamp += 60s; });
    pushPattern(*recorder, 0, 48000, 4096);
    int providerCalls = 0;
    recorder->startContinuousCapture(folder, 60, 20, [&] {
        ++providerCalls;
        EXPECT_TRUE(mainExecutor.isMainThread());
        return std::string("Architecture: single-device");
    });
    const auto advance = [&](seconds by) { mainExecutor.advance(by), recorder->waitForCaptures(); };
    advance(59s);
    EXPECT_EQ(providerCalls, 0);

    advance(1s);
    EXPECT_EQ(providerCalls, 1);
    EXPECT_NE(readText(folder / "2026-03-14T09-27-53Z-chunk-context.txt").find("frames)\nArchitecture: single-device"),
              std::string::npos);
    for (const char* suffix : suffixes)
        EXPECT_FALSE(fs::exists(folder / (earlier(0) + suffix))) << suffix;
    EXPECT_EQ(namesIn(folder).size(), 62u); // the other captures, notes.txt and the orphan stay

    advance(60s);
    EXPECT_EQ(providerCalls, 2);
    EXPECT_TRUE(fs::exists(folder / "2026-03-14T09-28-53Z-chunk-raw.wav"));
    recorder->stopContinuousCapture();
    EXPECT_EQ(mainExecutor.activeTimers(), 0u);
    // A new start replaces the timer; destroying the recorder cancels it.
    recorder->startContinuousCapture(folder, 30, 20, {});
    recorder->startContinuousCapture(folder, 60, 20, {});
    EXPECT_EQ(mainExecutor.activeTimers(), 1u);
    recorder.reset();
    EXPECT_EQ(mainExecutor.activeTimers(), 0u);
}

TEST_F(DiagnosticRecorderTest, RefusesBadSizesUnwritableFoldersAndSymbolicLinksAndKeepsCapturesPrivate)
{
    for (const auto& [seconds, channels] : { std::pair { 0.0, 2 }, { std::nan(""), 2 }, { 1.0, 0 } })
        EXPECT_THROW(DiagnosticRecorder(seconds, channels, 48000, mainExecutor), std::invalid_argument);

    DiagnosticRecorder recorder(1, 2, 48000, mainExecutor, [] { return exampleTime; });
    pushPattern(recorder, 0, 4800, 480);
    const mode_t previous = ::umask(0);
    const auto files = recorder.markEvent("chunk", folder, "");
    ::umask(previous);
    ASSERT_TRUE(files.has_value());
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
    for (const fs::path& file : { files->raw, files->processed, files->context })
        EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write) << file;

    // A link at a capture's file name, and a link in place of the folder.
    const fs::path victim = root / "victim";
    std::ofstream(victim) << "precious";
    fs::remove(files->processed);
    fs::create_symlink(victim, files->processed);
    EXPECT_FALSE(recorder.markEvent("chunk", folder, "").has_value());
    fs::create_directory(root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", root / "linked");
    EXPECT_FALSE(recorder.markEvent("chunk", root / "linked", "").has_value());
    EXPECT_EQ(readText(victim), "precious");
    EXPECT_TRUE(fs::is_empty(root / "elsewhere"));

    std::ofstream(root / "not-a-folder") << "x";
    log.clear();
    EXPECT_FALSE(recorder.markEvent("chunk", root / "not-a-folder" / "sub", "").has_value());
    EXPECT_EQ(log.all(), std::vector<std::string> { "diagnostic capture failed: Not a directory" });
}
