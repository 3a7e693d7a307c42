// The buffered engine on a real PipeWire graph, each test in a private session
// of its own: a player in this process stands for "every other program", the
// engine runs in a child process, a recorder listens to what the speakers
// receive, and latencies are measured on the graph clock.
#include "Audio/BiquadEQ.h"
#include "Audio/BufferedEQProcessor.h"
#include "Models/EQConfig.h"
#include "PipeWire/ChildProcess.h"
#include "PipeWire/PrivateSession.h"
#include "PipeWire/TestGraph.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <numbers>
#include <sstream>
#include <thread>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

constexpr double rate = 48000.0;
constexpr int64_t quantum = 1024; // fixed for these sessions

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

double rms(const std::vector<float>& samples, size_t fromFrame, size_t toFrame)
{
    double sum = 0.0;
    for (size_t i = fromFrame * 2; i < toFrame * 2 && i < samples.size(); ++i)
        sum += double(samples[i]) * samples[i];
    return std::sqrt(sum / double((toFrame - fromFrame) * 2));
}

struct BufferedHost {
    BufferedHost(const std::string& gains, double latency)
        : process({ SORVA_BUFFERED_HOST, "--gains", gains, "--latency", std::to_string(latency) })
    {
    }
    bool started()
    {
        const auto line = process.readLine(15s);
        if (line != std::optional<std::string>("READY"))
            ADD_FAILURE() << "engine host: " << line.value_or("(no answer)");
        return line == std::optional<std::string>("READY");
    }
    struct Ring {
        int64_t underruns = 0; // underruns and resyncs since the last call
        int64_t buffered = 0; // frames
    };
    std::optional<Ring> ring()
    {
        process.writeLine("stats");
        auto line = process.readLine(5s);
        while (line == std::optional<std::string>("REBUILD"))
            line = process.readLine(5s);
        if (!line || !line->starts_with("RING "))
            return std::nullopt;
        std::istringstream fields(line->substr(5));
        Ring result;
        fields >> result.underruns >> result.buffered;
        return result;
    }
    std::optional<int64_t> underruns()
    {
        const auto snapshot = ring();
        return snapshot ? std::optional<int64_t>(snapshot->underruns) : std::nullopt;
    }
    bool stop()
    {
        process.writeLine("stop");
        auto line = process.readLine(10s);
        while (line == std::optional<std::string>("REBUILD"))
            line = process.readLine(10s);
        return line == std::optional<std::string>("STOPPED");
    }
    ChildProcess process;
};

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

// Where the impulse of a played signal lands, in graph clock frames after the
// frame it was played in.
std::optional<int64_t> impulseDelay(TestGraph& graph, size_t impulseFrame)
{
    graph.armPlayer();
    if (!TestGraph::waitFor([&] { return graph.playerFinished(); }, 10s))
        return std::nullopt;
    std::this_thread::sleep_for(400ms);
    auto recording = graph.recorded();
    auto start = graph.recorderStartPosition();
    auto played = graph.playerStartPosition();
    size_t peak = 0;
    for (size_t i = 0; i < recording.size(); i += 2) {
        if (std::fabs(recording[i]) > std::fabs(recording[peak]))
            peak = i;
    }
    if (!start || !played || recording.empty() || recording[peak] == 0.0f)
        return std::nullopt;
    return int64_t(*start + peak / 2) - int64_t(*played + impulseFrame);
}

class PipeWireBufferedEngine : public ::testing::Test {
protected:
    void SetUp() override
    {
        session = std::make_unique<PrivateSession>(std::vector<std::string> { "--quantum", std::to_string(quantum) });
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

// The played impulse arrives after the ring's prime length plus the one
// quantum that direct playback takes in this graph (measured the same way:
// player cycle to speaker monitor). The ring primes on whole capture blocks,
// so it may hold up to a block more than the prime: hence the tolerance of
// one quantum.
void expectLatency(TestGraph& graph, double latency)
{
    const size_t impulseFrame = 100;
    std::vector<float> impulse(4800 * 2, 0.0f);
    impulse[impulseFrame * 2] = 0.5f;
    impulse[impulseFrame * 2 + 1] = 0.5f;

    BufferedHost host("0,0,0,0,0", latency);
    ASSERT_TRUE(host.started());
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(impulse);
    ASSERT_TRUE(playerRoutedToTap(graph));
    // The ring primes on the player's silence. If the output started pulling
    // a little after the capture began, the ring holds more than the prime
    // and the reader's rate nudging (at most 0.2 %) drains the excess over
    // seconds: measure once it holds no more than a quantum above the prime.
    const int64_t configured = BufferedEQProcessor::primeFrames(latency);
    int64_t settledPolls = 0;
    int64_t firstBuffered = -1;
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (settledPolls < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(200ms);
        const auto snapshot = host.ring();
        ASSERT_TRUE(snapshot);
        if (firstBuffered < 0)
            firstBuffered = snapshot->buffered;
        settledPolls = snapshot->buffered <= configured + quantum ? settledPolls + 1 : 0;
    }
    ASSERT_EQ(settledPolls, 3) << "the ring never came down to its prime length";
    auto delay = impulseDelay(graph, impulseFrame);
    ASSERT_TRUE(delay);
    std::cout << "[ latency  ] ring held " << firstBuffered << " frames 200 ms after routing\n";
    std::cout << "[ latency  ] " << latency << " ms buffer: " << *delay << " frames (" << double(*delay) / 48.0
              << " ms), configured " << configured << " frames + quantum " << quantum << "\n";
    EXPECT_NEAR(double(*delay), double(configured + quantum), double(quantum));
    EXPECT_EQ(graph.recorderGaps(), 0u);
    EXPECT_TRUE(host.stop());
}
} // namespace

TEST_F(PipeWireBufferedEngine, LatencyIsTheDefaultBufferPlusOneQuantum)
{
    expectLatency(*graph, 125.0);
}

TEST_F(PipeWireBufferedEngine, LatencyFollowsAConfiguredBuffer)
{
    expectLatency(*graph, 80.0);
}

TEST_F(PipeWireBufferedEngine, PlaysTheOtherProgramEqualized)
{
    const std::vector<double> gains { 0.0, 0.0, -12.0, 0.0, 0.0 };
    BufferedHost host("0,0,-12,0,0", 125.0);
    ASSERT_TRUE(host.started());
    const size_t frames = 48000;
    auto signal = tone(frames, 500.0, 0.25f);
    graph->startRecorder("speakers", 48000 * 4);
    graph->startPlayer(signal);
    ASSERT_TRUE(playerRoutedToTap(*graph));
    std::this_thread::sleep_for(600ms);
    graph->armPlayer();
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph->playerFinished(); }, 10s));
    std::this_thread::sleep_for(400ms);
    auto recording = graph->recorded();

    BiquadEQ eq(5, 2);
    auto bands = EQConfig::defaultConfig().bands;
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = gains[i];
    eq.update(bands, 0.0, rate);
    auto expected = signal;
    eq.processInterleaved(expected.data(), static_cast<int64_t>(frames), 2);
    const double expectedDB = 20.0 * std::log10(rms(expected, 12000, 44000) / rms(signal, 12000, 44000));

    // The loudest second of the recording is the tone; measure its middle.
    size_t first = 0;
    while (first < recording.size() / 2 && std::fabs(recording[first * 2]) < 1e-4f)
        ++first;
    ASSERT_LT(first + 44000, recording.size() / 2) << "the tone did not arrive";
    const double measuredDB = 20.0 * std::log10(rms(recording, first + 12000, first + 44000) / rms(signal, 12000, 44000));
    EXPECT_LT(expectedDB, -6.0);
    EXPECT_NEAR(measuredDB, expectedDB, 0.2) << "an unprocessed copy would sit near 0 dB";
    EXPECT_EQ(graph->recorderGaps(), 0u);
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireBufferedEngine, NoUnderrunsOnceRunningForAMinute)
{
    BufferedHost host("0,0,0,0,0", 125.0);
    ASSERT_TRUE(host.started());
    graph->startRecorder("speakers", 48000 * 2);
    graph->startPlayer(tone(48000, 440.0, 0.1f));
    ASSERT_TRUE(playerRoutedToTap(*graph));
    std::this_thread::sleep_for(1s);
    ASSERT_TRUE(host.underruns().has_value()); // priming counted here, then reset
    std::this_thread::sleep_for(60s);
    const auto underruns = host.underruns();
    ASSERT_TRUE(underruns.has_value());
    EXPECT_EQ(*underruns, 0);
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireBufferedEngine, AsksForARebuildAsSoonAsTheDefaultOutputChanges)
{
    BufferedHost host("0,0,0,0,0", 125.0);
    ASSERT_TRUE(host.started());
    // Right after start, unlike the single-device engine: the output stream
    // follows the new default at once, so the chain must follow it too.
    std::this_thread::sleep_for(300ms);
    graph->setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{\"name\":\"speakers-2\"}");
    EXPECT_EQ(host.process.readLine(5s), std::optional<std::string>("REBUILD"));
    // The output stream's own notice of the move comes within the settling
    // time and adds no second request.
    EXPECT_EQ(host.process.readLine(1s), std::nullopt);
    EXPECT_TRUE(host.stop());
}

} // namespace sorva::testing
