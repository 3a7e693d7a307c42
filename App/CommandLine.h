// The program's command line: which action the user asked for, with its
// arguments, or the one-line reason why the arguments make no sense.
//
//   sorva [--headless] [--simulate]
//   sorva [--help | --version]
//   sorva process INPUT OUTPUT [--preset NAME] [--gains G1,...] [--output-gain DB]
//
// Parsing only reads text; whether a preset exists or a gain list has one
// value per band is decided where the configuration is built.
// Threads: a plain value.
#pragma once

#include "App/OfflineProcessor.h"

#include <filesystem>
#include <string>
#include <vector>

namespace sorva {

class CommandLine {
public:
    enum class Action {
        run, // no command: the program itself
        help,
        version,
        process,
        processHelp,
    };

    // arguments: everything after the program name.
    static CommandLine parse(const std::vector<std::string>& arguments);

    Action action = Action::run;
    // run: without a panel; on the simulated audio system.
    bool headless = false;
    bool simulate = false;
    // Non-empty when the arguments are wrong: a message for "sorva: ...".
    std::string error;

    // process
    std::filesystem::path input;
    std::filesystem::path output;
    OfflineProcessor::Options processOptions;

    static std::string usage();
    // base: the configuration used where no option says otherwise.
    static std::string processUsage(const EQConfig& base);

private:
    void parseProcess(const std::vector<std::string>& arguments, size_t first);
};

} // namespace sorva
