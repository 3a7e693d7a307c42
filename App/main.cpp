// sorva: the command-line entry point. Turns the arguments into a CommandLine
// and runs the chosen action. Exit status: 0 done (also after SIGINT or
// SIGTERM stopped the running program), 1 no audio system reachable, 2 wrong
// arguments or a failed run, 130 an interrupted file run.
#include "App/CommandLine.h"
#include "App/HeadlessApp.h"
#include "App/OfflineProcessor.h"
#include "App/PanelModule.h"
#include "App/ProgressBar.h"
#include "Models/EQConfig.h"
#include "Models/EQSettings.h"
#include "Platform/LoadableModule.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using sorva::CommandLine;
using sorva::EQConfig;
using sorva::OfflineProcessor;

constexpr int exitFailure = 2;
constexpr int exitInterrupted = 130;

// Files shorter than this finish before a progress bar would be any use.
constexpr double progressBarSeconds = 10.0;

std::atomic<bool> interruptRequested { false };

extern "C" void requestInterrupt(int)
{
    interruptRequested.store(true, std::memory_order_relaxed);
}

// Ctrl-C and termination stop the run between blocks, so that the partial
// output is removed instead of left behind. A second Ctrl-C ends the program
// at once, for an input that stalls (a pipe nobody writes to).
void catchInterrupts()
{
    struct sigaction action {};
    action.sa_handler = requestInterrupt;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

// base: the configuration that applies where the command line says nothing.
int runProcess(const CommandLine& line, const EQConfig& base)
{
    std::unique_ptr<sorva::ProgressBar> bar;
    try {
        OfflineProcessor processor(OfflineProcessor::configure(line.processOptions, base));
        catchInterrupts();
        const bool terminal = ::isatty(STDERR_FILENO) == 1;
        auto progress = [&](int64_t done, int64_t total, int64_t sampleRate) {
            if (interruptRequested.load(std::memory_order_relaxed))
                return false;
            if (terminal && !bar && total > 0 && sampleRate > 0
                && static_cast<double>(total) / static_cast<double>(sampleRate) > progressBarSeconds)
                bar = std::make_unique<sorva::ProgressBar>(stderr, "sorva: writing " + line.output.filename().string(), total);
            if (bar)
                bar->update(done);
            return true;
        };
        processor.process(line.input, line.output, progress);
        if (bar)
            bar->finish();
        return 0;
    } catch (const OfflineProcessor::Error& error) {
        if (bar)
            bar->clear();
        std::fprintf(stderr, "sorva: %s\n", error.what());
        return interruptRequested.load() ? exitInterrupted : exitFailure;
    } catch (const std::exception& error) {
        // Out of memory and the like: still one line, still no partial file.
        if (bar)
            bar->clear();
        std::fprintf(stderr, "sorva: %s\n", error.what());
        return exitFailure;
    }
}

// The tray application, from its module: beside the program in a build
// folder, in <prefix>/<libdir>/sorva once installed.
int runPanel(int argc, char** argv, bool simulate)
{
    const std::filesystem::path folder = sorva::LoadableModule::executableDirectory();
    const std::filesystem::path candidates[] = { folder / "sorva-panel.so", folder / SORVA_PANEL_MODULE };
    std::string error;
    for (const std::filesystem::path& path : candidates) {
        std::error_code ec;
        if (!std::filesystem::exists(path, ec))
            continue;
        auto module = sorva::LoadableModule::open(path, error);
        auto entry = module ? reinterpret_cast<sorva::PanelEntry>(module->symbol(sorva::panelEntryName, error)) : nullptr;
        if (!entry)
            break;
        return entry(argc, argv, simulate);
    }
    if (error.empty())
        error = "not found (looked for " + candidates[0].string() + " and " + candidates[1].lexically_normal().string()
            + ")";
    std::fprintf(stderr, "sorva: cannot load the tray application: %s\nsorva: `sorva --headless` equalizes without it\n",
                 error.c_str());
    return exitFailure;
}

} // namespace

int main(int argc, char** argv)
{
    const CommandLine line = CommandLine::parse(std::vector<std::string>(argv + 1, argv + argc));
    if (!line.error.empty()) {
        std::fprintf(stderr, "sorva: %s\n", line.error.c_str());
        return exitFailure;
    }
    switch (line.action) {
    case CommandLine::Action::help:
        std::fputs(CommandLine::usage().c_str(), stdout);
        return 0;
    case CommandLine::Action::version:
        std::printf("sorva %s\n", SORVA_VERSION);
        return 0;
    case CommandLine::Action::processHelp:
        std::fputs(CommandLine::processUsage(sorva::EQSettings::loadConfig()).c_str(), stdout);
        return 0;
    case CommandLine::Action::process:
        // What the user last set in the equalizer, where the options say
        // nothing.
        return runProcess(line, sorva::EQSettings::loadConfig());
    case CommandLine::Action::run:
        break;
    }
    // The tray application under a display; the same controller without any
    // window otherwise, or when asked for.
    if (!line.headless && sorva::displayAvailable())
        return runPanel(argc, argv, line.simulate);
    sorva::HeadlessOptions options;
    options.simulate = line.simulate;
    return sorva::runHeadless(argc, argv, options);
}
