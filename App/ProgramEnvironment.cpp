#include "App/ProgramEnvironment.h"

#include "Audio/EQController.h"
#include "Audio/EQLog.h"
#include "Platform/QtMainExecutor.h"
#include "Platform/Simulated/SimulatedOutputEngine.h"

#include <cstdio>
#include <string>

namespace sorva {

bool ProgramEnvironment::install(bool simulate)
{
    EQController::Environment environment;
    if (simulate) {
        simulated = std::make_unique<SimulatedSystem>();
        environment.hardware = simulated->hardware;
        // Plays nothing: the buffered engine's output just pulls its blocks.
        environment.makeOutputEngine = [] { return std::make_unique<SimulatedOutputEngine>(); };
        environment.mainExecutor = std::make_shared<QtMainExecutor>();
        environment.now = EQController::wallClockSeconds;
        std::fprintf(stderr, "sorva: running on the simulated audio system (a generated signal, nothing is played)\n");
    } else {
        std::string problem;
        environment = EQController::productionEnvironment(&problem);
        if (!environment.hardware) {
            // The backend's own log line comes first, the verdict last.
            EQLog::flush();
            std::fprintf(stderr, "sorva: %s\n", problem.c_str());
            return false;
        }
    }
    EQController::setSharedEnvironment(std::move(environment));
    return true;
}

void ProgramEnvironment::startSimulation()
{
    if (simulated)
        simulated->driver->start();
}

void ProgramEnvironment::stopSimulation()
{
    if (simulated)
        simulated->driver->stop();
}

} // namespace sorva
