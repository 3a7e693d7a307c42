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

// The first sample at which a and b differ, -1 when they are equal.
std::ptrdiff_t firstDifference(const std::vector<float>& a, const std::vector<float>& b)
{
    if (a.size() != b.size())
        return 0;
    auto at = std::mismatch(a.begin(), a.end(), b.begin()).first;
    return at == a.end() ? -1 : at - a.begin();
}

bool playerPlaysDirectly(TestGraph& graph)
{
    return TestGraph::waitFor(
        [&] {
            auto player = graph.nodeID("sorva_test_player");
            auto speakers = graph.nodeID("speakers");
            return player && speakers && graph.linked(*player, *speakers) && !graph.nodeID("sorva_system_tap");
        },
        5s);
}

// Plays the signal once; the recording from its first non-zero frame on.
std::vector<float> playAndRecord(TestGraph& graph)
{
    graph.armPlayer();
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.playerFinished(); }, 10s));
    std::this_thread::sleep_for(500ms);
    auto recording = graph.recorded();
    auto first = std::find_if(recording.begin(), recording.end(), [](float s) { return s != 0.0f; });
    return std::vector<float>(recording.begin() + (first - recording.begin()) / 2 * 2, recording.end());
}

using PipeWireEngine = GraphTest;

// Both paths copy floats at one rate, so the equalizer's output arrives bit
// for bit; a cycle the graph skips under load skips every node alike.
TEST_F(PipeWireEngine, EqualizesAnotherProgramExactlyAsTheEqualizerDoes)
{
    const std::vector<double> gains { 6.0, -3.0, 4.0, -2.0, 5.0 };
    auto host = engineHost(gains);
    ASSERT_TRUE(host.started());
    graph.startRecorder("speakers", 48000 * 4);
    auto signal = noise(48000, 7);
    graph.startPlayer(signal);
    ASSERT_TRUE(playerRoutedToTap(graph));
    std::this_thread::sleep_for(300ms); // the 150 ms fade-in plays out on silence

    auto received = playAndRecord(graph);
    ASSERT_GE(received.size(), signal.size()) << "the speakers did not receive the whole signal";
    received.resize(signal.size());
    EXPECT_EQ(firstDifference(received, equalized(signal, gains)), -1);
    // The user's default devices stay what they were.
    EXPECT_EQ(graph.metadata(0, "default.audio.sink"), std::optional<std::string>("{\"name\":\"speakers\"}"));
    EXPECT_EQ(graph.metadata(0, "default.audio.source").value_or("").find("sorva"), std::string::npos);
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, LeaksNothingUnprocessedAndDoesNotFeedItsOutputBack)
{
    const std::vector<double> gains { 0.0, 0.0, 0.0, -24.0, 0.0 };
    auto host = engineHost(gains);
    ASSERT_TRUE(host.started());
    graph.startRecorder("speakers", 48000 * 4);
    const size_t frames = 48000;
    auto signal = tone(frames, 2000.0, 0.25f);
    graph.startPlayer(signal);
    ASSERT_TRUE(playerRoutedToTap(graph));
    std::this_thread::sleep_for(300ms);
    auto recording = playAndRecord(graph);
    ASSERT_GT(recording.size(), (frames + 14400) * 2);

    // Steady state: an unprocessed copy would sit near 0 dB.
    const double reference = rms(signal, 12000, 44000);
    const double expectedDB = 20.0 * std::log10(rms(equalized(signal, gains), 12000, 44000) / reference);
    EXPECT_LT(expectedDB, -20.0);
    EXPECT_NEAR(20.0 * std::log10(rms(recording, 12000, 44000) / reference), expectedDB, 0.05);
    // Feedback from SORVA's output into its tap would outlive the player.
    EXPECT_LT(20.0 * std::log10(rms(recording, frames + 2400, frames + 14400) / 0.25 + 1e-12), -90.0);
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, AddsNoLatencyToTheDirectPath)
{
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(impulseSignal(100));
    ASSERT_TRUE(playerPlaysDirectly(graph));
    std::this_thread::sleep_for(200ms);
    auto direct = impulseDelay(graph, 100);
    ASSERT_TRUE(direct);
    graph.stopPlayer();
    graph.stopRecorder();

    auto host = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(host.started());
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(impulseSignal(100));
    ASSERT_TRUE(playerRoutedToTap(graph));
    std::this_thread::sleep_for(300ms);
    auto throughSORVA = impulseDelay(graph, 100);
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
    ASSERT_TRUE(TestGraph::waitFor([&] { return (player = graph.nodeID("sorva_test_player")).has_value(); }, 5s));
    // The user had sent this program to the speakers by name.
    graph.setMetadata(*player, "target.object", "", "speakers");
    auto target = [&] { return graph.metadata(*player, "target.object"); };
    ASSERT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; }, 2s));
    auto journal = std::filesystem::path(session.stateHome()) / "sorva" / "routing-journal";

    for (bool crash : { false, true }) {
        SCOPED_TRACE(crash ? "killed" : "stopped");
        auto host = engineHost({ 0, 0, 0, -12, 0 });
        ASSERT_TRUE(host.started());
        ASSERT_TRUE(playerRoutedToTap(graph));
        EXPECT_EQ(target(), "sorva_system_tap");
        EXPECT_TRUE(std::filesystem::exists(journal));
        if (crash) {
            host.process.kill(SIGKILL);
            ASSERT_TRUE(host.process.wait(5s));
            ASSERT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_system_tap"); }, 5s));
            EXPECT_NE(target(), "speakers");
            EXPECT_TRUE(std::filesystem::exists(journal));
            break;
        }
        ASSERT_TRUE(host.stop());
        EXPECT_EQ(target(), "speakers");
        EXPECT_FALSE(std::filesystem::exists(journal));
        ASSERT_TRUE(playerPlaysDirectly(graph));
        EXPECT_FALSE(graph.nodeID("sorva_output"));
        auto received = playAndRecord(graph);
        received.resize(std::min(received.size(), signal.size()));
        EXPECT_EQ(firstDifference(received, signal), -1) << "after stop the program must sound as it plays";
    }
    // Unrepaired, the next engine would take the dead tap for the user's target.
    auto nextStart = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(nextStart.started());
    ASSERT_TRUE(nextStart.stop());
    EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; }, 2s)) << target().value_or("(none)");
    EXPECT_FALSE(std::filesystem::exists(journal));
}

TEST_F(PipeWireEngine, LeavesAStreamTheUserMovedAwayFromTheTapWhereTheUserPutIt)
{
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    auto host = engineHost({ 0, 0, 0, 0, 0 });
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(graph));
    auto player = *graph.nodeID("sorva_test_player");
    auto secondSpeakers = *graph.nodeID("speakers-2");
    const auto serial = std::to_string(*graph.nodeSerial("speakers-2"));
    graph.setMetadata(player, "target.object", "Spa:Id", serial);
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.linked(player, secondSpeakers); }, 3s));
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(graph.linked(player, *graph.nodeID("sorva_system_tap"))) << "not routed back";
    ASSERT_TRUE(host.stop());
    EXPECT_EQ(graph.metadata(player, "target.object"), serial);
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(graph.linked(player, secondSpeakers));
}

TEST_F(PipeWireEngine, RunsTheGraphAtTheRequestedIOBufferSize)
{
    auto quantumIs = [&](uint32_t frames) {
        return TestGraph::waitFor([&] { return graph.recorderCycleFrames() == frames; }, 3s);
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
    ASSERT_TRUE(playerRoutedToTap(graph));

    // Within the first 3 s a device change is dropped, not postponed.
    graph.setDefaultSink("speakers-2");
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.metadata(0, "default.audio.sink") == "{\"name\":\"speakers-2\"}"; }, 2s));
    graph.setDefaultSink("speakers");
    ASSERT_LT(std::chrono::steady_clock::now() - started, 2500ms);
    std::this_thread::sleep_for(3500ms - (std::chrono::steady_clock::now() - started));
    EXPECT_EQ(host.process.readLine(300ms), std::nullopt) << "nothing is rebuilt for a change in the first 3 s";

    graph.setDefaultSink("speakers-2");
    EXPECT_EQ(host.process.readLine(5s), std::optional<std::string>("REBUILT Second Speakers 48000.000000"));
    EXPECT_TRUE(TestGraph::waitFor([&] {
        auto output = graph.nodeID("sorva_output");
        return output && graph.linked(*output, *graph.nodeID("speakers-2"));
    }, 3s));
    EXPECT_TRUE(playerRoutedToTap(graph)) << "the rebuilt engine routes the program again";

    ASSERT_EQ(std::system("pw-metadata -n settings 0 clock.force-rate 44100 >/dev/null"), 0);
    EXPECT_EQ(host.process.readLine(5s), std::optional<std::string>("REBUILT Second Speakers 44100.000000"));
    EXPECT_TRUE(host.stop());
}

} // namespace
} // namespace sorva::testing
