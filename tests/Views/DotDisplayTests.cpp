// Pixel probes of the dot displays (spectrum, dot-matrix text) and the curve,
// at the positions their layout rules give.
#include "Views/CurveView.h"
#include "Views/DotMatrixText.h"
#include "Views/SpectrumView.h"

#include "Models/EQBand.h"
#include "ViewsTestSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>

namespace sorva {
namespace {

using testing::near;
using testing::render;
using testing::withAlpha;

const QColor yellow(0xF6, 0xD8, 0x18);

TEST(SpectrumView, LightsEachColumnFromTheBottomWithTheTopFifthYellow)
{
    // 4 columns of 7 dots, size 3, spacing 2: a 18 × 33 grid centred in 38 × 43.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    SpectrumView view({ 0.0f, 0.5f, 1.0f, nan }, 7, 3, 2);
    const QImage image = render(view, QSize(38, 43));
    const int x0 = 10;
    const int y0 = 5;
    // Lit dots from the bottom: 0 → none, 0.5 → 3.5 rounds to 4, 1 → all,
    // not a number → none.
    const int lit[] = { 0, 4, 7, 0 };
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 7; ++j) {
            const int r = 7 - j;
            const QColor expected = r > lit[i] ? withAlpha(Qt::white, 0.08)
                : r >= 6                       ? yellow
                                               : withAlpha(Qt::white, 0.75);
            // The pixel under the dot's centre.
            const QColor actual = image.pixelColor(x0 + i * 5 + 1, y0 + j * 5 + 1);
            EXPECT_TRUE(near(actual, expected, 6)) << "column " << i << " row " << j << ": "
                                                   << actual.name(QColor::HexArgb).toStdString();
        }
    }
    // Nothing between the dots.
    EXPECT_EQ(image.pixelColor(x0 + 4, y0 + 1).alpha(), 0);
}

// The glyphs the panel's gains use, written out independently of the view's
// own table.
const std::map<QChar, std::array<const char*, 7>> expectedGlyphs {
    { QChar(' '), { ".....", ".....", ".....", ".....", ".....", ".....", "....." } },
    { QChar('+'), { ".....", "..#..", "..#..", "#####", "..#..", "..#..", "....." } },
    { QChar('-'), { ".....", ".....", ".....", "#####", ".....", ".....", "....." } },
    { QChar('0'), { ".###.", "#...#", "#..##", "#.#.#", "##..#", "#...#", ".###." } },
    { QChar('1'), { "..#..", ".##..", "..#..", "..#..", "..#..", "..#..", ".###." } },
    { QChar('2'), { ".###.", "#...#", "....#", "...#.", "..#..", ".#...", "#####" } },
    { QChar('6'), { "..##.", ".#...", "#....", "####.", "#...#", "#...#", ".###." } },
};

TEST(DotMatrixText, ShowsTheLastCellsCharactersRightAlignedWithFaintUnlitDots)
{
    struct Case {
        QString text;
        QString shown;
    };
    const Case cases[] = {
        { QStringLiteral("+6"), QStringLiteral(" +6") },
        { QStringLiteral("-12"), QStringLiteral("-12") },
        { QStringLiteral("+100"), QStringLiteral("100") },
        { QStringLiteral("A"), QStringLiteral("   ") }, // not in the table: blank
    };
    // Dot 4, spacing 2: glyphs 28 × 40, cells 4 apart: 92 × 40 in all.
    for (const Case& c : cases) {
        DotMatrixText view(c.text, 3, 4, 2, Qt::white);
        EXPECT_EQ(view.sizeHint(), QSize(92, 40));
        const QImage image = render(view, view.sizeHint());
        for (int k = 0; k < 3; ++k) {
            const auto& glyph = expectedGlyphs.at(c.shown[k]);
            for (int r = 0; r < 7; ++r) {
                for (int q = 0; q < 5; ++q) {
                    const bool on = glyph[r][q] == '#';
                    const QColor actual = image.pixelColor(k * 32 + q * 6 + 2, r * 6 + 2);
                    EXPECT_TRUE(near(actual, on ? QColor(Qt::white) : withAlpha(Qt::white, 0.1), 4))
                        << c.text.toStdString() << " cell " << k << " row " << r << " column " << q;
                }
            }
        }
    }
}

std::vector<EQBand> bandsWithGains(std::initializer_list<double> gains)
{
    std::vector<EQBand> bands;
    for (double gain : gains)
        bands.emplace_back("band", 100.0, gain);
    return bands;
}

TEST(CurveView, DrawsMidlineDottedLineAndOnlyAValidMarker)
{
    // 5 bands on 100 × 48: points at x = 10, 30, 50, 70, 90 and y = 24 - gain.
    CurveView view;
    view.setBands(bandsWithGains({ -24, 0, 24, 0, -12 }));
    view.setActive(1);
    QImage image = render(view, QSize(100, 48));
    const QColor white(Qt::white);
    // Dots every 6 from x = 10, on the lines between the points.
    EXPECT_TRUE(near(image.pixelColor(16, 40), yellow)); // (10,48)-(30,24) at x 16: y 40.8
    EXPECT_TRUE(near(image.pixelColor(40, 12), yellow)); // (30,24)-(50,0) at x 40
    EXPECT_TRUE(near(image.pixelColor(88, 34), yellow)); // (70,24)-(90,36) at x 88: 34.8
    EXPECT_EQ(image.pixelColor(94, 36).alpha(), 0); // no dot past the last point
    EXPECT_TRUE(near(image.pixelColor(30, 24), white)); // the marker on band 1
    // The midline (white 15 %, 1 wide, on y = 24) away from the dots.
    const QColor midline = image.pixelColor(3, 24);
    EXPECT_GT(midline.alpha(), 10);
    EXPECT_LT(midline.alpha(), 45);
    EXPECT_EQ(image.pixelColor(3, 20).alpha(), 0);

    for (int invalid : { -1, 5 }) {
        view.setActive(invalid);
        image = render(view, QSize(100, 48));
        EXPECT_FALSE(near(image.pixelColor(30, 24), white, 40)) << invalid;
    }

    // One band: the midline only, no dot and no marker.
    view.setBands(bandsWithGains({ 12 }));
    view.setActive(0);
    image = render(view, QSize(100, 48));
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            ASSERT_LT(image.pixelColor(x, y).alpha(), 45) << x << "," << y;
}

} // namespace
} // namespace sorva
