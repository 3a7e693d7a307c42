// sorva-simulate: the single-device engine end to end on the simulated audio
// system, without any audio server. A generated music-like mix plays into the
// simulated tap at real-time pace; the engine equalizes it (a "Rock"-like
// curve) and, once a second, the program prints the stream statistics, the
// callback timing and the spectrum, as the supervision would see them.
//
//   sorva-simulate [seconds]      (default 2)
#include "Audio/EQLog.h"
#include "Audio/SystemEQProcessor.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedRealtimeDriver.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

using namespace sorva;

int main(int argc, char** argv)
{
    int seconds = 2;
    if (argc > 1) {
        char* end = nullptr;
        const long value = std::strtol(argv[1], &end, 10);
        if (end == argv[1] || *end != '\0' || value < 1 || value > 3600) {
            std::fprintf(stderr, "usage: sorva-simulate [seconds 1-3600]\n");
            return 2;
        }
        seconds = static_cast<int>(value);
    }

    SimulatedAudioHardware hardware;
    hardware.addOutputDevice("Simulated Speakers", "simulated-speakers", 48000.0, 512);
    hardware.addProcess(1000, true, std::string("org.example.player"));
    ManualMainExecutor mainExecutor;
    SimulatedRealtimeDriver driver(hardware, 48000.0, 512);

    EQConfig config = EQConfig::defaultConfig();
    const double gains[] = { 10, 0, -2, -6, 2 };
    for (size_t i = 0; i < config.bands.size() && i < 5; ++i)
        config.bands[i].gain = gains[i];

    SystemEQProcessor engine(static_cast<int64_t>(config.bands.size()), hardware, mainExecutor);
    engine.onConfigurationChange = [] { std::printf("configuration changed\n"); };
    try {
        engine.start(config.bands, -0.5);
    } catch (const AudioTapError& error) {
        std::fprintf(stderr, "sorva-simulate: %s\n", error.errorDescription().c_str());
        return 1;
    }
    driver.start();

    const auto began = std::chrono::steady_clock::now();
    for (int second = 1; second <= seconds; ++second) {
        const auto until = began + std::chrono::seconds(second);
        while (std::chrono::steady_clock::now() < until)
            mainExecutor.runNext(std::chrono::milliseconds(20));
        const auto stats = engine.stats.snapshot();
        const auto timing = engine.timing.snapshot();
        const auto levels = engine.spectrum.levels();
        static const char* const steps[] = { " ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█" };
        std::string bars;
        for (float level : levels)
            bars += steps[std::clamp(static_cast<int>(level * 8.0f + 0.5f), 0, 8)];
        std::printf("%2ds  frames %6lld  peak in %.3f  out %.3f  callbacks %3lld  late %lld  max gap %.2f ms  "
                    "max work %.3f ms  |%s|\n",
                    second, static_cast<long long>(stats.frames), stats.peak, driver.takeOutputPeak(),
                    static_cast<long long>(timing.callbacks), static_cast<long long>(timing.lateCallbacks),
                    timing.maxGapMs, timing.maxWorkMs, bars.c_str());
        std::fflush(stdout);
    }

    // Stop while the driver still runs, so that the fade-out is played.
    engine.stop();
    driver.stop();
    EQLog::flush();
    std::printf("stopped; objects left in the simulated system: %s\n", hardware.nothingAlive() ? "none" : "some");
    return hardware.nothingAlive() ? 0 : 1;
}
