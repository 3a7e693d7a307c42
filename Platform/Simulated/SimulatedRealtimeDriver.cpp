#include "Platform/Simulated/SimulatedRealtimeDriver.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace sorva {

SimulatedRealtimeDriver::SimulatedRealtimeDriver(SimulatedAudioHardware& hw, double rate, uint32_t frames)
    : hardware(hw)
    , sampleRate(rate > 0.0 ? rate : 48000.0)
    , bufferFrames(std::max<uint32_t>(frames, 1))
    , music(sampleRate)
    , input(static_cast<size_t>(bufferFrames) * 2)
    , output(static_cast<size_t>(bufferFrames) * 2)
{
}

SimulatedRealtimeDriver::~SimulatedRealtimeDriver() { stop(); }

void SimulatedRealtimeDriver::start()
{
    if (running.exchange(true))
        return;
    thread = std::thread([this] { run(); });
}

void SimulatedRealtimeDriver::stop()
{
    running.store(false);
    if (thread.joinable())
        thread.join();
}

float SimulatedRealtimeDriver::takeOutputPeak() { return outputPeak.exchange(0.0f); }

void SimulatedRealtimeDriver::run()
{
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(static_cast<double>(bufferFrames) / sampleRate));
    auto next = Clock::now();
    AudioBuffer inBuffer { 2, static_cast<uint32_t>(input.size() * sizeof(float)), input.data() };
    AudioBuffer outBuffer { 2, static_cast<uint32_t>(output.size() * sizeof(float)), output.data() };
    while (running.load()) {
        if (hardware.tapsDeliverSilence())
            std::fill(input.begin(), input.end(), 0.0f);
        else
            music.render(input.data(), bufferFrames);
        // Finding the devices allocates; acceptable here, the driver stands in
        // for the audio server, not for our real-time code.
        for (AudioObjectID device : hardware.devicesWithRunningIOProcs()) {
            std::fill(output.begin(), output.end(), 0.0f);
            AudioBufferList inList { 1, &inBuffer };
            AudioBufferList outList { 1, &outBuffer };
            if (hardware.runIOCycle(device, &inList, &outList) > 0) {
                cycleCount.fetch_add(1, std::memory_order_relaxed);
                float peak = 0.0f;
                for (float sample : output)
                    peak = std::max(peak, std::fabs(sample));
                float seen = outputPeak.load();
                while (peak > seen && !outputPeak.compare_exchange_weak(seen, peak)) {
                }
            }
        }
        next += period;
        std::this_thread::sleep_until(next);
    }
}

} // namespace sorva
