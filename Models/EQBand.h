// One band of the equalizer: a peaking filter's centre frequency and gain.
// A plain value; every band built gets a fresh random identity (a UUID string)
// for list display.
#pragma once

#include <string>

namespace sorva {

struct EQBand {
    EQBand() = default;
    EQBand(std::string label, double frequency, double gain);

    std::string id;
    std::string label;
    double frequency = 0.0; // Hz
    double gain = 0.0; // dB; 0 means the band is flat
};

// A fresh random (version 4) UUID in its usual text form.
std::string makeUuid();

} // namespace sorva
