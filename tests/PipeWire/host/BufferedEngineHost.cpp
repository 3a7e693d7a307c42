// The buffered engine in a process of its own, for the PipeWire integration
// tests.   sorva_pipewire_buffered_host [--gains G1,G2,G3,G4,G5] [--latency MS]
// Prints "READY" once started (or "FAILED <description>" and exits 1), then
// answers "stats" with "RING <underruns and resyncs since the last stats>
// <frames buffered>" and "stop" (or the end of input) with "STOPPED".
#include "Audio/BufferedEQProcessor.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/PipeWire/PipeWireAudioHardware.h"
#include "Platform/PipeWire/PipeWireOutputEngine.h"

#include <iostream>
#include <poll.h>
#include <sstream>
#include <string>
#include <unistd.h>

using namespace sorva;

int main(int argc, char** argv)
{
    std::vector<double> gains(5, 0.0);
    double latency = 125.0;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--gains" && i + 1 < argc) {
            std::stringstream list(argv[++i]);
            std::string item;
            for (size_t band = 0; band < gains.size() && std::getline(list, item, ','); ++band)
                gains[band] = std::stod(item);
        } else if (arg == "--latency" && i + 1 < argc) {
            latency = std::stod(argv[++i]);
        } else {
            std::cerr << "unknown argument " << arg << "\n";
            return 2;
        }
    }

    PipeWireAudioHardware hardware;
    ManualMainExecutor executor;
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    for (size_t band = 0; band < bands.size(); ++band)
        bands[band].gain = gains[band];
    BufferedEQProcessor engine(static_cast<int64_t>(bands.size()), latency, hardware,
                               std::make_unique<PipeWireOutputEngine>(), executor);
    try {
        engine.start(bands, 0.0);
    } catch (const std::exception& error) {
        std::cout << "FAILED " << error.what() << std::endl;
        return 1;
    }
    std::cout << "READY" << std::endl;

    std::string pending;
    bool stopping = false;
    while (!stopping) {
        executor.runPending();
        pollfd input { STDIN_FILENO, POLLIN, 0 };
        if (::poll(&input, 1, 20) <= 0)
            continue;
        char chunk[256];
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0)
            break;
        pending.append(chunk, static_cast<size_t>(got));
        size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            const std::string command = pending.substr(0, newline);
            pending.erase(0, newline + 1);
            if (command == "stats") {
                const StereoRingBuffer::Snapshot ring = engine.ring.snapshot();
                std::cout << "RING " << ring.underruns << " " << ring.buffered << std::endl;
            } else if (command == "stop") {
                stopping = true;
            }
        }
    }
    engine.stop();
    executor.runPending();
    std::cout << "STOPPED" << std::endl;
    return 0;
}
