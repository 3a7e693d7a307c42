#include "Views/SpectrumView.h"

#include "Audio/EQController.h"
#include "Views/SORVATheme.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

namespace sorva {

SpectrumView::SpectrumView(QWidget* parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

SpectrumView::SpectrumView(std::vector<float> levels, int rows, double dotSize, double dotSpacing, QWidget* parent)
    : SpectrumView(parent)
{
    levelValues = std::move(levels);
    rowCount = std::max(0, rows);
    dotSizeValue = dotSize;
    dotSpacingValue = dotSpacing;
}

void SpectrumView::setLevels(std::vector<float> levels)
{
    levelValues = std::move(levels);
    update();
}

void SpectrumView::setRows(int rows)
{
    rowCount = std::max(0, rows);
    updateGeometry();
    update();
}

void SpectrumView::setDotSize(double size)
{
    dotSizeValue = size;
    updateGeometry();
    update();
}

void SpectrumView::setDotSpacing(double spacing)
{
    dotSpacingValue = spacing;
    updateGeometry();
    update();
}

int SpectrumView::litDots(float level, int rows)
{
    if (!std::isfinite(level) || rows <= 0)
        return 0;
    const float scaled = std::round(level * static_cast<float>(rows));
    if (scaled <= 0.0f)
        return 0;
    if (scaled >= static_cast<float>(rows))
        return rows;
    return static_cast<int>(scaled);
}

QSizeF SpectrumView::gridSize(size_t columns) const
{
    const auto n = static_cast<double>(columns);
    const auto rows = static_cast<double>(rowCount);
    return QSizeF(dotSizeValue * n + dotSpacingValue * std::max(n - 1, 0.0),
                  dotSizeValue * rows + dotSpacingValue * std::max(rows - 1, 0.0));
}

QSize SpectrumView::sizeHint() const
{
    const QSizeF grid = gridSize(std::max<size_t>(levelValues.size(), EQController::spectrumBandCount));
    return QSize(static_cast<int>(std::ceil(grid.width())), static_cast<int>(std::ceil(grid.height())));
}

void SpectrumView::paintEvent(QPaintEvent*)
{
    const size_t n = levelValues.size();
    if (n == 0 || rowCount <= 0)
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);

    const QSizeF grid = gridSize(n);
    const double x0 = (width() - grid.width()) / 2;
    const double y0 = (height() - grid.height()) / 2;
    const double step = dotSizeValue + dotSpacingValue;
    const QColor unlit = SORVATheme::white(0.08);
    const QColor lower = SORVATheme::white(0.75);
    const QColor& upper = SORVATheme::yellow();

    for (size_t i = 0; i < n; ++i) {
        const int lit = litDots(levelValues[i], rowCount);
        for (int j = 0; j < rowCount; ++j) {
            // r counts from the bottom: the bottom dot is 1, the top one rows.
            const int r = rowCount - j;
            const QColor& color = r > lit ? unlit
                : static_cast<double>(r) / rowCount > 0.8 ? upper
                                                          : lower;
            painter.setBrush(color);
            painter.drawEllipse(QRectF(x0 + static_cast<double>(i) * step, y0 + j * step, dotSizeValue, dotSizeValue));
        }
    }
}

} // namespace sorva
