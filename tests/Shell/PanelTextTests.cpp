// The panel's status line, readout and output texts and the status colours,
// as the user reads them.
#include "Views/EQPanelView.h"

#include "Models/EQConfig.h"
#include "Models/EQPresets.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace sorva {
namespace {

using Status = EQController::Status;

std::vector<EQBand> bandsWithGains(const std::vector<double>& gains)
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

TEST(PanelTextTests, StatusLineByStatusAndPreset)
{
    // Within half a decibel of AirPods on every band still counts as AirPods.
    const std::vector<EQBand> airpods = bandsWithGains({ 19.6, 2.4, -12, -2, 2 });
    const std::vector<EQBand> custom = bandsWithGains({ 3, 0, 0, 0, 0 });
    const QString stats = QStringLiteral("48.0 kHz · 512 frames");

    struct Row {
        Status status;
        const std::vector<EQBand>* bands;
        const char* expected;
    };
    const Row rows[] = {
        { Status::off(), &custom, "Off \u2014 audio untouched" },
        { Status::off(), &airpods, "Off \u2014 audio untouched \u00B7 AIRPODS" },
        { Status::starting(), &airpods, "Starting\u2026 \u00B7 AIRPODS" },
        { Status::starting(), &custom, "Starting\u2026" },
        { Status::idle(), &custom, "48.0 kHz · 512 frames" },
        { Status::capturing(0.5f, 0), &airpods, "48.0 kHz · 512 frames \u00B7 AIRPODS" },
        { Status::capturing(0.5f, 3), &airpods, "48.0 kHz · 512 frames \u00B7 3 glitches/s \u00B7 AIRPODS" },
        { Status::capturing(0.5f, 1), &custom, "48.0 kHz · 512 frames \u00B7 1 glitches/s" },
        { Status::permissionDenied(), &airpods,
            "Needs \u201CScreen & System Audio Recording\u201D permission" },
        { Status::failed("start failed: no output device"), &airpods, "start failed: no output device" },
    };
    for (const Row& row : rows) {
        EXPECT_EQ(EQPanelView::statusText(row.status, stats, *row.bands).toStdString(), row.expected)
            << row.status.description();
    }

    EXPECT_EQ(EQPanelView::statusColor(Status::capturing(0, 0)), QColor(0xF6, 0xD8, 0x18));
    EXPECT_EQ(EQPanelView::statusColor(Status::failed("x")), QColor(0xFF, 0x5A, 0x5A));
    EXPECT_EQ(EQPanelView::statusColor(Status::permissionDenied()), QColor(0xFF, 0x5A, 0x5A));
    EXPECT_NEAR(EQPanelView::statusColor(Status::starting()).alphaF(), 0.4, 0.002);
    EXPECT_NEAR(EQPanelView::statusColor(Status::idle()).alphaF(), 0.4, 0.002);
    EXPECT_NEAR(EQPanelView::statusColor(Status::off()).alphaF(), 0.25, 0.002);
    EXPECT_EQ(EQPanelView::statusColor(Status::off()).rgb(), QColor(Qt::white).rgb());
}

TEST(PanelTextTests, FrequencyGainAndOutputTexts)
{
    const std::pair<double, const char*> frequencies[] = {
        { 30, "30 Hz" }, { 999, "999 Hz" }, { 999.6, "1000 Hz" }, { 1000, "1 kHz" }, { 2000, "2 kHz" },
        { 12500, "12 kHz" }, { 15500, "16 kHz" },
    };
    for (const auto& [frequency, expected] : frequencies)
        EXPECT_EQ(EQPanelView::frequencyLabel(frequency).toStdString(), expected) << frequency;

    // Truncated toward zero, sign always written.
    const std::pair<double, const char*> gains[] = {
        { 0, "+0" }, { -3, "-3" }, { 6, "+6" }, { -12, "-12" }, { 2.9, "+2" }, { -2.9, "-2" }, { -0.4, "+0" },
        { 24, "+24" },
    };
    for (const auto& [gain, expected] : gains)
        EXPECT_EQ(EQPanelView::gainText(gain).toStdString(), expected) << gain;

    const std::pair<double, const char*> outputs[] = {
        { 0, "+0.0" }, { -6, "-6.0" }, { -1.5, "-1.5" }, { 6, "+6.0" }, { 0.5, "+0.5" },
    };
    for (const auto& [gain, expected] : outputs)
        EXPECT_EQ(EQPanelView::outputGainText(gain).toStdString(), expected) << gain;
}

} // namespace
} // namespace sorva
