// The tests' own PipeWire client, in the test process: a player (a program's
// output stream that SORVA is to equalize), a recorder of what the speakers
// receive (their monitor), and a view of the graph (node names, links, the
// "default" metadata). Player and recorder note the graph clock position of
// their cycles, so that latencies are measured on one clock.
//
// Threads: the methods are called from the test thread; the streams run on
// this client's own PipeWire threads.
#pragma once

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

    // Player: plays silence until armed, then the interleaved stereo signal
    // once (silence afterwards). Its node is "sorva_test_player" and its
    // application name is given.
    void startPlayer(std::vector<float> signal, const std::string& applicationName = "sorva-test-player");
    void armPlayer();
    bool playerFinished();
    // Graph position of the cycle that carried the signal's first frame.
    std::optional<uint64_t> playerStartPosition();
    void stopPlayer();

    // Recorder of the speaker node's monitor (at most capacityFrames frames).
    void startRecorder(const std::string& speaker, size_t capacityFrames);
    // What was recorded so far, interleaved stereo, and the graph position of
    // the first recorded frame. Gaps in the graph clock are counted.
    std::vector<float> recorded();
    std::optional<uint64_t> recorderStartPosition();
    // Graph position of a recorded frame (cycles are remembered one by one,
    // so a skipped cycle does not shift the frames after it).
    std::optional<uint64_t> recordedFramePosition(size_t frame);
    uint64_t recorderGaps();
    // Frames in the recorder's latest cycle: the graph's current quantum.
    uint32_t recorderCycleFrames();
    void stopRecorder();

    // Graph view.
    std::optional<uint32_t> nodeID(const std::string& nodeName);
    std::optional<uint64_t> nodeSerial(const std::string& nodeName);
    std::vector<std::string> nodeNames();
    bool linked(uint32_t outputNode, uint32_t inputNode);
    std::optional<std::string> metadata(uint32_t subject, const std::string& key);
    void setMetadata(uint32_t subject, const std::string& key, const std::string& type, const std::string& value);

    // Polls condition every 10 ms until it holds or timeout passes.
    static bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

    struct Data;

private:
    std::unique_ptr<Data> data;
};

} // namespace sorva::testing
