// The built-in preset table and the rule that finds which preset, if any, a
// list of bands corresponds to.
#pragma once

#include "Models/EQBand.h"
#include "Models/EQPreset.h"

#include <optional>
#include <vector>

namespace sorva::EQPresets {

// AirPods, Vocal, Electro, Rock, in that order. Built once, on first use.
const std::vector<EQPreset>& all();

// The first preset whose gain list has as many entries as there are bands and
// whose every gain lies strictly within 0.5 dB of the band's gain. Only band
// gains count: output gain, labels and frequencies play no part.
std::optional<EQPreset> matching(const std::vector<EQBand>& bands);

} // namespace sorva::EQPresets
