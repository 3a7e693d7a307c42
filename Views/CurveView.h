// The strip under the spectrum that sketches the equalizer setting: a faint
// midline (0 dB), a dotted yellow line through the band gains (a dot every 6
// pixels along a piecewise-linear line through the band points, which sit
// centred in n equal columns like the sliders below) and a white dot on the
// active band. It sketches the setting; it does not evaluate the filters.
//
// Fills the size its parent gives it; the panel gives it the card's width and
// a height of 30.
//
// Threads: the main thread only.
#pragma once

#include "Models/EQBand.h"

#include <QPointF>
#include <QWidget>

#include <vector>

namespace sorva {

class CurveView final : public QWidget {
    Q_OBJECT
public:
    static constexpr double dotStep = 6.0;
    static constexpr double dotDiameter = 3.2;
    static constexpr double markerDiameter = 6.0;

    explicit CurveView(QWidget* parent = nullptr);

    const std::vector<EQBand>& bands() const { return bandList; }
    void setBands(std::vector<EQBand> bands);
    int active() const { return activeIndex; }
    void setActive(int index);

    // The i-th band's point on a canvas of the given size.
    static QPointF bandPoint(size_t index, size_t count, double gain, QSizeF canvas);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::vector<EQBand> bandList;
    int activeIndex = 0;
};

} // namespace sorva
