#include "Models/EQConfig.h"
#include "Models/EQPresets.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

using namespace sorva;

TEST(EQConfig, DefaultHasFiveFlatBandsLowToHighEachWithItsOwnUuid)
{
    const EQConfig& config = EQConfig::defaultConfig();
    ASSERT_EQ(config.bands.size(), 5u);
    const char* labels[] = { "Bass", "Low-Mid", "Mid", "High-Mid", "Treble" };
    const double frequencies[] = { 30, 125, 500, 2000, 8000 };
    std::set<std::string> ids;
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(config.bands[i].label, labels[i]);
        EXPECT_EQ(config.bands[i].frequency, frequencies[i]);
        EXPECT_EQ(config.bands[i].gain, 0.0);
        ids.insert(config.bands[i].id);
    }
    EXPECT_EQ(ids.size(), 5u);
    EXPECT_EQ(config.outputGain, 0.0);
    EXPECT_EQ(&EQConfig::defaultConfig(), &config) << "built once";
    EQBand a("Mid", 500, 0), b("Mid", 500, 0);
    EXPECT_NE(a.id, b.id);
    ASSERT_EQ(a.id.size(), 36u);
    EXPECT_EQ(a.id[14], '4') << "version 4 UUID";
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
    const auto matching = [](std::vector<double> gains) -> std::string {
        std::vector<EQBand> bands;
        for (double gain : gains)
            bands.emplace_back("x", 1, gain); // labels and frequencies play no part
        const auto preset = EQPresets::matching(bands);
        return preset ? preset->name : "none";
    };
    EXPECT_EQ(matching({ 20.4, 2, -12, -2, 2 }), "AirPods");
    EXPECT_EQ(matching({ 19.51, 2.49, -12.49, -1.51, 2 }), "AirPods");
    EXPECT_EQ(matching({ 20.5, 2, -12, -2, 2 }), "none");
    EXPECT_EQ(matching({ 19.5, 2, -12, -2, 2 }), "none");
    EXPECT_EQ(matching({ 10, 0, -2, -6, 2 }), "Rock");
    EXPECT_EQ(matching({ 10, 0, -2, -6 }), "none");
    EXPECT_EQ(matching({ 10, 0, -2, -6, 2, 0 }), "none");
    EXPECT_EQ(matching({}), "none");
    EXPECT_EQ(matching({ NAN, 0, -2, -6, 2 }), "none");
    EXPECT_EQ(matching({ 0, 0, 0, 0, 0 }), "none");
}
