// The built program as `make run` starts it, in a private PipeWire session:
// `SORVA_AUTOSTART=1 sorva --headless` equalizes another program, logs its
// per-second statistics, follows a change of the default output with one
// rebuild, and on SIGTERM leaves the graph as it found it.
#include "PipeWire/ChildProcess.h"
#include "PipeWire/PrivateSession.h"
#include "PipeWire/TestGraph.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <regex>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

std::vector<float> tone(size_t frames, float amplitude)
{
    std::vector<float> samples(frames * 2);
    for (size_t f = 0; f < frames; ++f) {
        auto v = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * 440.0 * double(f) / 48000.0 + 0.5));
        samples[2 * f] = v;
        samples[2 * f + 1] = v;
    }
    return samples;
}

// The program's standard error, line by line, with everything read kept.
struct Program {
    explicit Program(const std::filesystem::path& home)
        : process({ "/bin/sh", "-c",
                    "SORVA_AUTOSTART=1 XDG_CONFIG_HOME='" + home.string() + "' TMPDIR='" + home.string()
                        + "' exec '" SORVA_BINARY "' --headless 2>&1" })
    {
    }
    // Reads until a line matches; false when the program ended or time ran out.
    bool waitFor(const std::regex& pattern, std::chrono::milliseconds timeout)
    {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            auto line = process.readLine(100ms);
            if (!line)
                continue;
            lines.push_back(*line);
            if (std::regex_search(*line, pattern))
                return true;
        }
        return false;
    }
    size_t count(const std::string& prefix) const
    {
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.rfind(prefix, 0) == 0;
        }));
    }
    ChildProcess process;
    std::vector<std::string> lines;
};

} // namespace

TEST(HeadlessProgramOnPipeWire, EqualizesFollowsTheDefaultOutputAndLeavesTheGraphAsItFoundIt)
{
    PrivateSession session;
    ASSERT_TRUE(session.ready()) << "the private PipeWire session did not start";
    TestGraph graph;
    ASSERT_TRUE(graph.connected());
    auto home = std::filesystem::path(session.root()) / "home";
    std::filesystem::create_directories(home);

    Program sorva(home);
    ASSERT_TRUE(sorva.waitFor(std::regex("processor started — output Speakers"), 15s));

    // Another program plays; its sound reaches the speakers through SORVA.
    graph.startRecorder("speakers", 48000 * 6);
    graph.startPlayer(tone(48000 * 30, 0.25f));
    graph.armPlayer();
    ASSERT_TRUE(TestGraph::waitFor(
        [&] {
            auto player = graph.nodeID("sorva_test_player");
            auto tap = graph.nodeID("sorva_system_tap");
            return player && tap && graph.linked(*player, *tap);
        },
        5s));
    ASSERT_TRUE(sorva.waitFor(std::regex(R"(^\[sorva\] frames \d+/s · peak 0\.2[45]\d\d · late \d+/\d+ · maxGap \d+\.\dms · work \d+\.\d\dms$)"), 10s))
        << (sorva.lines.empty() ? "(no output)" : sorva.lines.back());
    auto recorded = graph.recorded();
    float peak = 0;
    for (float sample : recorded)
        peak = std::max(peak, std::fabs(sample));
    EXPECT_NEAR(peak, 0.25f, 0.01f) << "flat settings: the speakers get the tone as it was played";

    // The default output changes, more than the engine's settle time (3 s)
    // after its start (changes before that are dropped): one rebuild, on the
    // new device.
    for (int tick = 0; tick < 3; ++tick)
        ASSERT_TRUE(sorva.waitFor(std::regex(R"(^\[sorva\] frames )"), 3s));
    graph.setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", R"({ "name": "speakers-2" })");
    ASSERT_TRUE(TestGraph::waitFor(
        [&] { return graph.metadata(0, "default.audio.sink") == std::optional<std::string>(R"({"name":"speakers-2"})"); },
        3s))
        << graph.metadata(0, "default.audio.sink").value_or("(none)");
    ASSERT_TRUE(sorva.waitFor(std::regex("processor started — output Second Speakers"), 10s)) << [&] {
        std::string all;
        for (const auto& line : sorva.lines)
            if (line.find("actor:") == std::string::npos)
                all += line + "\n";
        return all;
    }();
    ASSERT_TRUE(sorva.waitFor(std::regex(R"(^\[sorva\] frames \d+/s · peak 0\.2)"), 10s));
    EXPECT_EQ(sorva.count("[sorva] single-device processor started"), 2u);
    EXPECT_TRUE(TestGraph::waitFor(
        [&] {
            auto output = graph.nodeID("sorva_output");
            auto second = graph.nodeID("speakers-2");
            return output && second && graph.linked(*output, *second);
        },
        5s));

    // SIGTERM: SORVA stops and the program plays straight to the device.
    sorva.process.kill(SIGTERM);
    EXPECT_TRUE(sorva.waitFor(std::regex("processing stopped — exiting"), 10s));
    EXPECT_EQ(sorva.process.wait(10s), std::optional<int>(0));
    EXPECT_TRUE(TestGraph::waitFor(
        [&] { return !graph.nodeID("sorva_system_tap") && !graph.nodeID("sorva_output"); }, 5s));
    auto player = graph.nodeID("sorva_test_player");
    ASSERT_TRUE(player);
    EXPECT_FALSE(graph.metadata(*player, "target.object").has_value())
        << "target.object is " << graph.metadata(*player, "target.object").value_or("");
    EXPECT_TRUE(TestGraph::waitFor(
        [&] {
            for (const char* speaker : { "speakers", "speakers-2" }) {
                auto node = graph.nodeID(speaker);
                if (node && graph.linked(*player, *node))
                    return true;
            }
            return false;
        },
        5s));
    graph.stopPlayer();
}

} // namespace sorva::testing
