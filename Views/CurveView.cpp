#include "Views/CurveView.h"

#include "Views/SORVATheme.h"
#include "Views/VerticalGainSlider.h"

#include <QPainter>

#include <algorithm>

namespace sorva {

CurveView::CurveView(QWidget* parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void CurveView::setBands(std::vector<EQBand> bands)
{
    bandList = std::move(bands);
    update();
}

void CurveView::setActive(int index)
{
    if (index == activeIndex)
        return;
    activeIndex = index;
    update();
}

QPointF CurveView::bandPoint(size_t index, size_t count, double gain, QSizeF canvas)
{
    const double x = canvas.width() * (static_cast<double>(index) + 0.5) / static_cast<double>(count);
    const double y = canvas.height() * (1.0 - VerticalGainSlider::normalisedLevel(gain));
    return QPointF(x, y);
}

QSize CurveView::sizeHint() const
{
    return QSize(280, 30);
}

QSize CurveView::minimumSizeHint() const
{
    return QSize(0, 30);
}

void CurveView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QSizeF canvas = size();

    painter.setPen(QPen(SORVATheme::white(0.15), 1));
    painter.drawLine(QPointF(0, canvas.height() / 2), QPointF(canvas.width(), canvas.height() / 2));

    const size_t n = bandList.size();
    if (n < 2)
        return;

    std::vector<QPointF> points;
    points.reserve(n);
    for (size_t i = 0; i < n; ++i)
        points.push_back(bandPoint(i, n, bandList[i].gain, canvas));

    painter.setPen(Qt::NoPen);
    painter.setBrush(SORVATheme::yellow());
    const double first = points.front().x();
    const double last = points.back().x();
    // x is first + k × step rather than a running sum, so that the last dot
    // lands where it should on any width.
    for (int k = 0;; ++k) {
        const double x = first + k * dotStep;
        if (x > last)
            break;
        double y = points.front().y();
        if (x > first) {
            for (size_t i = 0; i + 1 < n; ++i) {
                const QPointF& a = points[i];
                const QPointF& b = points[i + 1];
                if (x <= b.x()) {
                    y = a.y() + (x - a.x()) / std::max(b.x() - a.x(), 0.0001) * (b.y() - a.y());
                    break;
                }
            }
        }
        painter.drawEllipse(QPointF(x, y), dotDiameter / 2, dotDiameter / 2);
    }

    if (activeIndex >= 0 && static_cast<size_t>(activeIndex) < n) {
        painter.setBrush(Qt::white);
        painter.drawEllipse(points[static_cast<size_t>(activeIndex)], markerDiameter / 2, markerDiameter / 2);
    }
}

} // namespace sorva
