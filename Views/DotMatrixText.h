// A short text (the active band's gain, such as +6 or -12) in a 5 × 7 dot
// font, right-aligned in a fixed number of character cells: only the text's
// last `cells` characters show, padded with spaces in front. Every dot of
// every cell is drawn: lit ones in the colour, unlit ones in the same colour
// at 10 %. Characters outside the glyph table ("0"-"9", "+", "-", "%", " ")
// show as a blank cell.
//
// The widget's size is fixed by its values: cells × glyph width + 2 × spacing
// between cells, by the glyph height.
//
// Threads: the main thread only.
#pragma once

#include <QColor>
#include <QSizeF>
#include <QString>
#include <QWidget>

#include <array>
#include <cstdint>

namespace sorva {

class DotMatrixText final : public QWidget {
    Q_OBJECT
public:
    static constexpr int glyphRows = 7;
    static constexpr int glyphColumns = 5;
    // 7 rows, top to bottom, of 5 columns, left to right; 1 = lit.
    using Pattern = std::array<std::array<uint8_t, glyphColumns>, glyphRows>;

    DotMatrixText(const QString& text, int cells, double dotSize, double dotSpacing, const QColor& color,
                  QWidget* parent = nullptr);

    const QString& text() const { return textValue; }
    void setText(const QString& text);
    int cells() const { return cellCount; }
    void setCells(int cells);
    double dotSize() const { return dotSizeValue; }
    void setDotSize(double size);
    double dotSpacing() const { return dotSpacingValue; }
    void setDotSpacing(double spacing);
    const QColor& color() const { return colorValue; }
    void setColor(const QColor& color);

    // The character's pattern; the blank pattern of " " for any character
    // not in the table.
    static const Pattern& pattern(QChar character);
    // The text as shown: its last `cells` characters, spaces in front.
    static QString fitted(const QString& text, int cells);

    // The exact frame: 78.1 × 34.1 with 3 cells, dot size 3.5, spacing 1.6.
    QSizeF frameSize() const;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void refit();

    QString textValue;
    int cellCount;
    double dotSizeValue;
    double dotSpacingValue;
    QColor colorValue;
};

} // namespace sorva
