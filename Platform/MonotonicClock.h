// Monotonic uptime in nanoseconds (CLOCK_MONOTONIC), and the injectable clock
// type that lifecycle and supervision code take so that tests can drive time.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>

namespace sorva {

inline uint64_t monotonicNanoseconds() noexcept
{
    timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Returns monotonic nanoseconds. The default is monotonicNanoseconds.
using NanosecondClock = std::function<uint64_t()>;

} // namespace sorva
