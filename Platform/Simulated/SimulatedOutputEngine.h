// An in-memory OutputEngine for tests and demos. Nothing plays: the test
// drives the render thread itself by calling render(), which hands the
// connected node one cycle of planar buffers, and keeps what was rendered.
// It records what the engine under test did (attach, connect, start, stop)
// and can refuse the next start or announce a configuration change.
//
// Threads: the OutputEngine operations on the main thread; render() on the
// thread that plays the render thread (never concurrently with itself);
// changeConfiguration() on any thread, calling the observers there.
#pragma once

#include "Platform/OutputEngine.h"

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

namespace sorva {

class SimulatedOutputEngine : public OutputEngine {
public:
    void attach(std::shared_ptr<OutputSourceNode> node) override;
    void connect(const std::shared_ptr<OutputSourceNode>& node, const OutputFormat& format) override;
    void start() override;
    void stop() override;
    bool isRunning() const override { return running.load(); }
    uint64_t addConfigurationObserver(ConfigurationObserver observer) override;
    void removeConfigurationObserver(uint64_t token) override;

    // --- Test controls ---------------------------------------------------

    // The next start() throws OutputEngineError(code, description).
    void failNextStart(int32_t code, std::string description);

    // One render cycle into two planar buffers of frames samples, as a real
    // output would ask for it. Returns the node's status, or
    // kAudioHardwareNotRunningError (and renders nothing) when the engine is
    // not running or no node is connected.
    OSStatus render(uint32_t frames);
    // One render cycle into a buffer list of the caller's making.
    OSStatus render(uint32_t frames, AudioBufferList& output);
    // The buffers of the last render(frames) and its silence flag.
    const std::vector<float>& lastLeft() const { return left; }
    const std::vector<float>& lastRight() const { return right; }
    bool lastSilenceFlag() const { return silence; }

    // Calls every registered observer, as a device change would.
    void changeConfiguration();

    // --- What the engine under test did ------------------------------------
    std::shared_ptr<OutputSourceNode> attachedNode() const { return attached; }
    std::shared_ptr<OutputSourceNode> connectedNode() const { return connected; }
    std::optional<OutputFormat> connectedFormat() const { return format; }
    int startCalls() const { return starts; }
    int stopCalls() const { return stops; }
    size_t observerCount() const;

private:
    std::shared_ptr<OutputSourceNode> attached;
    std::shared_ptr<OutputSourceNode> connected;
    std::optional<OutputFormat> format;
    std::atomic<bool> running { false };
    int starts = 0;
    int stops = 0;
    std::optional<OutputEngineError> nextStartFailure;
    std::vector<float> left;
    std::vector<float> right;
    bool silence = false;

    mutable std::mutex observersLock; // held while observers run, so removal waits for them
    std::map<uint64_t, ConfigurationObserver> observers;
    uint64_t nextToken = 1;
};

} // namespace sorva
