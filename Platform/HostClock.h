// The host clock used to time IO callbacks: a monotonic tick counter and the
// ratio that turns ticks into nanoseconds. Ticks are steady_clock nanoseconds,
// so the ratio is 1/1. Safe on the audio thread (vDSO clock read, no locks).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace sorva {

struct HostTimebase {
    uint32_t numer = 1;
    uint32_t denom = 1;
};

// CLOCK_MONOTONIC, the clock behind steady_clock, read directly: the audio
// thread reads it every cycle, and steady_clock::now() lives in the C++
// library, one more code page to fault in after each sleep.
inline uint64_t hostTicks() noexcept
{
    timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000ull + static_cast<uint64_t>(now.tv_nsec);
}

inline HostTimebase hostTimebase() noexcept { return HostTimebase {}; }

// The host ticks at which this process was started, from the kernel's record
// of it (10 ms resolution), or 0 when that cannot be read. Reads /proc: not
// for the audio thread.
inline uint64_t processStartTicks() noexcept
{
    char text[1024];
    const int fd = ::open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    const ssize_t length = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (length <= 0)
        return 0;
    text[length] = '\0';
    // The start time is field 22; the command name (field 2) may hold
    // spaces, so fields are counted from its closing parenthesis (field 3
    // follows it).
    const char* field = std::strrchr(text, ')');
    for (int number = 2; field && number < 22; ++number)
        field = std::strchr(field + 1, ' ');
    const long tick = ::sysconf(_SC_CLK_TCK);
    timespec boot {};
    if (!field || tick <= 0 || ::clock_gettime(CLOCK_BOOTTIME, &boot) != 0)
        return 0;
    const uint64_t startedSinceBoot = std::strtoull(field + 1, nullptr, 10) * 1'000'000'000ull / static_cast<uint64_t>(tick);
    const uint64_t nowSinceBoot = static_cast<uint64_t>(boot.tv_sec) * 1'000'000'000ull + static_cast<uint64_t>(boot.tv_nsec);
    const uint64_t now = hostTicks();
    const uint64_t age = nowSinceBoot > startedSinceBoot ? nowSinceBoot - startedSinceBoot : 0;
    return now > age ? now - age : 0;
}

} // namespace sorva
