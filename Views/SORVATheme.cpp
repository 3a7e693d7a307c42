#include "Views/SORVATheme.h"

#include "Audio/EQLog.h"
#include "Views/ColorHex.h"

#include <QFontDatabase>
#include <QStringList>

#include <array>
#include <optional>
#include <cmath>

#ifdef SORVA_HAVE_URBANIST
// Resource initialisers live at global scope; the fonts are compiled into
// this static library and would otherwise be dropped by the linker.
static void initFontResources()
{
    Q_INIT_RESOURCE(sorva_fonts);
}
#endif

namespace sorva::SORVATheme {

const QColor& magenta()
{
    static const QColor color = colorFromHex("BB2C90");
    return color;
}

const QColor& violet()
{
    static const QColor color = colorFromHex("6730DC");
    return color;
}

const QColor& yellow()
{
    static const QColor color = colorFromHex("F6D818");
    return color;
}

const QColor& ink()
{
    static const QColor color = colorFromHex("000B1A");
    return color;
}

QColor white(double opacity)
{
    QColor color(Qt::white);
    color.setAlphaF(static_cast<float>(opacity));
    return color;
}

namespace {

QColor withOpacity(QColor color, double opacity)
{
    color.setAlphaF(static_cast<float>(opacity));
    return color;
}

QFont makeFont(double size, std::optional<QFont::Weight> weight)
{
    QFont font(QString::fromLatin1(fontFamily));
    // Sizes are device-independent pixels, not typographic points.
    if (size == std::floor(size) && size >= 1)
        font.setPixelSize(static_cast<int>(size));
    else
        font.setPointSizeF(size * 72.0 / 96.0);
    if (weight)
        font.setWeight(*weight);
    return font;
}

struct PreparedFont {
    double size;
    QFont::Weight weight;
    QFont font;
};

// The regular pairs keep the family's default weight ("no weight applied").
const std::array<PreparedFont, 7>& preparedFonts()
{
    static const std::array<PreparedFont, 7> fonts {
        PreparedFont { 22, QFont::DemiBold, makeFont(22, QFont::DemiBold) }, // title
        PreparedFont { 15, QFont::Medium, makeFont(15, QFont::Medium) }, // band
        PreparedFont { 12, QFont::DemiBold, makeFont(12, QFont::DemiBold) }, // button
        PreparedFont { 11, QFont::Normal, makeFont(11, std::nullopt) }, // frequency
        PreparedFont { 10, QFont::Normal, makeFont(10, std::nullopt) }, // caption
        PreparedFont { 10, QFont::DemiBold, makeFont(10, QFont::DemiBold) }, // captionBold
        PreparedFont { 10, QFont::Medium, makeFont(10, QFont::Medium) }, // sliderLabel
    };
    return fonts;
}

} // namespace

const QLinearGradient& panelGradient()
{
    static const QLinearGradient gradient = [] {
        QLinearGradient g(0, 0, 1, 1);
        g.setCoordinateMode(QGradient::ObjectMode);
        g.setColorAt(0.0, withOpacity(magenta(), 0.95));
        g.setColorAt(0.5, withOpacity(violet(), 0.90));
        g.setColorAt(1.0, withOpacity(ink(), 0.92));
        return g;
    }();
    return gradient;
}

const QLinearGradient& cardGradient()
{
    static const QLinearGradient gradient = [] {
        QLinearGradient g(0, 0, 0, 1);
        g.setCoordinateMode(QGradient::ObjectMode);
        g.setColorAt(0.0, white(0.10));
        g.setColorAt(1.0, white(0.03));
        return g;
    }();
    return gradient;
}

QFont font(double size, QFont::Weight weight)
{
    for (const PreparedFont& prepared : preparedFonts()) {
        if (prepared.size == size && prepared.weight == weight)
            return prepared.font;
    }
    return makeFont(size, weight);
}

QFont font(double size, QFont::Weight weight, double letterSpacing)
{
    QFont result = font(size, weight);
    result.setLetterSpacing(QFont::AbsoluteSpacing, letterSpacing);
    return result;
}

bool registerFonts()
{
    static const bool registered = [] {
#ifdef SORVA_HAVE_URBANIST
        initFontResources();
        const QStringList faces { QStringLiteral(":/fonts/Urbanist_400Regular.ttf"),
                                  QStringLiteral(":/fonts/Urbanist_500Medium.ttf"),
                                  QStringLiteral(":/fonts/Urbanist_600SemiBold.ttf") };
        QStringList failed;
        for (const QString& face : faces) {
            if (QFontDatabase::addApplicationFont(face) < 0)
                failed << face;
        }
        if (failed.isEmpty())
            return true;
        EQLog::trace("font Urbanist could not be registered (" + failed.join(QStringLiteral(", ")).toStdString()
                     + ") — using the toolkit's fallback font");
        return false;
#else
        EQLog::trace("font Urbanist is not bundled in this build — using the toolkit's fallback font");
        return false;
#endif
    }();
    return registered;
}

} // namespace sorva::SORVATheme
