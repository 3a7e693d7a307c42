// The LED-style spectrum: one column of round dots per level (0 silent … 1
// full), lit from the bottom up; the top fifth of a column lights yellow, the
// rest white 75 %, unlit dots white 8 %. The grid is centred in the widget.
// A level that is not a finite number lights nothing in its column.
//
// Threads: the main thread only.
#pragma once

#include <QSizeF>
#include <QWidget>

#include <vector>

namespace sorva {

class SpectrumView final : public QWidget {
    Q_OBJECT
public:
    explicit SpectrumView(QWidget* parent = nullptr);
    SpectrumView(std::vector<float> levels, int rows, double dotSize, double dotSpacing, QWidget* parent = nullptr);

    const std::vector<float>& levels() const { return levelValues; }
    void setLevels(std::vector<float> levels);
    int rows() const { return rowCount; }
    void setRows(int rows);
    double dotSize() const { return dotSizeValue; }
    void setDotSize(double size);
    double dotSpacing() const { return dotSpacingValue; }
    void setDotSpacing(double spacing);

    // How many dots of a column a level lights: level × rows rounded (halves
    // away from zero) in 32-bit floating point, limited to 0…rows.
    static int litDots(float level, int rows);
    // The dot grid's size for a number of columns.
    QSizeF gridSize(size_t columns) const;

    // Width: the grid of 16 columns (the controller's band count) or of the
    // current levels if more; height: the grid's.
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::vector<float> levelValues;
    int rowCount = 7;
    double dotSizeValue = 3.0;
    double dotSpacingValue = 2.0;
};

} // namespace sorva
