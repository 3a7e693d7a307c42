#include "Models/EQConfig.h"

namespace sorva {

const EQConfig& EQConfig::defaultConfig()
{
    static const EQConfig config {
        {
            EQBand("Bass", 30, 0),
            EQBand("Low-Mid", 125, 0),
            EQBand("Mid", 500, 0),
            EQBand("High-Mid", 2000, 0),
            EQBand("Treble", 8000, 0),
        },
        0.0,
    };
    return config;
}

} // namespace sorva
