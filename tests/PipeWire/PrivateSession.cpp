#include "PipeWire/PrivateSession.h"

#include <cstdlib>

namespace sorva::testing {

PrivateSession::PrivateSession(const std::vector<std::string>& options)
{
    std::vector<std::string> argv { SORVA_SOURCE_DIR "/scripts/pw-session" };
    argv.insert(argv.end(), options.begin(), options.end());
    // Measurements run the same tests at other graph quanta.
    if (const char* quantum = std::getenv("SORVA_PW_QUANTUM"); quantum && *quantum) {
        argv.push_back("--quantum");
        argv.push_back(quantum);
    }
    argv.push_back("--serve");
    script = std::make_unique<ChildProcess>(argv);
    while (auto line = script->readLine(std::chrono::seconds(15))) {
        if (*line == "READY") {
            isReady = true;
            break;
        }
        auto equals = line->find('=');
        if (equals != std::string::npos)
            environment[line->substr(0, equals)] = line->substr(equals + 1);
    }
    for (auto& [key, value] : environment)
        ::setenv(key.c_str(), value.c_str(), 1);
}

PrivateSession::~PrivateSession()
{
    script->closeInput();
    script->wait(std::chrono::seconds(10));
    script.reset();
}

} // namespace sorva::testing
