// Drives the simulated audio system at real-time pace for demos: a thread
// that, every bufferFrames / sampleRate seconds, runs one IO cycle of every
// device with a started IO procedure, with a stereo input from a
// MusicGenerator (or silence while the simulated taps deliver silence) and a
// zeroed stereo output buffer.
//
// Threads: start()/stop() and the destructor from one controlling thread; the
// driver thread is the simulated real-time IO thread. Buffers are allocated
// in the constructor.
#pragma once

#include "Platform/Simulated/MusicGenerator.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace sorva {

class SimulatedRealtimeDriver {
public:
    SimulatedRealtimeDriver(SimulatedAudioHardware& hardware, double sampleRate = 48000.0,
                            uint32_t bufferFrames = 512);
    ~SimulatedRealtimeDriver();
    SimulatedRealtimeDriver(const SimulatedRealtimeDriver&) = delete;
    SimulatedRealtimeDriver& operator=(const SimulatedRealtimeDriver&) = delete;

    void start();
    // Returns after the driver thread has finished its last cycle.
    void stop();

    // Cycles run so far (any device).
    int64_t cycles() const { return cycleCount.load(std::memory_order_relaxed); }
    // Largest |sample| of the outputs since the last call (resets it).
    float takeOutputPeak();

private:
    void run();

    SimulatedAudioHardware& hardware;
    const double sampleRate;
    const uint32_t bufferFrames;
    MusicGenerator music;
    std::vector<float> input;
    std::vector<float> output;
    std::atomic<bool> running { false };
    std::atomic<int64_t> cycleCount { 0 };
    std::atomic<float> outputPeak { 0.0f };
    std::thread thread;
};

} // namespace sorva
