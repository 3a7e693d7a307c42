// The OutputEngine on PipeWire: one playback stream ("SORVA Buffered Output")
// that PipeWire's session manager connects to the default sink, asking for
// non-interleaved 32-bit float stereo at the node's rate (PipeWire converts
// to the sink's format). Each process cycle of the stream calls the connected
// node's render procedure with the stream's two channel buffers.
//
// A configuration change is announced when the stream is moved to another
// sink (the default output changed): the links leaving our node then end at
// a different node than before.
//
// Threads: the OutputEngine operations on the main thread. The render
// procedure runs on PipeWire's data thread (real time). Registry events and
// the configuration observers run on this engine's own PipeWire loop thread.
// No PipeWire header is visible to includers.
#pragma once

#include "Platform/OutputEngine.h"

#include <memory>

namespace sorva {

class PipeWireOutputEngine : public OutputEngine {
public:
    PipeWireOutputEngine();
    ~PipeWireOutputEngine() override;
    PipeWireOutputEngine(const PipeWireOutputEngine&) = delete;
    PipeWireOutputEngine& operator=(const PipeWireOutputEngine&) = delete;

    void attach(std::shared_ptr<OutputSourceNode> node) override;
    void connect(const std::shared_ptr<OutputSourceNode>& node, const OutputFormat& format) override;
    // Connects to PipeWire and waits (at most 3 seconds) for the stream to be
    // linked. Throws OutputEngineError with a negative errno-style code.
    void start() override;
    void stop() override;
    bool isRunning() const override;
    uint64_t addConfigurationObserver(ConfigurationObserver observer) override;
    void removeConfigurationObserver(uint64_t token) override;

    // The PipeWire node ID of the playback stream while running, else 0.
    uint32_t nodeID() const;
    // The node the stream currently plays to (0 = not linked).
    uint32_t targetNodeID() const;

    struct Data;

private:
    std::unique_ptr<Data> data;
};

} // namespace sorva
