// The audio system that the windowed and the headless program run on: the
// real one, or with --simulate the simulated one, kept alive here for as long
// as the program runs.
//
// Threads: main thread only.
#pragma once

#include "App/SimulatedSystem.h"

#include <memory>

namespace sorva {

class ProgramEnvironment {
public:
    // Gives the shared controller its environment. False when the real audio
    // system cannot be reached; the reason has then been printed to stderr.
    bool install(bool simulate);

    // The simulated system's real-time-paced driver, around the event loop;
    // nothing with the real audio system.
    void startSimulation();
    void stopSimulation();

private:
    std::unique_ptr<SimulatedSystem> simulated;
};

} // namespace sorva
