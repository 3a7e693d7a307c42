#include "Models/EQConfig.h"
#include "Models/EQPresets.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

using namespace sorva;

TEST(EQConfig, DefaultHasFiveFlatBandsLowToHighEachWithItsOwnUuid)
{
    const EQConfig& config = EQConfig::defaultConfig();
    const std::vector<std::pair<std::string, double>> bands { { "Bass", 30 }, { "Low-Mid", 125 }, { "Mid", 500 },
                                                              { "High-Mid", 2000 }, { "Treble", 8000 } };
    std::vector<std::pair<std::string, double>> actual;
    std::set<std::string> ids;
    for (const EQBand& band : config.bands) {
        actual.emplace_back(band.label, band.frequency);
        EXPECT_EQ(band.gain, 0.0);
        ids.insert(band.id);
    }
    EXPECT_EQ(actual, bands);
    EXPECT_EQ(ids.size(), 5u);
    EXPECT_EQ(config.outputGain, 0.0);
    const EQBand band("Mid", 500, 0);
    ASSERT_EQ(band.id.size(), 36u);
    EXPECT_EQ(band.id[14], '4') << "version 4 UUID";
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
