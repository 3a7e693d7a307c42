// A named built-in setting: one gain per band, in band order, and an output
// gain. Identified by its name. Two presets are equal when name, gain list and
// output gain are all exactly equal.
#pragma once

#include <string>
#include <vector>

namespace sorva {

struct EQPreset {
    std::string name;
    std::vector<double> gains; // dB, band order
    double outputGain = 0.0; // dB

    const std::string& id() const { return name; }
    bool operator==(const EQPreset&) const = default;
};

} // namespace sorva
