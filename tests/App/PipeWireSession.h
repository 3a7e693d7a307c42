// A private PipeWire session for integration tests: runs scripts/pw-session
// --serve, takes over the environment it prints (runtime, config and state
// folders, session bus) for this process, and ends the session (restoring the
// environment) when the object goes away.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sorva::testing {

class PipeWireSession {
public:
    explicit PipeWireSession(std::vector<std::string> options = {})
    {
        int toChild[2], fromChild[2];
        if (pipe(toChild) != 0 || pipe(fromChild) != 0)
            return;
        child = fork();
        if (child == 0) {
            dup2(toChild[0], 0);
            dup2(fromChild[1], 1);
            close(toChild[1]);
            close(fromChild[0]);
            std::vector<std::string> args { "bash", SORVA_SOURCE_DIR "/scripts/pw-session" };
            args.insert(args.end(), options.begin(), options.end());
            args.push_back("--serve");
            std::vector<char*> argv;
            for (auto& arg : args)
                argv.push_back(arg.data());
            argv.push_back(nullptr);
            execvp("bash", argv.data());
            _exit(127);
        }
        close(toChild[0]);
        close(fromChild[1]);
        input = toChild[1];
        FILE* output = fdopen(fromChild[0], "r");
        char line[4096];
        while (output && std::fgets(line, sizeof line, output)) {
            std::string text(line);
            if (!text.empty() && text.back() == '\n')
                text.pop_back();
            if (text == "READY") {
                ready = true;
                break;
            }
            const size_t equals = text.find('=');
            if (equals == std::string::npos)
                continue;
            const std::string key = text.substr(0, equals);
            if (const char* old = std::getenv(key.c_str()))
                saved[key] = std::string(old);
            else
                saved[key] = std::nullopt;
            setenv(key.c_str(), text.substr(equals + 1).c_str(), 1);
        }
        if (output)
            std::fclose(output);
    }
    ~PipeWireSession()
    {
        if (input >= 0)
            close(input);
        if (child > 0) {
            int status = 0;
            waitpid(child, &status, 0);
        }
        for (auto& [key, value] : saved) {
            if (value)
                setenv(key.c_str(), value->c_str(), 1);
            else
                unsetenv(key.c_str());
        }
    }
    bool isReady() const { return ready; }

    // Runs a shell command inside the session; returns its exit status.
    static int run(const std::string& command) { return std::system(command.c_str()); }

private:
    pid_t child = -1;
    int input = -1;
    bool ready = false;
    std::map<std::string, std::optional<std::string>> saved;
};

} // namespace sorva::testing
