// A complete equalizer setting: the bands, low to high, and the output gain
// applied after the filters. A plain value.
#pragma once

#include "Models/EQBand.h"

#include <vector>

namespace sorva {

struct EQConfig {
    std::vector<EQBand> bands;
    double outputGain = 0.0; // dB

    // Five flat bands: Bass 30 Hz, Low-Mid 125 Hz, Mid 500 Hz, High-Mid 2 kHz,
    // Treble 8 kHz, output gain 0 dB. Built once, on first use.
    static const EQConfig& defaultConfig();
};

} // namespace sorva
