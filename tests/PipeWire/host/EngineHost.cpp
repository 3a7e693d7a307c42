// A SORVA engine in a process of its own, for the PipeWire integration tests
// (they route their player like any other program's and may kill the engine).
//
//   sorva_pipewire_engine_host [--gains G1,G2,G3,G4,G5] [--buffered LATENCY_MS]
//
// Runs the single-device engine, or with --buffered the buffered engine at
// that latency. Prints "READY" once started (or "FAILED <description>" and
// exits 1), then answers "stats" with "RING <underruns and resyncs since the
// last stats> <frames buffered>" (buffered engine), and "stop" or the end of
// its input by stopping and printing "STOPPED". A configuration change
// rebuilds the single-device engine as the controller does and prints
// "REBUILT <device name> <rate>"; a failed rebuild ends the host.
#include "Audio/BufferedEQProcessor.h"
#include "Audio/SystemEQProcessor.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/PipeWire/PipeWireAudioHardware.h"
#include "Platform/PipeWire/PipeWireOutputEngine.h"

#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

using namespace sorva;

int main(int argc, char** argv)
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    std::optional<double> bufferedLatency;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        if (i + 1 < argc && option == "--gains") {
            std::stringstream list(argv[i + 1]);
            std::string item;
            for (EQBand& band : bands)
                if (std::getline(list, item, ','))
                    band.gain = std::stod(item);
        } else if (i + 1 < argc && option == "--buffered") {
            bufferedLatency = std::stod(argv[i + 1]);
        } else {
            std::cerr << "unknown argument " << option << "\n";
            return 2;
        }
    }

    PipeWireAudioHardware hardware;
    ManualMainExecutor executor;
    const auto bandCount = static_cast<int64_t>(bands.size());
    std::unique_ptr<SystemEQProcessor> engine;
    std::unique_ptr<BufferedEQProcessor> buffered;
    std::function<void()> start = [&] {
        if (bufferedLatency) {
            buffered = std::make_unique<BufferedEQProcessor>(bandCount, *bufferedLatency, hardware,
                                                             std::make_unique<PipeWireOutputEngine>(), executor);
            buffered->start(bands, 0.0);
            return;
        }
        engine = std::make_unique<SystemEQProcessor>(bandCount, hardware, executor);
        engine->onConfigurationChange = [&] {
            engine->stop();
            start(); // a failed rebuild ends the host
            std::cout << "REBUILT " << engine->outputDeviceName << " " << std::to_string(engine->sampleRate) << std::endl;
        };
        engine->start(bands, 0.0);
    };
    try {
        start();
    } catch (const std::exception& error) {
        std::cout << "FAILED " << error.what() << std::endl;
        return 1;
    }
    std::cout << "READY" << std::endl;

    // The main thread sleeps in the executor, so that the host costs no CPU
    // of its own; commands reach it as jobs.
    bool stopping = false;
    std::thread reader([&] {
        std::string command;
        while (std::getline(std::cin, command) && command != "stop") {
            if (command == "stats" && buffered)
                executor.post([&] {
                    const StereoRingBuffer::Snapshot ring = buffered->ring.snapshot();
                    std::cout << "RING " << ring.underruns << " " << ring.buffered << std::endl;
                });
        }
        executor.post([&] { stopping = true; });
    });
    while (!stopping)
        executor.runNext(std::chrono::hours(1));
    reader.join();
    if (engine)
        engine->stop();
    if (buffered)
        buffered->stop();
    executor.runPending();
    std::cout << "STOPPED" << std::endl;
    return 0;
}
