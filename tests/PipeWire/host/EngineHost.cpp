// A SORVA engine in a process of its own, for the PipeWire integration tests
// (they route their player like any other program's and may kill the engine).
//
//   sorva_pipewire_engine_host [--gains G1,G2,G3,G4,G5]
//
// Prints "READY" once started (or "FAILED <description>" and exits 1), then
// runs until standard input closes or says "stop", stops, prints "STOPPED".
// A configuration change rebuilds the engine as the controller does and
// prints "REBUILT <device name> <rate>".
#include "Audio/SystemEQProcessor.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/PipeWire/PipeWireAudioHardware.h"

#include <atomic>
#include <functional>
#include <iostream>
#include <sstream>
#include <thread>

using namespace sorva;

int main(int argc, char** argv)
{
    std::vector<double> gains(5, 0.0);
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--gains" && i + 1 < argc) {
            std::stringstream list(argv[++i]);
            std::string item;
            for (size_t band = 0; band < gains.size() && std::getline(list, item, ','); ++band)
                gains[band] = std::stod(item);
        } else {
            std::cerr << "unknown argument " << arg << "\n";
            return 2;
        }
    }

    PipeWireAudioHardware hardware;

    ManualMainExecutor executor;
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    for (size_t band = 0; band < bands.size() && band < gains.size(); ++band)
        bands[band].gain = gains[band];
    std::unique_ptr<SystemEQProcessor> engine;
    std::function<bool()> startEngine = [&] {
        engine = std::make_unique<SystemEQProcessor>(static_cast<int64_t>(bands.size()), hardware, executor);
        engine->onConfigurationChange = [&] {
            engine->stop();
            bool started = startEngine();
            std::cout << (started ? "REBUILT " + engine->outputDeviceName + " " + std::to_string(engine->sampleRate) : "REBUILD FAILED") << std::endl;
        };
        try {
            engine->start(bands, 0.0);
        } catch (const AudioTapError& error) {
            std::cout << "FAILED " << error.errorDescription() << std::endl;
            return false;
        }
        return true;
    };
    if (!startEngine())
        return 1;
    std::cout << "READY" << std::endl;

    // The main thread sleeps in the executor: the host must cost no CPU.
    std::atomic<bool> stopRequested { false };
    std::thread reader([&] {
        std::string line;
        while (std::getline(std::cin, line) && line.find("stop") == std::string::npos) {
        }
        executor.post([&] { stopRequested = true; });
    });
    while (!stopRequested)
        executor.runNext(std::chrono::hours(1));
    reader.join();
    engine->stop();
    executor.runPending();
    std::cout << "STOPPED" << std::endl;
    return 0;
}
