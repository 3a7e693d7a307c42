// The host clock used to time IO callbacks: a monotonic tick counter and the
// ratio that turns ticks into nanoseconds. Ticks are steady_clock nanoseconds,
// so the ratio is 1/1. Safe on the audio thread (vDSO clock read, no locks).
#pragma once

#include <chrono>
#include <cstdint>

namespace sorva {

struct HostTimebase {
    uint32_t numer = 1;
    uint32_t denom = 1;
};

inline uint64_t hostTicks() noexcept
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

inline HostTimebase hostTimebase() noexcept { return HostTimebase {}; }

} // namespace sorva
