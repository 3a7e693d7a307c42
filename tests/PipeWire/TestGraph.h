// The tests' own PipeWire client, in the test process: a player (a program's
// output stream that SORVA is to equalize), a recorder of what the speakers
// receive (their monitor), and a view of the graph (nodes, links, the
// "default" metadata). Player and recorder note the graph clock position of
// their cycles, so that latencies are measured on one clock. Also the shared
// pieces of the integration tests: a session fixture, the engine host
// process, signals and measures.
//
// Threads: the methods are called from the test thread; the streams run on
// this client's own PipeWire threads.
#pragma once

#include "PipeWire/ChildProcess.h"
#include "PipeWire/PrivateSession.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorva::testing {

class TestGraph {
public:
    TestGraph();
    ~TestGraph();
    TestGraph(const TestGraph&) = delete;
    TestGraph& operator=(const TestGraph&) = delete;

    bool connected() const;

    // Player "sorva_test_player": silence until armed, then the interleaved
    // stereo signal once, then silence.
    void startPlayer(std::vector<float> signal);
    void armPlayer();
    bool playerFinished();
    // Graph position of the cycle that carried a frame of the signal (cycles
    // are remembered one by one, like the recorder's).
    std::optional<uint64_t> playedFramePosition(size_t frame);
    void stopPlayer();

    // Recorder of the speaker node's monitor (at most capacityFrames frames).
    void startRecorder(const std::string& speaker, size_t capacityFrames);
    std::vector<float> recorded();
    // Starts the recorder again on the same node and waits until it records:
    // a recording of what follows, however long the setup took.
    bool freshRecording();
    // Graph position of a recorded frame (cycles are remembered one by one,
    // so a skipped cycle does not shift the frames after it).
    std::optional<uint64_t> recordedFramePosition(size_t frame);
    // Frames in the recorder's latest cycle: the graph's current quantum.
    uint32_t recorderCycleFrames();
    // Frames the recorder's cycles carried since it started, past its
    // capacity too: the graph's own clock, which a loaded machine slows down
    // for every node alike.
    uint64_t graphFrames();
    // Cycles of the graph clock the recorder was not run for since it
    // started: the machine was too loaded to run every node in time.
    uint64_t skippedCycles();
    // Waits until the recorder has seen this many more frames.
    bool waitGraphFrames(uint64_t frames);
    void stopRecorder();

    std::optional<uint32_t> nodeID(const std::string& nodeName);
    std::optional<uint64_t> nodeSerial(const std::string& nodeName);
    bool linked(uint32_t outputNode, uint32_t inputNode);
    std::optional<std::string> metadata(uint32_t subject, const std::string& key);
    void setMetadata(uint32_t subject, const std::string& key, const std::string& type, const std::string& value);
    void setDefaultSink(const std::string& nodeName);

    // Polls condition every 5 ms until it holds. The timeout only keeps a
    // broken run from hanging: what the tests wait for is an event of the
    // graph (a node, link, metadata value, frames recorded), never a span of
    // wall-clock time.
    static constexpr std::chrono::milliseconds eventTimeout { 30000 };
    static bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = eventTimeout);

    struct Data;

private:
    std::unique_ptr<Data> data;
};

// A private session (started with these options) and the test's client in it.
class GraphTest : public ::testing::Test {
protected:
    explicit GraphTest(const std::vector<std::string>& options = {})
        : session(options)
    {
    }
    void SetUp() override
    {
        ASSERT_TRUE(session.ready()) << "the private PipeWire session did not start";
        ASSERT_TRUE(graph.connected());
    }
    PrivateSession session;
    TestGraph graph;
};

// An engine host program (host/*.cpp) talking over its standard streams.
struct EngineHost {
    explicit EngineHost(const std::vector<std::string>& argv)
        : process(argv)
    {
    }
    bool started();
    // Sends "stop"; whether "STOPPED" follows (other notices are skipped).
    bool stop();
    ChildProcess process;
};

// Interleaved stereo at 48 kHz, the same in both channels.
std::vector<float> tone(size_t frames, double frequency, float amplitude);
double rms(const std::vector<float>& samples, size_t fromFrame, size_t toFrame);
// Whether a link runs from the node named `from` to the node named `to`.
bool linked(TestGraph& graph, const std::string& from, const std::string& to);
// Waits until the player's stream reaches the tap and no longer the speakers.
bool playerRoutedToTap(TestGraph& graph);
// Waits until the player plays straight to the speakers and no tap exists.
bool playerPlaysDirectly(TestGraph& graph);
// Starts a fresh recording, arms the player and waits until its signal has
// played and half a second of graph time more has been recorded; the
// recording from its first non-zero frame on.
std::vector<float> playAndRecord(TestGraph& graph);
// Plays the player's impulseSignal() once into a fresh recording; the graph
// frames from the cycle position of an impulse played to that of its arrival,
// the same for most of the impulses.
std::optional<int64_t> impulseDelay(TestGraph& graph);
// Whether the recording (from the signal's first frame on) is, bit for bit,
// what `chain` makes of the signal, quantum by quantum. On a loaded machine
// the graph may lose a few whole quanta for every node alike: a quantum of
// silence instead of the player's (the chain then sees that silence too), a
// quantum of the player's that never arrived, or a recorded quantum missed.
// Up to maxLost such quanta are accepted, each only where it makes the
// recording match again; anything else, from the first quantum on, is a
// mismatch. Returns the quanta excused, or the reason it does not match.
struct CycleMatch {
    bool matches = false;
    int lostQuanta = 0;
    std::string mismatch;
};
CycleMatch matchByQuanta(const std::vector<float>& received, const std::vector<float>& signal, size_t quantumFrames,
                         const std::function<std::vector<float>(std::vector<float>)>& chain, int maxLost = 4);

// Silence with impulseCount impulses of 0.5, impulseSpacing frames apart.
constexpr size_t impulseCount = 4, impulseSpacing = 24000;
size_t impulseFrame(size_t i);
std::vector<float> impulseSignal();

} // namespace sorva::testing
