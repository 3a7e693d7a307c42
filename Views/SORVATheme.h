// The panel's shared look: the four brand colours, the two background
// gradients and the "Urbanist" font with its seven prepared size-and-weight
// pairs. Everything is built once, on first use, and never changes.
//
// Sizes are Qt device-independent pixels (a font of size 10 is 10 pixels
// tall, whatever the screen's DPI). Letter spacing is absolute, in the same
// pixels.
//
// Threads: the main thread only (QFont and QGradient are not shared across
// threads here).
#pragma once

#include <QColor>
#include <QFont>
#include <QLinearGradient>

namespace sorva::SORVATheme {

const QColor& magenta(); // "BB2C90"
const QColor& violet(); // "6730DC"
const QColor& yellow(); // "F6D818"
const QColor& ink(); // "000B1A"

// White at the given opacity (0…1), the panel's most common colour.
QColor white(double opacity);

// Top-left to bottom-right through magenta 95 %, violet 90 %, ink 92 %. In
// object-bounding coordinates: it fills whatever rectangle it is painted in.
const QLinearGradient& panelGradient();
// Top to bottom: white 10 % to white 3 %. Object-bounding as well.
const QLinearGradient& cardGradient();

// The font family every view asks for.
inline constexpr const char* fontFamily = "Urbanist";

// The prepared font for the seven pairs (title 22 semibold, band 15 medium,
// button 12 semibold, frequency 11 regular, caption 10 regular, captionBold
// 10 semibold, sliderLabel 10 medium), matched by exact size; any other pair
// gives a new font of that size and weight.
QFont font(double size, QFont::Weight weight = QFont::Normal);
// The same font with absolute letter spacing added.
QFont font(double size, QFont::Weight weight, double letterSpacing);

// Registers the bundled Urbanist faces with the application's font database.
// Call once, after the QGuiApplication exists and before the first view is
// built. Returns whether the faces were registered; when the build found no
// font files, one trace-log line says that the toolkit's fallback is used.
bool registerFonts();

} // namespace sorva::SORVATheme
