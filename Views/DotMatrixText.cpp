#include "Views/DotMatrixText.h"

#include <QPainter>

#include <algorithm>
#include <cmath>
#include <map>

namespace sorva {

namespace {

DotMatrixText::Pattern parse(const std::array<const char*, DotMatrixText::glyphRows>& rows)
{
    DotMatrixText::Pattern pattern {};
    for (int r = 0; r < DotMatrixText::glyphRows; ++r) {
        for (int q = 0; q < DotMatrixText::glyphColumns; ++q)
            pattern[r][q] = rows[r][q] == '#' ? 1 : 0;
    }
    return pattern;
}

const std::map<char16_t, DotMatrixText::Pattern>& patterns()
{
    static const std::map<char16_t, DotMatrixText::Pattern> table {
        { u'0', parse({ ".###.", "#...#", "#..##", "#.#.#", "##..#", "#...#", ".###." }) },
        { u'1', parse({ "..#..", ".##..", "..#..", "..#..", "..#..", "..#..", ".###." }) },
        { u'2', parse({ ".###.", "#...#", "....#", "...#.", "..#..", ".#...", "#####" }) },
        { u'3', parse({ "#####", "...#.", "..#..", "...#.", "....#", "#...#", ".###." }) },
        { u'4', parse({ "...#.", "..##.", ".#.#.", "#..#.", "#####", "...#.", "...#." }) },
        { u'5', parse({ "#####", "#....", "####.", "....#", "....#", "#...#", ".###." }) },
        { u'6', parse({ "..##.", ".#...", "#....", "####.", "#...#", "#...#", ".###." }) },
        { u'7', parse({ "#####", "....#", "...#.", "..#..", ".#...", ".#...", ".#..." }) },
        { u'8', parse({ ".###.", "#...#", "#...#", ".###.", "#...#", "#...#", ".###." }) },
        { u'9', parse({ ".###.", "#...#", "#...#", ".####", "....#", "...#.", ".##.." }) },
        { u'+', parse({ ".....", "..#..", "..#..", "#####", "..#..", "..#..", "....." }) },
        { u'-', parse({ ".....", ".....", ".....", "#####", ".....", ".....", "....." }) },
        { u'%', parse({ "##..#", "##.#.", "..#..", "..#..", ".#...", ".#.##", "#..##" }) },
        { u' ', parse({ ".....", ".....", ".....", ".....", ".....", ".....", "....." }) },
    };
    return table;
}

} // namespace

DotMatrixText::DotMatrixText(const QString& text, int cells, double dotSize, double dotSpacing, const QColor& color,
                             QWidget* parent)
    : QWidget(parent)
    , textValue(text)
    , cellCount(std::max(0, cells))
    , dotSizeValue(dotSize)
    , dotSpacingValue(dotSpacing)
    , colorValue(color)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    refit();
}

void DotMatrixText::setText(const QString& text)
{
    if (text == textValue)
        return;
    textValue = text;
    update();
}

void DotMatrixText::setCells(int cells)
{
    cellCount = std::max(0, cells);
    refit();
}

void DotMatrixText::setDotSize(double size)
{
    dotSizeValue = size;
    refit();
}

void DotMatrixText::setDotSpacing(double spacing)
{
    dotSpacingValue = spacing;
    refit();
}

void DotMatrixText::setColor(const QColor& color)
{
    if (color == colorValue)
        return;
    colorValue = color;
    update();
}

const DotMatrixText::Pattern& DotMatrixText::pattern(QChar character)
{
    const auto& table = patterns();
    const auto found = table.find(character.unicode());
    return found != table.end() ? found->second : table.at(u' ');
}

QString DotMatrixText::fitted(const QString& text, int cells)
{
    if (cells <= 0)
        return QString();
    if (text.size() >= cells)
        return text.right(cells);
    return QString(cells - text.size(), QLatin1Char(' ')) + text;
}

QSizeF DotMatrixText::frameSize() const
{
    const double glyphWidth = 5 * dotSizeValue + 4 * dotSpacingValue;
    const double glyphHeight = 7 * dotSizeValue + 6 * dotSpacingValue;
    return QSizeF(cellCount * glyphWidth + 2 * dotSpacingValue * std::max(cellCount - 1, 0), glyphHeight);
}

QSize DotMatrixText::sizeHint() const
{
    const QSizeF frame = frameSize();
    return QSize(static_cast<int>(std::ceil(frame.width())), static_cast<int>(std::ceil(frame.height())));
}

QSize DotMatrixText::minimumSizeHint() const
{
    return sizeHint();
}

void DotMatrixText::refit()
{
    setFixedSize(sizeHint());
    updateGeometry();
    update();
}

void DotMatrixText::paintEvent(QPaintEvent*)
{
    const QString shown = fitted(textValue, cellCount);
    if (shown.isEmpty())
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);

    const double glyphWidth = 5 * dotSizeValue + 4 * dotSpacingValue;
    const double glyphHeight = 7 * dotSizeValue + 6 * dotSpacingValue;
    const double gap = 2 * dotSpacingValue;
    const auto m = static_cast<int>(shown.size());
    const double rowWidth = m * glyphWidth + gap * std::max(m - 1, 0);
    const double x0 = (width() - rowWidth) / 2;
    const double y0 = (height() - glyphHeight) / 2;
    const double step = dotSizeValue + dotSpacingValue;
    QColor faint = colorValue;
    faint.setAlphaF(colorValue.alphaF() * 0.1f);

    for (int k = 0; k < m; ++k) {
        const Pattern& glyph = pattern(shown[k]);
        const double start = x0 + k * (glyphWidth + gap);
        for (int r = 0; r < glyphRows; ++r) {
            for (int q = 0; q < glyphColumns; ++q) {
                painter.setBrush(glyph[r][q] ? colorValue : faint);
                painter.drawEllipse(QRectF(start + q * step, y0 + r * step, dotSizeValue, dotSizeValue));
            }
        }
    }
}

} // namespace sorva
