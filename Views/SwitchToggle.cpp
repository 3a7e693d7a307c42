#include "Views/SwitchToggle.h"

#include <QPainter>
#include <QPainterPath>

namespace sorva {

SwitchToggle::SwitchToggle(QWidget* parent)
    : QAbstractButton(parent)
    , tint(Qt::yellow)
{
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void SwitchToggle::setTint(const QColor& color)
{
    tint = color;
    update();
}

QSize SwitchToggle::sizeHint() const
{
    return { trackWidth, trackHeight };
}

void SwitchToggle::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    const qreal radius = track.height() / 2;
    QColor fill = isChecked() ? tint : QColor(255, 255, 255, 46);
    if (!isEnabled())
        fill.setAlphaF(fill.alphaF() * 0.5f);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(track, radius, radius);

    const qreal inset = 2;
    const qreal knob = track.height() - 2 * inset;
    const qreal x = isChecked() ? track.right() - inset - knob : track.left() + inset;
    painter.setBrush(QColor(0, 0, 0, 60));
    painter.drawEllipse(QRectF(x, track.top() + inset + 0.6, knob, knob));
    painter.setBrush(Qt::white);
    painter.drawEllipse(QRectF(x, track.top() + inset, knob, knob));

    if (hasFocus()) {
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(QColor(255, 255, 255, 120), 1));
        painter.drawRoundedRect(track, radius, radius);
    }
}

} // namespace sorva
