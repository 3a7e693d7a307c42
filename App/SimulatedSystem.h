// The simulated audio system of `sorva --simulate` (demos, screenshots, the
// window tests): one output device, one other program that plays, and a
// driver that runs the IO cycles at real-time pace with a generated
// music-like input. Nothing is played.
//
// Threads: built, started and stopped on the main thread; the driver runs its
// own real-time-paced thread.
#pragma once

#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedRealtimeDriver.h"

#include <memory>

namespace sorva {

class SimulatedSystem {
public:
    SimulatedSystem();
    ~SimulatedSystem();

    std::shared_ptr<SimulatedAudioHardware> hardware = std::make_shared<SimulatedAudioHardware>();
    std::unique_ptr<SimulatedRealtimeDriver> driver;
};

} // namespace sorva
