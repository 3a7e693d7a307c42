// One private PipeWire session (scripts/pw-session --serve) for one test: its
// environment is exported into this process while it exists, so that every
// PipeWire client made here, and every child started here, joins it. Ending it
// closes the script's input; the script stops what it started.
#pragma once

#include "PipeWire/ChildProcess.h"

#include <map>
#include <memory>
#include <string>

namespace sorva::testing {

class PrivateSession {
public:
    explicit PrivateSession(const std::vector<std::string>& options = {});
    ~PrivateSession();
    PrivateSession(const PrivateSession&) = delete;
    PrivateSession& operator=(const PrivateSession&) = delete;

    bool ready() const { return isReady; }
    const std::string& root() const { return environment.at("PW_SESSION_ROOT"); }
    std::string stateHome() const { return environment.at("XDG_STATE_HOME"); }

private:
    std::unique_ptr<ChildProcess> script;
    std::map<std::string, std::string> environment;
    bool isReady = false;
};

} // namespace sorva::testing
