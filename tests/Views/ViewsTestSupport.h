// Shared helpers of the view tests: one offscreen QApplication with the
// panel's fonts registered, rendering a widget into an image at a given size,
// and colour comparisons for pixel probes.
#pragma once

#include "Views/SORVATheme.h"

#include <QApplication>
#include <QColor>
#include <QImage>
#include <QWidget>

#include <cmath>
#include <ostream>

namespace sorva::testing {

inline QApplication& viewsApp()
{
    static QApplication* app = [] {
        // Pixel probes need the same rendering everywhere, display or not.
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "sorva_views_tests";
        static char* argv[] = { name, nullptr };
        auto* created = new QApplication(argc, argv);
        SORVATheme::registerFonts();
        return created;
    }();
    return *app;
}

// The widget drawn at size on a transparent image, one pixel per unit.
inline QImage render(QWidget& widget, QSize size)
{
    viewsApp();
    widget.resize(size);
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    widget.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

// Colour channels within tolerance (0…255), alpha included.
inline bool near(const QColor& actual, const QColor& expected, int tolerance = 8)
{
    return std::abs(actual.red() - expected.red()) <= tolerance && std::abs(actual.green() - expected.green()) <= tolerance
        && std::abs(actual.blue() - expected.blue()) <= tolerance
        && std::abs(actual.alpha() - expected.alpha()) <= tolerance;
}

inline QColor withAlpha(QColor color, double alpha)
{
    color.setAlphaF(static_cast<float>(alpha));
    return color;
}

} // namespace sorva::testing

inline void PrintTo(const QColor& color, std::ostream* out)
{
    *out << color.name(QColor::HexArgb).toStdString();
}
