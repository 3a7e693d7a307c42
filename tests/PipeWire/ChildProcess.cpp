#include "PipeWire/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace sorva::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv)
{
    int toChild[2];
    int fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    std::vector<char*> args;
    for (auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    childPID = ::fork();
    if (childPID < 0)
        throw std::runtime_error("fork failed");
    if (childPID == 0) {
        ::dup2(toChild[0], STDIN_FILENO);
        ::dup2(fromChild[1], STDOUT_FILENO);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    input = toChild[1];
    output = fromChild[0];
}

ChildProcess::~ChildProcess()
{
    closeInput();
    if (!wait(std::chrono::milliseconds(3000))) {
        kill(SIGKILL);
        wait(std::chrono::milliseconds(3000));
    }
    if (output >= 0)
        ::close(output);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto newline = buffered.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered.substr(0, newline);
            buffered.erase(0, newline + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || output < 0)
            return std::nullopt;
        pollfd fd { output, POLLIN, 0 };
        if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0)
            continue;
        char chunk[512];
        ssize_t got = ::read(output, chunk, sizeof chunk);
        if (got <= 0)
            return std::nullopt;
        buffered.append(chunk, static_cast<size_t>(got));
    }
}

void ChildProcess::writeLine(const std::string& line)
{
    if (input < 0)
        return;
    std::string text = line + "\n";
    [[maybe_unused]] ssize_t written = ::write(input, text.data(), text.size());
}

void ChildProcess::closeInput()
{
    if (input >= 0) {
        ::close(input);
        input = -1;
    }
}

void ChildProcess::kill(int signal)
{
    if (!exitStatus && childPID > 0)
        ::kill(childPID, signal);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout)
{
    if (exitStatus || childPID <= 0)
        return exitStatus;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(childPID, &status, WNOHANG);
        if (done == childPID) {
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitStatus;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace sorva::testing
