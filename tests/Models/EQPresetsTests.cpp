#include "Models/EQConfig.h"
#include "Models/EQPresets.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <tuple>

using namespace sorva;

TEST(EQConfig, DefaultHasFiveFlatBandsLowToHighEachWithItsOwnUuid)
{
    const EQConfig& config = EQConfig::defaultConfig();
    std::vector<std::tuple<std::string, double, double>> bands;
    std::set<std::string> ids;
    for (const EQBand& band : config.bands) {
        bands.emplace_back(band.label, band.frequency, band.gain);
        ids.insert(band.id);
    }
    EXPECT_EQ(bands, (decltype(bands) { { "Bass", 30, 0 }, { "Low-Mid", 125, 0 }, { "Mid", 500, 0 },
                                        { "High-Mid", 2000, 0 }, { "Treble", 8000, 0 } }));
    EXPECT_EQ(ids.size(), 5u);
    EXPECT_EQ(config.outputGain, 0.0);
    ASSERT_EQ(config.bands[0].id.size(), 36u);
    EXPECT_EQ(config.bands[0].id[14], '4') << "version 4 UUID";
}

TEST(EQPresets, TableInPillOrder)
{
    EXPECT_EQ(EQPresets::all(), (std::vector<EQPreset> { { "AirPods", { 20, 2, -12, -2, 2 }, 2.0 },
                                                         { "Vocal", { -2, -1, 3, 4, 1 }, 0.0 },
                                                         { "Electro", { 12, 4, -10, 0, 8 }, 0.0 },
                                                         { "Rock", { 10, 0, -2, -6, 2 }, -0.5 } }));
}

TEST(EQPresets, MatchingUsesStrictHalfDecibelToleranceOnBandGainsOnly)
{
    const std::pair<std::vector<double>, std::string> cases[] = {
        { { 20.4, 2, -12, -2, 2 }, "AirPods" }, { { 19.51, 2.49, -12.49, -1.51, 2 }, "AirPods" },
        { { 20.5, 2, -12, -2, 2 }, "none" },    { { 19.5, 2, -12, -2, 2 }, "none" },
        { { 10, 0, -2, -6, 2 }, "Rock" },       { { 10, 0, -2, -6 }, "none" },
        { { 10, 0, -2, -6, 2, 0 }, "none" },    { {}, "none" },
        { { NAN, 0, -2, -6, 2 }, "none" },      { { 0, 0, 0, 0, 0 }, "none" },
    };
    for (const auto& [gains, name] : cases) {
        std::vector<EQBand> bands;
        for (double gain : gains)
            bands.emplace_back("x", 1, gain); // labels and frequencies play no part
        const auto preset = EQPresets::matching(bands);
        EXPECT_EQ(preset ? preset->name : "none", name) << testing::PrintToString(gains);
    }
}
