// A child process with its standard input and output on pipes, for the
// PipeWire integration tests: the private session script and the engine host.
// Owned by one test thread. The destructor closes the input, waits a moment for
// the child to end by itself, then kills it by its PID.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace sorva::testing {

class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return childPID; }
    // The next line of its output (without the newline), or nothing when it
    // ended or the timeout passed.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    void writeLine(const std::string& line);
    void closeInput();
    void kill(int signal);
    // Waits for it to end; its exit status (128 + signal when killed), or
    // nothing on timeout.
    std::optional<int> wait(std::chrono::milliseconds timeout);

private:
    pid_t childPID = -1;
    int input = -1;
    int output = -1;
    std::string buffered;
    std::optional<int> exitStatus;
};

} // namespace sorva::testing
