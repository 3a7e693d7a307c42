// The single-device engine on a real PipeWire graph, each test in a private
// session of its own: a player in this process stands for "every other
// program", the engine runs in a child process, a recorder listens to what the
// speakers receive.
#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"
#include "PipeWire/ChildProcess.h"
#include "PipeWire/PrivateSession.h"
#include "PipeWire/TestGraph.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <numbers>
#include <random>
#include <thread>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

constexpr double rate = 48000.0;

std::vector<float> noise(size_t frames, float amplitude, uint32_t seed)
{
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> uniform(-amplitude, amplitude);
    std::vector<float> samples(frames * 2);
    for (auto& s : samples)
        s = uniform(generator);
    samples[0] = amplitude; // a known non-zero first frame marks the start
    samples[1] = -amplitude;
    return samples;
}

std::vector<float> tone(size_t frames, double frequency, float amplitude)
{
    std::vector<float> samples(frames * 2);
    for (size_t f = 0; f < frames; ++f) {
        auto v = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * frequency * double(f) / rate + 0.5));
        samples[2 * f] = v;
        samples[2 * f + 1] = v;
    }
    return samples;
}

std::vector<EQBand> bandsWithGains(const std::vector<double>& gains)
{
    auto bands = EQConfig::defaultConfig().bands;
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

std::vector<float> equalized(std::vector<float> samples, const std::vector<double>& gains)
{
    BiquadEQ eq(5, 2);
    eq.update(bandsWithGains(gains), 0.0, rate);
    eq.processInterleaved(samples.data(), static_cast<int64_t>(samples.size() / 2), 2);
    return samples;
}

std::string gainList(const std::vector<double>& gains)
{
    std::string list;
    for (double g : gains)
        list += (list.empty() ? "" : ",") + std::to_string(g);
    return list;
}

std::optional<size_t> firstNonZeroFrame(const std::vector<float>& samples)
{
    for (size_t i = 0; i < samples.size(); ++i) {
        if (samples[i] != 0.0f)
            return i / 2;
    }
    return std::nullopt;
}

double rms(const std::vector<float>& samples, size_t fromFrame, size_t toFrame)
{
    double sum = 0.0;
    for (size_t i = fromFrame * 2; i < toFrame * 2 && i < samples.size(); ++i)
        sum += double(samples[i]) * samples[i];
    return std::sqrt(sum / double((toFrame - fromFrame) * 2));
}

struct EngineHost {
    explicit EngineHost(const std::vector<double>& gains)
        : process({ SORVA_ENGINE_HOST, "--gains", gainList(gains) })
    {
    }
    // Started with one more variable in its environment.
    EngineHost(const std::vector<double>& gains, const char* variable, const char* value)
        : process((::setenv(variable, value, 1), std::vector<std::string> { SORVA_ENGINE_HOST, "--gains", gainList(gains) }))
    {
        ::unsetenv(variable);
    }
    bool started() { return process.readLine(15s) == std::optional<std::string>("READY"); }
    bool stop()
    {
        process.writeLine("stop");
        return process.readLine(10s) == std::optional<std::string>("STOPPED");
    }
    ChildProcess process;
};

// Waits until the player's stream reaches the tap and no longer the speakers.
bool playerRoutedToTap(TestGraph& graph)
{
    return TestGraph::waitFor(
        [&] {
            auto player = graph.nodeID("sorva_test_player");
            auto tap = graph.nodeID("sorva_system_tap");
            auto speakers = graph.nodeID("speakers");
            return player && tap && speakers && graph.linked(*player, *tap) && !graph.linked(*player, *speakers);
        },
        5s);
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

// Plays the signal once and returns what the speakers received from its first
// frame on (the signal's first frame is non-zero and survives every path
// here).
std::vector<float> playAndRecord(TestGraph& graph, size_t frames)
{
    graph.armPlayer();
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.playerFinished(); }, 10s));
    std::this_thread::sleep_for(300ms);
    auto recording = graph.recorded();
    auto start = firstNonZeroFrame(recording);
    if (!start)
        return {};
    auto begin = recording.begin() + static_cast<long>(*start * 2);
    auto end = begin + static_cast<long>(std::min(frames * 2, size_t(recording.end() - begin)));
    return std::vector<float>(begin, end);
}

float maxDifference(const std::vector<float>& a, const std::vector<float>& b)
{
    float worst = 0.0f;
    size_t at = 0;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        if (std::fabs(a[i] - b[i]) > worst) {
            worst = std::fabs(a[i] - b[i]);
            at = i;
        }
    }
    if (getenv("SORVA_TEST_DEBUG")) {
        size_t first = 0;
        while (first < std::min(a.size(), b.size()) && a[first] == b[first])
            ++first;
        fprintf(stderr, "worst %g at %zu, first difference at %zu\n", worst, at, first);
        for (size_t i = first; i < first + 8 && i < a.size(); ++i)
            fprintf(stderr, "  %zu: %.9g %.9g\n", i, a[i], b[i]);
    }
    return worst;
}

class PipeWireEngine : public ::testing::Test {
protected:
    void SetUp() override
    {
        session = std::make_unique<PrivateSession>();
        ASSERT_TRUE(session->ready()) << "the private PipeWire session did not start";
        graph = std::make_unique<TestGraph>();
        ASSERT_TRUE(graph->connected());
    }
    void TearDown() override
    {
        graph.reset();
        session.reset();
    }
    std::unique_ptr<PrivateSession> session;
    std::unique_ptr<TestGraph> graph;
};

TEST_F(PipeWireEngine, EqualizesAnotherProgramExactlyAsTheEqualizerDoes)
{
    const std::vector<double> gains { 6.0, -3.0, 4.0, -2.0, 5.0 };
    EngineHost host(gains);
    ASSERT_TRUE(host.started());
    graph->startRecorder("speakers", 48000 * 4);
    const size_t frames = 48000;
    auto signal = noise(frames, 0.2f, 7);
    graph->startPlayer(signal);
    ASSERT_TRUE(playerRoutedToTap(*graph));
    // The engine's 150 ms fade-in has played out on silence by now.
    std::this_thread::sleep_for(300ms);

    auto received = playAndRecord(*graph, frames);
    ASSERT_EQ(received.size(), signal.size()) << "the speakers did not receive the whole signal";
    // A cycle the graph skipped under load skips every node alike, so the
    // comparison holds across it; report it all the same.
    if (graph->recorderGaps())
        std::cout << "[ note     ] the graph skipped " << graph->recorderGaps() << " cycles\n";
    auto expected = equalized(signal, gains);
    // Every conversion on the path is a float copy at the same rate, so the
    // equalizer's own output arrives bit for bit.
    EXPECT_EQ(maxDifference(received, expected), 0.0f);
    EXPECT_GT(maxDifference(received, signal), 0.01f) << "the signal arrived unprocessed";
    // The user's default devices stay what they were.
    EXPECT_EQ(graph->metadata(0, "default.audio.sink"), std::optional<std::string>("{\"name\":\"speakers\"}"));
    EXPECT_EQ(graph->metadata(0, "default.audio.source").value_or("").find("sorva"), std::string::npos);
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, LeaksNothingUnprocessedAndDoesNotFeedItsOutputBack)
{
    const std::vector<double> gains { 0.0, 0.0, 0.0, -24.0, 0.0 };
    EngineHost host(gains);
    ASSERT_TRUE(host.started());
    graph->startRecorder("speakers", 48000 * 4);
    const size_t frames = 48000;
    auto signal = tone(frames, 2000.0, 0.25f);
    graph->startPlayer(signal);
    ASSERT_TRUE(playerRoutedToTap(*graph));
    std::this_thread::sleep_for(300ms);

    graph->armPlayer();
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph->playerFinished(); }, 10s));
    std::this_thread::sleep_for(500ms);
    auto recording = graph->recorded();
    auto start = firstNonZeroFrame(recording);
    ASSERT_TRUE(start);

    // Steady state, away from the attack of the filters.
    double expectedDB = 20.0 * std::log10(rms(equalized(signal, gains), 12000, 44000) / rms(signal, 12000, 44000));
    double measuredDB
        = 20.0 * std::log10(rms(recording, *start + 12000, *start + 44000) / rms(signal, 12000, 44000));
    if (getenv("SORVA_TEST_DEBUG")) {
        for (size_t at = 0; at + 4800 < recording.size() / 2; at += 4800)
            fprintf(stderr, "  %zu: rms %g\n", at, rms(recording, at, at + 4800));
        fprintf(stderr, "start %zu of %zu\n", *start, recording.size() / 2);
    }
    EXPECT_LT(expectedDB, -20.0);
    EXPECT_NEAR(measuredDB, expectedDB, 0.05) << "an unprocessed copy would sit near 0 dB";

    // Once the player is silent, so are the speakers: a path from SORVA's
    // output back into its tap would keep the tone circulating.
    double tailDB = 20.0 * std::log10(rms(recording, *start + frames + 2400, *start + frames + 14400) / 0.25 + 1e-12);
    EXPECT_LT(tailDB, -90.0);
    EXPECT_TRUE(host.stop());
}

// Where the impulse of a played signal lands, in graph clock frames after the
// frame it was played in.
std::optional<int64_t> impulseDelay(TestGraph& graph, size_t impulseFrame)
{
    graph.armPlayer();
    if (!TestGraph::waitFor([&] { return graph.playerFinished(); }, 10s))
        return std::nullopt;
    std::this_thread::sleep_for(200ms);
    auto recording = graph.recorded();
    auto played = graph.playerStartPosition();
    size_t peak = 0;
    for (size_t i = 0; i < recording.size(); i += 2) {
        if (std::fabs(recording[i]) > std::fabs(recording[peak]))
            peak = i;
    }
    auto arrived = graph.recordedFramePosition(peak / 2);
    if (!arrived || !played || recording.empty() || recording[peak] == 0.0f)
        return std::nullopt;
    return int64_t(*arrived) - int64_t(*played + impulseFrame);
}

TEST_F(PipeWireEngine, AddsNoLatencyToTheDirectPath)
{
    const size_t impulseFrame = 100;
    std::vector<float> impulse(4800 * 2, 0.0f);
    impulse[impulseFrame * 2] = 0.5f;
    impulse[impulseFrame * 2 + 1] = 0.5f;

    graph->startRecorder("speakers", 48000 * 3);
    graph->startPlayer(impulse);
    ASSERT_TRUE(playerPlaysDirectly(*graph));
    std::this_thread::sleep_for(200ms);
    auto direct = impulseDelay(*graph, impulseFrame);
    ASSERT_TRUE(direct);
    graph->stopPlayer();
    graph->stopRecorder();

    EngineHost host({ 0.0, 0.0, 0.0, 0.0, 0.0 });
    ASSERT_TRUE(host.started());
    graph->startRecorder("speakers", 48000 * 3);
    graph->startPlayer(impulse);
    ASSERT_TRUE(playerRoutedToTap(*graph));
    std::this_thread::sleep_for(300ms);
    auto throughSORVA = impulseDelay(*graph, impulseFrame);
    ASSERT_TRUE(throughSORVA);
    EXPECT_EQ(*throughSORVA, *direct) << "direct " << *direct << " frames, through SORVA " << *throughSORVA;
    std::cout << "[ latency  ] direct path " << *direct << " frames, through SORVA " << *throughSORVA << " frames\n";
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, StopAndTheNextStartAfterACrashRestoreTheRouting)
{
    const size_t frames = 24000;
    auto signal = noise(frames, 0.2f, 11);
    graph->startRecorder("speakers", 48000 * 4);
    graph->startPlayer(signal);
    auto player = graph->nodeID("sorva_test_player");
    ASSERT_TRUE(TestGraph::waitFor([&] { return (player = graph->nodeID("sorva_test_player")).has_value(); }, 5s));
    // The user had sent this program to the speakers by name.
    graph->setMetadata(*player, "target.object", "", "speakers");
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph->metadata(*player, "target.object") == "speakers"; }, 2s));
    auto journal = std::filesystem::path(session->stateHome()) / "sorva" / "routing-journal";

    {
        EngineHost host({ 0.0, 0.0, 0.0, -12.0, 0.0 });
        ASSERT_TRUE(host.started());
        ASSERT_TRUE(playerRoutedToTap(*graph));
        auto tapSerial = graph->nodeSerial("sorva_system_tap");
        ASSERT_TRUE(tapSerial);
        EXPECT_EQ(graph->metadata(*player, "target.object"), std::to_string(*tapSerial));
        EXPECT_TRUE(std::filesystem::exists(journal));
        ASSERT_TRUE(host.stop());
    }
    EXPECT_EQ(graph->metadata(*player, "target.object"), std::optional<std::string>("speakers"));
    EXPECT_FALSE(std::filesystem::exists(journal));
    ASSERT_TRUE(playerPlaysDirectly(*graph));
    EXPECT_FALSE(graph->nodeID("sorva_output"));
    EXPECT_EQ(playAndRecord(*graph, frames), signal) << "after stop the program must sound as it plays";

    // A crash: the engine is killed while the program is routed to its tap.
    {
        EngineHost host({ 0.0, 0.0, 0.0, -12.0, 0.0 });
        ASSERT_TRUE(host.started());
        ASSERT_TRUE(playerRoutedToTap(*graph));
        auto tapSerial = graph->nodeSerial("sorva_system_tap");
        ASSERT_TRUE(tapSerial);
        host.process.kill(SIGKILL);
        ASSERT_TRUE(host.process.wait(5s));
        ASSERT_TRUE(TestGraph::waitFor([&] { return !graph->nodeID("sorva_system_tap"); }, 5s));
        EXPECT_NE(graph->metadata(*player, "target.object"), std::optional<std::string>("speakers"));
        EXPECT_TRUE(std::filesystem::exists(journal));
    }
    ChildProcess nextStart({ SORVA_ENGINE_HOST, "--tap-only" });
    EXPECT_EQ(nextStart.readLine(15s), std::optional<std::string>("READY"));
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph->metadata(*player, "target.object") == "speakers"; }, 2s))
        << "target.object is " << graph->metadata(*player, "target.object").value_or("(none)");
    EXPECT_FALSE(std::filesystem::exists(journal));
}

TEST_F(PipeWireEngine, LeavesAStreamTheUserMovedAwayFromTheTapWhereTheUserPutIt)
{
    graph->startPlayer(std::vector<float>(48000 * 2, 0.0f));
    EngineHost host({ 0.0, 0.0, 0.0, 0.0, 0.0 });
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(*graph));
    auto player = *graph->nodeID("sorva_test_player");
    auto secondSpeakers = *graph->nodeID("speakers-2");
    graph->setMetadata(player, "target.object", "Spa:Id", std::to_string(*graph->nodeSerial("speakers-2")));
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph->linked(player, secondSpeakers); }, 3s));
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(graph->linked(player, *graph->nodeID("sorva_system_tap"))) << "not routed back";
    ASSERT_TRUE(host.stop());
    EXPECT_EQ(graph->metadata(player, "target.object"), std::to_string(*graph->nodeSerial("speakers-2")));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(graph->linked(player, secondSpeakers));
}

TEST_F(PipeWireEngine, RunsTheGraphAtTheRequestedIOBufferSize)
{
    graph->startRecorder("speakers", 48000 * 2);
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph->recorderCycleFrames() == 1024; }, 3s));
    graph->startPlayer(std::vector<float>(48000 * 2, 0.0f));
    EngineHost host({ 0.0, 0.0, 0.0, 0.0, 0.0 }, "SORVA_IOBUF", "256");
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(*graph));
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph->recorderCycleFrames() == 256; }, 3s))
        << "cycles of " << graph->recorderCycleFrames() << " frames";
    ASSERT_TRUE(host.stop());
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph->recorderCycleFrames() == 1024; }, 3s))
        << "the request must end with the engine";
}

TEST_F(PipeWireEngine, RebuildsOnTheNewDefaultDeviceOnlyAfterSettlingAndOnARateChange)
{
    graph->startPlayer(std::vector<float>(48000 * 2, 0.0f));
    EngineHost host({ 0.0, 0.0, 0.0, -12.0, 0.0 });
    ASSERT_TRUE(host.started());
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(playerRoutedToTap(*graph));

    // Within the first 3 s a device change is dropped, not postponed.
    graph->setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{ \"name\": \"speakers-2\" }");
    ASSERT_TRUE(TestGraph::waitFor(
        [&] { return graph->metadata(0, "default.audio.sink") == std::optional<std::string>("{\"name\":\"speakers-2\"}"); }, 2s));
    graph->setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{ \"name\": \"speakers\" }");
    ASSERT_LT(std::chrono::steady_clock::now() - started, 2500ms);
    std::this_thread::sleep_for(3500ms - (std::chrono::steady_clock::now() - started));
    EXPECT_EQ(host.process.readLine(300ms), std::nullopt) << "nothing is rebuilt for a change in the first 3 s";

    graph->setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{ \"name\": \"speakers-2\" }");
    EXPECT_EQ(host.process.readLine(5s), std::optional<std::string>("REBUILT Second Speakers 48000.000000"));
    auto output = graph->nodeID("sorva_output");
    ASSERT_TRUE(TestGraph::waitFor([&] {
        output = graph->nodeID("sorva_output");
        return output && graph->linked(*output, *graph->nodeID("speakers-2"));
    }, 3s));
    EXPECT_TRUE(playerRoutedToTap(*graph)) << "the rebuilt engine routes the program again";

    // The graph is forced to another rate.
    ASSERT_EQ(std::system("pw-metadata -n settings 0 clock.force-rate 44100 >/dev/null"), 0);
    EXPECT_EQ(host.process.readLine(5s), std::optional<std::string>("REBUILT Second Speakers 44100.000000"));
    EXPECT_TRUE(host.stop());
}

} // namespace
} // namespace sorva::testing
