#include "Views/PillButton.h"

#include <QFocusEvent>
#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace sorva {

PillButton::PillButton(const QString& text, const QFont& font, QWidget* parent)
    : QAbstractButton(parent)
{
    setText(text);
    normalFace = { font, Qt::white, Qt::transparent };
    selectedFace = normalFace;
    setFont(font);
    // Mouse clicks leave the keyboard focus where it was; Tab still reaches
    // the button, which then shows a focus ring.
    setFocusPolicy(Qt::TabFocus);
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void PillButton::setFaces(const Face& normal, const Face& selectedLook)
{
    normalFace = normal;
    selectedFace = selectedLook;
    setFont(face().font);
    updateGeometry();
    update();
}

void PillButton::setPadding(const QMarginsF& padding)
{
    if (padding == paddingValue)
        return;
    paddingValue = padding;
    updateGeometry();
    update();
}

void PillButton::setSelected(bool isSelected)
{
    if (isSelected == selected)
        return;
    selected = isSelected;
    setFont(face().font);
    update();
}

void PillButton::focusInEvent(QFocusEvent* event)
{
    keyboardFocus = event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason
        || event->reason() == Qt::ShortcutFocusReason;
    QAbstractButton::focusInEvent(event);
}

void PillButton::focusOutEvent(QFocusEvent* event)
{
    keyboardFocus = false;
    QAbstractButton::focusOutEvent(event);
}

QSizeF PillButton::textSize() const
{
    const QFont& font = face().font;
    const QFontMetricsF metrics(font);
    // Letter spacing is added after every letter, the last one included; the
    // word itself ends at its last letter.
    return QSizeF(metrics.horizontalAdvance(text()) - font.letterSpacing(), metrics.height());
}

QSize PillButton::sizeHint() const
{
    const QSizeF textArea = textSize();
    return QSize(static_cast<int>(std::ceil(textArea.width() + paddingValue.left() + paddingValue.right())),
                 static_cast<int>(std::ceil(textArea.height() + paddingValue.top() + paddingValue.bottom())));
}

QSize PillButton::minimumSizeHint() const
{
    return sizeHint();
}

void PillButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const Face& look = face();
    const QRectF bounds(rect());
    const double radius = bounds.height() / 2;
    QPainterPath capsule;
    capsule.addRoundedRect(bounds, radius, radius);
    painter.fillPath(capsule, look.fill);
    if (isDown())
        painter.fillPath(capsule, QColor(0, 0, 0, 40));
    if (hasFocus() && keyboardFocus) {
        painter.setPen(QPen(QColor(255, 255, 255, 150), 1));
        painter.drawRoundedRect(bounds.adjusted(0.5, 0.5, -0.5, -0.5), radius - 0.5, radius - 0.5);
    }

    // Centred on the word itself, not on the word plus its trailing spacing.
    const QSizeF textArea = textSize();
    const QRectF textRect((bounds.width() - textArea.width()) / 2, (bounds.height() - textArea.height()) / 2,
                          textArea.width() + look.font.letterSpacing(), textArea.height());
    painter.setFont(look.font);
    painter.setPen(look.text);
    painter.drawText(textRect, Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine | Qt::TextDontClip, text());
}

} // namespace sorva
