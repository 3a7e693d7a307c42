// The hex colour scan and the theme's font set-up.
#include "Views/ColorHex.h"
#include "Views/SORVATheme.h"

#include "ViewsTestSupport.h"

#include <gtest/gtest.h>

#include <QFontInfo>

#include <string>

namespace sorva {
namespace {

TEST(ColorHex, ScansLikeTheHexIntegerScannerAndKeepsTheLowTwentyFourBits)
{
    struct Case {
        std::string text;
        QColor expected;
    };
    const Case cases[] = {
        { "000B1A", QColor(0, 11, 26) },
        { "FF5A5A", QColor(255, 0x5A, 0x5A) },
        { "bb2c90", QColor(0xBB, 0x2C, 0x90) },
        { "1BB2C90", QColor(0xBB, 0x2C, 0x90) }, // a 25th bit is dropped
        { "  \t\n0xBB2C90", QColor(0xBB, 0x2C, 0x90) }, // white space, then a prefix
        { "0XF6D818", QColor(0xF6, 0xD8, 0x18) },
        { "F6D818zz", QColor(0xF6, 0xD8, 0x18) }, // digits up to the first non-digit
        { "12", QColor(0, 0, 0x12) },
        { "#BB2C90", QColor(0, 0, 0) }, // "#" is not a digit: nothing is read
        { "not hex", QColor(0, 0, 0) },
        { "", QColor(0, 0, 0) },
        { "0x", QColor(0, 0, 0) },
        { "FFFFFFFFFFFFFFFFFFFF", QColor(255, 255, 255) }, // overflow saturates
    };
    for (const Case& c : cases) {
        const QColor color = colorFromHex(c.text);
        EXPECT_EQ(color.rgba(), c.expected.rgba()) << '"' << c.text << '"';
        EXPECT_EQ(color.alpha(), 255) << '"' << c.text << '"';
        EXPECT_EQ(color, QColor::fromRgba(color.rgba())) << '"' << c.text << '"' << " is an sRGB colour";
    }
}

TEST(SORVATheme, UsesTheBundledUrbanistFacesOrSaysWhyNot)
{
    testing::LogCapture log;
    const bool registered = SORVATheme::registerFonts(); // already ran once: logs nothing more
    EXPECT_TRUE(log.taken().empty());
#ifdef SORVA_HAVE_URBANIST
    ASSERT_TRUE(registered);
    // The three weights resolve to their own faces, at pixel sizes.
    for (auto weight : { QFont::Normal, QFont::Medium, QFont::DemiBold }) {
        const QFont font = SORVATheme::font(10, weight);
        const QFontInfo info(font);
        EXPECT_EQ(info.family(), QStringLiteral("Urbanist"));
        EXPECT_EQ(info.weight(), weight);
        EXPECT_EQ(info.pixelSize(), 10);
    }
#else
    EXPECT_FALSE(registered);
#endif
    // A pair outside the prepared seven is still the theme's family and size.
    const QFont other = SORVATheme::font(13, QFont::Normal, 0.8);
    EXPECT_EQ(other.pixelSize(), 13);
    EXPECT_EQ(other.family(), QStringLiteral("Urbanist"));
    EXPECT_NEAR(other.letterSpacing(), 0.8, 1.0 / 64); // stored in 1/64 pixel
}

} // namespace
} // namespace sorva
