// The single-device engine (in a child process) on a private PipeWire session:
// the test's player stands for every other program, the recorder for the speakers.
#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"
#include "PipeWire/TestGraph.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <random>
#include <thread>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

std::vector<float> noise(size_t frames, uint32_t seed)
{
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> uniform(-0.2f, 0.2f);
    std::vector<float> samples(frames * 2);
    for (auto& s : samples)
        s = uniform(generator);
    samples[0] = 0.2f; // a non-zero first frame marks the start
    return samples;
}

std::vector<float> equalized(std::vector<float> samples, const std::vector<double>& gains)
{
    auto bands = EQConfig::defaultConfig().bands;
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = gains[i];
    BiquadEQ eq(5, 2);
    eq.update(bands, 0.0, 48000.0);
    eq.processInterleaved(samples.data(), static_cast<int64_t>(samples.size() / 2), 2);
    return samples;
}

EngineHost engineHost(const std::vector<double>& gains)
{
    std::string list;
    for (double g : gains)
        list += (list.empty() ? "" : ",") + std::to_string(g);
    return EngineHost({ SORVA_ENGINE_HOST, "--gains", list });
}

using PipeWireEngine = GraphTest;

// Both paths copy floats at one rate, so the equalizer's output arrives bit
// for bit, followed by its own decay once the player plays silence: an
// unprocessed copy leaking through, or SORVA's output fed back into its tap,
// changes bits.
TEST_F(PipeWireEngine, EqualizesAnotherProgramExactlyLeaksNothingAndFeedsNothingBack)
{
    struct Case {
        const char* name;
        std::vector<double> gains;
        std::vector<float> signal;
    };
    const Case cases[] = {
        { "noise, every band", { 6.0, -3.0, 4.0, -2.0, 5.0 }, noise(48000, 7) },
        { "2 kHz tone, its band at -24 dB", { 0.0, 0.0, 0.0, -24.0, 0.0 }, tone(48000, 2000.0, 0.25f) },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto host = engineHost(c.gains);
        ASSERT_TRUE(host.started());
        graph.startRecorder("speakers", 48000 * 2);
        graph.startPlayer(c.signal);
        ASSERT_TRUE(playerRoutedToTap(graph));
        ASSERT_TRUE(graph.waitGraphFrames(14400)); // the 150 ms fade-in plays out on silence

        auto withSilence = c.signal;
        withSilence.resize(withSilence.size() + 14400 * 2, 0.0f);
        const auto match = matchByQuanta(playAndRecord(graph), withSilence, graph.recorderCycleFrames(),
                                         [&](std::vector<float> input) { return equalized(std::move(input), c.gains); });
        EXPECT_TRUE(match.matches) << match.mismatch;
        if (match.lostQuanta > 0)
            std::cout << "[ loaded   ] the graph lost " << match.lostQuanta << " quanta\n";
        // The user's default devices stay what they were.
        EXPECT_EQ(graph.metadata(0, "default.audio.sink"), std::optional<std::string>("{\"name\":\"speakers\"}"));
        EXPECT_EQ(graph.metadata(0, "default.audio.source").value_or("").find("sorva"), std::string::npos);
        EXPECT_TRUE(host.stop());
        graph.stopPlayer();
        graph.stopRecorder();
        ASSERT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_system_tap"); }));
    }
}

TEST_F(PipeWireEngine, AddsNoLatencyToTheDirectPath)
{
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(impulseSignal());
    ASSERT_TRUE(playerPlaysDirectly(graph));
    ASSERT_TRUE(graph.waitGraphFrames(9600));
    auto direct = impulseDelay(graph);
    ASSERT_TRUE(direct);
    graph.stopPlayer();
    graph.stopRecorder();

    auto host = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(host.started());
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(impulseSignal());
    ASSERT_TRUE(playerRoutedToTap(graph));
    ASSERT_TRUE(graph.waitGraphFrames(14400));
    auto throughSORVA = impulseDelay(graph);
    ASSERT_TRUE(throughSORVA);
    EXPECT_EQ(*throughSORVA, *direct);
    std::cout << "[ latency  ] direct path " << *direct << " frames, through SORVA " << *throughSORVA << " frames\n";
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, StopAndTheNextStartAfterACrashRestoreTheRouting)
{
    auto signal = noise(24000, 11);
    graph.startRecorder("speakers", 48000 * 4);
    graph.startPlayer(signal);
    std::optional<uint32_t> player;
    ASSERT_TRUE(TestGraph::waitFor([&] { return (player = graph.nodeID("sorva_test_player")).has_value(); }));
    // The user had sent this program to the speakers by name.
    graph.setMetadata(*player, "target.object", "", "speakers");
    auto target = [&] { return graph.metadata(*player, "target.object"); };
    ASSERT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; }));
    auto journal = std::filesystem::path(session.stateHome()) / "sorva" / "routing-journal";

    for (bool crash : { false, true }) {
        SCOPED_TRACE(crash ? "killed" : "stopped");
        auto host = engineHost({ 0, 0, 0, -12, 0 });
        ASSERT_TRUE(host.started());
        ASSERT_TRUE(playerRoutedToTap(graph));
        EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "sorva_system_tap"; })) << target().value_or("(none)");
        EXPECT_TRUE(std::filesystem::exists(journal));
        if (crash) {
            host.process.kill(SIGKILL);
            ASSERT_TRUE(host.process.wait(TestGraph::eventTimeout));
            ASSERT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_system_tap"); }));
            EXPECT_NE(target(), "speakers");
            EXPECT_TRUE(std::filesystem::exists(journal));
            break;
        }
        ASSERT_TRUE(host.stop());
        EXPECT_FALSE(std::filesystem::exists(journal));
        EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; })) << target().value_or("(none)");
        ASSERT_TRUE(playerPlaysDirectly(graph));
        EXPECT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_output"); }));
        auto withSilence = signal;
        withSilence.resize(signal.size() + 4800 * 2, 0.0f);
        const auto match = matchByQuanta(playAndRecord(graph), withSilence, graph.recorderCycleFrames(),
                                         [](std::vector<float> input) { return input; });
        EXPECT_TRUE(match.matches) << "after stop the program must sound as it plays: " << match.mismatch;
    }
    // Unrepaired, the next engine would take the dead tap for the user's target.
    auto nextStart = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(nextStart.started());
    ASSERT_TRUE(nextStart.stop());
    EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; })) << target().value_or("(none)");
    EXPECT_FALSE(std::filesystem::exists(journal));
}

TEST_F(PipeWireEngine, LeavesAStreamTheUserMovedAwayFromTheTapWhereTheUserPutIt)
{
    graph.startRecorder("speakers", 4800);
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    auto host = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(graph));
    auto player = *graph.nodeID("sorva_test_player");
    auto secondSpeakers = *graph.nodeID("speakers-2");
    const auto serial = std::to_string(*graph.nodeSerial("speakers-2"));
    graph.setMetadata(player, "target.object", "Spa:Id", serial);
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.linked(player, secondSpeakers); }));
    // A pull back would follow the move within a few cycles.
    ASSERT_TRUE(graph.waitGraphFrames(14400));
    EXPECT_FALSE(graph.linked(player, *graph.nodeID("sorva_system_tap"))) << "not routed back";
    ASSERT_TRUE(host.stop());
    ASSERT_TRUE(graph.waitGraphFrames(14400));
    EXPECT_EQ(graph.metadata(player, "target.object"), serial);
    EXPECT_TRUE(graph.linked(player, secondSpeakers));
}

// Another filter (a loopback: two streams in one link group) stays where it
// plays while the program beside it is routed.
TEST_F(PipeWireEngine, LeavesOtherFiltersWhereTheyPlay)
{
    graph.startRecorder("speakers", 4800);
    ChildProcess loopback({ "pw-loopback", "--playback-props", "node.name=test_loopback_out" });
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ASSERT_TRUE(TestGraph::waitFor([&] { return linked(graph, "test_loopback_out", "speakers"); }));
    auto host = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(graph));
    ASSERT_TRUE(graph.waitGraphFrames(14400)); // time for a wrong move to show
    EXPECT_FALSE(linked(graph, "test_loopback_out", "sorva_system_tap"));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("test_loopback_out"), "target.object"));
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, RunsTheGraphAtTheRequestedIOBufferSize)
{
    auto quantumIs = [&](uint32_t frames) {
        return TestGraph::waitFor([&] { return graph.recorderCycleFrames() == frames; });
    };
    graph.startRecorder("speakers", 48000 * 2);
    ASSERT_TRUE(quantumIs(1024));
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ::setenv("SORVA_IOBUF", "256", 1);
    auto host = engineHost({ 0, 0, 0, 0, 0 });
    ::unsetenv("SORVA_IOBUF");
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(graph));
    EXPECT_TRUE(quantumIs(256)) << graph.recorderCycleFrames();
    ASSERT_TRUE(host.stop());
    EXPECT_TRUE(quantumIs(1024)) << "the request must end with the engine";
}

TEST_F(PipeWireEngine, RebuildsOnTheNewDefaultDeviceOnlyAfterSettlingAndOnARateChange)
{
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    auto host = engineHost({ 0, 0, 0, -12, 0 });
    ASSERT_TRUE(host.started());
    auto started = std::chrono::steady_clock::now();

    // Within the first 3 s a device change is dropped, not postponed. (The
    // settling time is the engine's own wall-clock rule; the changes follow
    // its start at once, so a loaded machine has 2.5 s of slack.)
    graph.setDefaultSink("speakers-2");
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.metadata(0, "default.audio.sink") == "{\"name\":\"speakers-2\"}"; }));
    graph.setDefaultSink("speakers");
    ASSERT_LT(std::chrono::steady_clock::now() - started, 2500ms);
    ASSERT_TRUE(playerRoutedToTap(graph));
    std::this_thread::sleep_for(3500ms - (std::chrono::steady_clock::now() - started));
    EXPECT_EQ(host.process.readLine(300ms), std::nullopt) << "nothing is rebuilt for a change in the first 3 s";

    graph.setDefaultSink("speakers-2");
    EXPECT_EQ(host.process.readLine(TestGraph::eventTimeout), std::optional<std::string>("REBUILT Second Speakers 48000.000000"));
    EXPECT_TRUE(TestGraph::waitFor([&] { return linked(graph, "sorva_output", "speakers-2"); }));
    EXPECT_TRUE(playerRoutedToTap(graph)) << "the rebuilt engine routes the program again";

    ASSERT_EQ(std::system("pw-metadata -n settings 0 clock.force-rate 44100 >/dev/null"), 0);
    EXPECT_EQ(host.process.readLine(TestGraph::eventTimeout), std::optional<std::string>("REBUILT Second Speakers 44100.000000"));
    EXPECT_TRUE(host.stop());
}

} // namespace
} // namespace sorva::testing
