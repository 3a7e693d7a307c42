// Test support: whether a thread of this process is blocked, read from its
// state letter in /proc, so that a test can wait for "the other thread is now
// waiting inside the call" instead of sleeping for a while.
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <sys/types.h>

namespace sorva::test {

inline bool isAsleep(pid_t tid)
{
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // "tid (command name) S …": the name may hold spaces or parentheses.
    const size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] == 'S';
}

} // namespace sorva::test
