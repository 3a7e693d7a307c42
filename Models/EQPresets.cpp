#include "Models/EQPresets.h"

#include <cmath>

namespace sorva::EQPresets {

const std::vector<EQPreset>& all()
{
    static const std::vector<EQPreset> presets {
        { "AirPods", { 20, 2, -12, -2, 2 }, 2.0 },
        { "Vocal", { -2, -1, 3, 4, 1 }, 0.0 },
        { "Electro", { 12, 4, -10, 0, 8 }, 0.0 },
        { "Rock", { 10, 0, -2, -6, 2 }, -0.5 },
    };
    return presets;
}

std::optional<EQPreset> matching(const std::vector<EQBand>& bands)
{
    for (const EQPreset& preset : all()) {
        if (preset.gains.size() != bands.size())
            continue;
        bool matches = true;
        for (size_t i = 0; i < bands.size() && matches; ++i)
            matches = std::abs(preset.gains[i] - bands[i].gain) < 0.5;
        if (matches)
            return preset;
    }
    return std::nullopt;
}

} // namespace sorva::EQPresets
