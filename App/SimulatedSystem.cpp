#include "App/SimulatedSystem.h"

#include <cstdint>
#include <string>
#include <unistd.h>

namespace sorva {

SimulatedSystem::SimulatedSystem()
{
    hardware->addOutputDevice("Simulated Speakers", "sorva-simulated-speakers", 48000.0, 512);
    // A program other than this one that is playing, so that the supervision
    // sees audio activity.
    hardware->addProcess(static_cast<int32_t>(::getpid()) + 1, true, std::string("org.sorva.demo-player"));
    driver = std::make_unique<SimulatedRealtimeDriver>(*hardware, 48000.0, 512);
}

SimulatedSystem::~SimulatedSystem()
{
    if (driver)
        driver->stop();
}

} // namespace sorva
