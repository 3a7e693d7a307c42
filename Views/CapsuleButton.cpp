#include "Views/CapsuleButton.h"

#include <QFontMetricsF>
#include <QPainter>

#include <cmath>

namespace sorva {

CapsuleButton::CapsuleButton(const QString& text, Look look, QWidget* parent)
    : QAbstractButton(parent)
    , look(look)
{
    setText(text);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
}

void CapsuleButton::setColors(const QColor& text, const QColor& capsule)
{
    textColor = text;
    capsuleColor = capsule;
    update();
}

void CapsuleButton::setPadding(const QMargins& newPadding)
{
    padding = newPadding;
    updateGeometry();
}

QSize CapsuleButton::sizeHint() const
{
    const QFontMetricsF metrics(font());
    // Letter spacing is added after every character, the last one included.
    const qreal width = metrics.horizontalAdvance(text());
    return { static_cast<int>(std::ceil(width)) + padding.left() + padding.right(),
        static_cast<int>(std::ceil(metrics.height())) + padding.top() + padding.bottom() };
}

QSize CapsuleButton::minimumSizeHint() const
{
    return sizeHint();
}

void CapsuleButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!isEnabled())
        painter.setOpacity(0.4);
    const QRectF area = rect();
    const qreal radius = area.height() / 2;
    if (look == Look::filled) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(isDown() ? capsuleColor.darker(115) : capsuleColor);
        painter.drawRoundedRect(area, radius, radius);
    } else if (look == Look::outlined) {
        // The line is centred on the edge; half of it falls outside the
        // widget and is clipped, as with a stroked shape at its frame.
        painter.setPen(QPen(capsuleColor, 1));
        painter.setBrush(isDown() ? QColor(255, 255, 255, 20) : QColor(Qt::transparent));
        painter.drawRoundedRect(area, radius, radius);
    }
    QColor color = textColor;
    if (look == Look::plain && (underMouse() || hasFocus()))
        color.setAlphaF(std::min(1.0f, color.alphaF() + 0.3f));
    painter.setPen(color);
    painter.setFont(font());
    // Letter spacing trails the last character: shift by half of it to centre
    // the visible glyphs.
    const qreal trailing = font().letterSpacing();
    painter.drawText(area.translated(trailing / 2, 0), Qt::AlignCenter, text());
}

} // namespace sorva
