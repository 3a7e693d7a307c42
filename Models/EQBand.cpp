#include "Models/EQBand.h"

#include <cstdint>
#include <cstdio>
#include <random>

namespace sorva {

EQBand::EQBand(std::string label, double frequency, double gain)
    : id(makeUuid())
    , label(std::move(label))
    , frequency(frequency)
    , gain(gain)
{
}

std::string makeUuid()
{
    thread_local std::mt19937_64 generator { std::random_device {}() };
    uint64_t high = generator();
    uint64_t low = generator();
    high = (high & 0xFFFFFFFFFFFF0FFFull) | 0x0000000000004000ull; // version 4
    low = (low & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull; // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(high >> 32),
                  static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                  static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFull));
    return text;
}

} // namespace sorva
