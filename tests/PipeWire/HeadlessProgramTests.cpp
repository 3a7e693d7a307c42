// `SORVA_AUTOSTART=1 sorva --headless` as `make run` starts it, in a private
// PipeWire session.
#include "PipeWire/TestGraph.h"

#include <cmath>
#include <csignal>
#include <filesystem>
#include <regex>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

// The program's standard error, line by line, with everything read kept.
struct Program {
    explicit Program(const std::filesystem::path& home)
        : process({ "/bin/sh", "-c",
                    "SORVA_AUTOSTART=1 XDG_CONFIG_HOME='" + home.string() + "' TMPDIR='" + home.string()
                        + "' exec '" SORVA_BINARY "' --headless 2>&1" })
    {
    }
    // Reads until a line matches; false when the program ended or time ran out.
    bool waitFor(const std::regex& pattern, std::chrono::milliseconds timeout = TestGraph::eventTimeout)
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
    ChildProcess process;
    std::vector<std::string> lines;
};

} // namespace

using HeadlessProgramOnPipeWire = GraphTest;

TEST_F(HeadlessProgramOnPipeWire, EqualizesFollowsTheDefaultOutputAndLeavesTheGraphAsItFoundIt)
{
    auto home = std::filesystem::path(session.root()) / "home";
    std::filesystem::create_directories(home);

    auto linked = [&](const char* from, const char* to) { return sorva::testing::linked(graph, from, to); };
    Program sorva(home);
    ASSERT_TRUE(sorva.waitFor(std::regex("processor started — output Speakers")));

    // Another program plays; its sound reaches the speakers through SORVA.
    graph.startRecorder("speakers", 48000 * 6);
    graph.startPlayer(tone(48000 * 30, 440.0, 0.25f));
    graph.armPlayer();
    ASSERT_TRUE(playerRoutedToTap(graph));
    ASSERT_TRUE(sorva.waitFor(std::regex(R"(^\[sorva\] frames \d+/s · peak 0\.2[45]\d\d · late \d+/\d+ · maxGap \d+\.\dms · work \d+\.\d\dms$)")));
    auto recorded = graph.recorded();
    ASSERT_FALSE(recorded.empty());
    auto peak = std::fabs(*std::max_element(recorded.begin(), recorded.end(),
                                            [](float a, float b) { return std::fabs(a) < std::fabs(b); }));
    EXPECT_NEAR(peak, 0.25f, 0.01f) << "flat settings: the speakers get the tone as it was played";

    // The default output changes past the engine's settle time (3 s after its
    // start): one rebuild, on the new device.
    for (int tick = 0; tick < 3; ++tick)
        ASSERT_TRUE(sorva.waitFor(std::regex(R"(^\[sorva\] frames )")));
    graph.setDefaultSink("speakers-2");
    ASSERT_TRUE(sorva.waitFor(std::regex("processor started — output Second Speakers")));
    ASSERT_TRUE(sorva.waitFor(std::regex(R"(^\[sorva\] frames \d+/s · peak 0\.2)")));
    EXPECT_EQ(std::count_if(sorva.lines.begin(), sorva.lines.end(),
                            [](const std::string& line) { return line.starts_with("[sorva] single-device processor started"); }),
              2);
    EXPECT_TRUE(TestGraph::waitFor([&] { return linked("sorva_output", "speakers-2"); }));

    // SIGTERM: SORVA stops and the program plays straight to the device.
    sorva.process.kill(SIGTERM);
    EXPECT_TRUE(sorva.waitFor(std::regex("processing stopped — exiting")));
    EXPECT_EQ(sorva.process.wait(TestGraph::eventTimeout), std::optional<int>(0));
    EXPECT_TRUE(TestGraph::waitFor(
        [&] { return !graph.nodeID("sorva_system_tap") && !graph.nodeID("sorva_output"); }));
    auto player = graph.nodeID("sorva_test_player");
    ASSERT_TRUE(player);
    EXPECT_FALSE(graph.metadata(*player, "target.object"));
    EXPECT_TRUE(TestGraph::waitFor(
        [&] { return linked("sorva_test_player", "speakers") || linked("sorva_test_player", "speakers-2"); }));
}

} // namespace sorva::testing
