#include "Models/EQConfig.h"
#include "Models/EQPresets.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

using namespace sorva;

namespace {

std::vector<EQBand> bandsWithGains(std::vector<double> gains)
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    bands.resize(gains.size(), EQBand("Extra", 16000, 0));
    for (size_t i = 0; i < gains.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

} // namespace

TEST(EQConfig, DefaultHasFiveFlatBandsLowToHigh)
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
    EXPECT_EQ(ids.size(), 5u) << "every band gets its own identity";
    EXPECT_EQ(config.outputGain, 0.0);
    EXPECT_EQ(&EQConfig::defaultConfig(), &config) << "built once";
}

TEST(EQBand, EveryBandBuiltGetsAFreshUuid)
{
    EQBand a("Mid", 500, 0), b("Mid", 500, 0);
    EXPECT_NE(a.id, b.id);
    ASSERT_EQ(a.id.size(), 36u);
    EXPECT_EQ(a.id[14], '4') << "version 4 UUID";
}

TEST(EQPresets, TableInPillOrder)
{
    const auto& presets = EQPresets::all();
    ASSERT_EQ(presets.size(), 4u);
    EXPECT_EQ(presets[0], (EQPreset { "AirPods", { 20, 2, -12, -2, 2 }, 2.0 }));
    EXPECT_EQ(presets[1], (EQPreset { "Vocal", { -2, -1, 3, 4, 1 }, 0.0 }));
    EXPECT_EQ(presets[2], (EQPreset { "Electro", { 12, 4, -10, 0, 8 }, 0.0 }));
    EXPECT_EQ(presets[3], (EQPreset { "Rock", { 10, 0, -2, -6, 2 }, -0.5 }));
}

TEST(EQPresets, MatchingUsesStrictHalfDecibelToleranceOnBandGainsOnly)
{
    EXPECT_FALSE(EQPresets::matching(EQConfig::defaultConfig().bands));

    auto airpods = EQPresets::matching(bandsWithGains({ 20.4, 2, -12, -2, 2 }));
    ASSERT_TRUE(airpods);
    EXPECT_EQ(airpods->name, "AirPods");
    EXPECT_FALSE(EQPresets::matching(bandsWithGains({ 20.5, 2, -12, -2, 2 })));
    EXPECT_FALSE(EQPresets::matching(bandsWithGains({ 19.5, 2, -12, -2, 2 })));
    EXPECT_TRUE(EQPresets::matching(bandsWithGains({ 19.51, 2.49, -12.49, -1.51, 2 })));

    // Labels and frequencies play no part.
    auto renamed = bandsWithGains({ 10, 0, -2, -6, 2 });
    for (auto& band : renamed) {
        band.label = "x";
        band.frequency = 1;
    }
    auto rock = EQPresets::matching(renamed);
    ASSERT_TRUE(rock);
    EXPECT_EQ(rock->name, "Rock");

    EXPECT_FALSE(EQPresets::matching(bandsWithGains({ 10, 0, -2, -6 })));
    EXPECT_FALSE(EQPresets::matching(bandsWithGains({ 10, 0, -2, -6, 2, 0 })));
    EXPECT_FALSE(EQPresets::matching({}));
    EXPECT_FALSE(EQPresets::matching(bandsWithGains({ NAN, 0, -2, -6, 2 })));
}

TEST(EQPreset, EqualityIsExactOnNameGainsAndOutputGain)
{
    EQPreset rock { "Rock", { 10, 0, -2, -6, 2 }, -0.5 };
    EXPECT_EQ(rock, (EQPreset { "Rock", { 10, 0, -2, -6, 2 }, -0.5 }));
    EXPECT_NE(rock, (EQPreset { "Rock", { 10, 0, -2, -6, 2 }, 0.0 }));
    EXPECT_NE(rock, (EQPreset { "Rock", { 10, 0, -2, -6 }, -0.5 }));
    EXPECT_NE(rock, (EQPreset { "rock", { 10, 0, -2, -6, 2 }, -0.5 }));
    EXPECT_EQ(rock.id(), "Rock");
}
