// The harness of the PipeWire integration tests: child processes, the
// private session each test runs in, the engine host, and the tests' own
// PipeWire client with the signals and measures they play and record.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace sorva::testing {

// A child process with its standard input and output on pipes: the private
// session script, the engine host, other programs. Owned by one test thread.
// The destructor closes the input, waits a moment for the child to end by
// itself, then kills it by its PID.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return childPID; }
    // The next line of its output (without the newline), or nothing when it
    // ended or the timeout passed.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    void writeLine(const std::string& line);
    void closeInput();
    void kill(int signal)
    {
        if (!exitStatus && childPID > 0)
            ::kill(childPID, signal);
    }
    // Waits for it to end; its exit status (128 + signal when killed), or
    // nothing on timeout.
    std::optional<int> wait(std::chrono::milliseconds timeout);

private:
    pid_t childPID = -1;
    int input = -1;
    int output = -1;
    std::string buffered;
    std::optional<int> exitStatus;
};

// The tests' own PipeWire client, in the test process: a player (a program's
// output stream that SORVA is to equalize), a recorder of what the speakers
// receive (their monitor), and a view of the graph (nodes, links, the
// "default" metadata). Player and recorder note the graph clock position of
// their cycles, so that latencies are measured on one clock.
//
// Threads: the methods are called from the test thread; the streams run on
// this client's own PipeWire threads.
class TestGraph {
public:
    TestGraph();
    ~TestGraph();

    bool connected() const;

    // Player "sorva_test_player": silence until armed, then the interleaved
    // stereo signal once, then silence.
    void startPlayer(std::vector<float> signal);
    void armPlayer();
    bool playerFinished();
    void stopPlayer();

    // Recorder of the speaker node's monitor (at most capacityFrames frames).
    void startRecorder(const std::string& speaker, size_t capacityFrames);
    std::vector<float> recorded();
    // Starts the recorder again on the same node and waits until it records:
    // a recording of what follows, however long the setup took.
    bool freshRecording();
    // Frames in the recorder's latest cycle: the graph's current quantum.
    uint32_t recorderCycleFrames();
    // Cycles of the graph clock the recorder was not run for since it
    // started: the machine was too loaded to run every node in time.
    uint64_t skippedCycles();
    // Plays the player's impulseSignal() once into a fresh recording; the
    // graph frames from the cycle position of an impulse played to that of
    // its arrival, the same for most of the impulses.
    std::optional<int64_t> impulseDelay();
    // Waits until the recorder has seen this many more frames.
    bool waitGraphFrames(uint64_t frames);
    void stopRecorder();

    std::optional<uint32_t> nodeID(const std::string& nodeName);
    std::optional<uint64_t> nodeSerial(const std::string& nodeName);
    // Whether a link runs from the node named `from` to the node named `to`.
    bool linked(const std::string& from, const std::string& to);
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

// One private PipeWire session (scripts/pw-session --serve) for one test: its
// environment is exported into this process while it exists, so that every
// PipeWire client made here, and every child started here, joins it. Ending it
// closes the script's input; the script stops what it started.
class PrivateSession {
public:
    explicit PrivateSession(const std::vector<std::string>& options = {});
    ~PrivateSession();

    bool ready() const { return isReady; }
    const std::string& root() const { return environment.at("PW_SESSION_ROOT"); }
    std::string stateHome() const { return environment.at("XDG_STATE_HOME"); }

private:
    ChildProcess script;
    std::map<std::string, std::string> environment;
    bool isReady = false;
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

// The engine host program (host/EngineHost.cpp, started with these options)
// talking over its standard streams.
struct EngineHost {
    explicit EngineHost(std::vector<std::string> options = {});
    bool started();
    // Sends "stop"; whether "STOPPED" follows (other notices are skipped).
    bool stop();
    ChildProcess process;
};

// Interleaved stereo at 48 kHz, the same in both channels.
std::vector<float> tone(size_t frames, double frequency, float amplitude);
// Waits until the player's stream reaches the tap and no longer the speakers.
bool playerRoutedToTap(TestGraph& graph);
// Waits until the player plays straight to the speakers and no tap exists.
bool playerPlaysDirectly(TestGraph& graph);
// Starts a fresh recording, arms the player and waits until its signal has
// played and half a second of graph time more has been recorded; the
// recording from its first non-zero frame on.
std::vector<float> playAndRecord(TestGraph& graph);
// The level of `received` against `signal`, in dB: the median over 50 ms
// windows of the steady part of a one-second tone (frames 12000 to 44000), so
// that a quantum a loaded graph loses costs a window, not the measure.
double levelDB(const std::vector<float>& received, const std::vector<float>& signal);

// Silence with impulseCount impulses of 0.5, impulseSpacing frames apart.
constexpr size_t impulseCount = 4, impulseSpacing = 24000;
std::vector<float> impulseSignal();

} // namespace sorva::testing
