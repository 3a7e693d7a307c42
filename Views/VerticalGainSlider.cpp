#include "Views/VerticalGainSlider.h"

#include "Views/SORVATheme.h"

#include <QFocusEvent>
#include <QFontMetricsF>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QRadialGradient>

#include <algorithm>
#include <cmath>

namespace sorva {

namespace {

// The widest thing above the label is the active knob with its glow; the glow
// also needs room above the track's top when the knob sits there.
constexpr double knobSpan = VerticalGainSlider::activeKnobDiameter + 2 * VerticalGainSlider::glowRadius;
constexpr double topInset = VerticalGainSlider::glowRadius;
constexpr double labelGap = 6;

QFont labelFont()
{
    return SORVATheme::font(10, QFont::Medium);
}

void fillCapsule(QPainter& painter, const QRectF& rect, const QBrush& brush)
{
    QPainterPath path;
    const double radius = std::min(rect.width(), rect.height()) / 2;
    path.addRoundedRect(rect, radius, radius);
    painter.fillPath(path, brush);
}

} // namespace

VerticalGainSlider::VerticalGainSlider(QWidget* parent)
    : QWidget(parent)
{
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void VerticalGainSlider::setGain(double gain)
{
    if (gain == gainValue)
        return;
    gainValue = gain;
    update();
}

void VerticalGainSlider::setLabel(const QString& label)
{
    if (label == labelText)
        return;
    labelText = label;
    updateGeometry();
    update();
}

void VerticalGainSlider::setActive(bool isActive)
{
    if (isActive == active)
        return;
    active = isActive;
    update();
}

void VerticalGainSlider::setDimmed(bool isDimmed)
{
    if (isDimmed == dimmed)
        return;
    dimmed = isDimmed;
    update();
}

void VerticalGainSlider::setTrackSize(double height, double width)
{
    trackHeightValue = std::max(1.0, height);
    trackWidthValue = std::max(1.0, width);
    updateGeometry();
    update();
}

double VerticalGainSlider::normalisedLevel(double gain)
{
    return (gain - minimumGain) / (maximumGain - minimumGain);
}

double VerticalGainSlider::gainAt(double y, double trackHeight)
{
    const double fraction = 1.0 - y / trackHeight;
    if (!(fraction > 0.0))
        return minimumGain;
    const double raw = std::min(1.0, fraction) * (maximumGain - minimumGain) + minimumGain;
    // A position that maps to an exact half (±2.5 dB) arrives here a few ulps
    // off it after the division; noise below a nano-decibel is removed first
    // so that halves round away from zero as they should.
    return std::round(std::round(raw * 1e9) / 1e9);
}

QRectF VerticalGainSlider::trackRect() const
{
    return QRectF((width() - trackWidthValue) / 2.0, topInset, trackWidthValue, trackHeightValue);
}

QSizeF VerticalGainSlider::labelSize() const
{
    const QFontMetricsF metrics(labelFont());
    return QSizeF(metrics.horizontalAdvance(labelText), metrics.height());
}

QSize VerticalGainSlider::sizeHint() const
{
    const QSizeF label = labelSize();
    // A little air beside the label keeps neighbouring labels apart.
    const double width = std::max({ knobSpan, trackWidthValue, label.width() + labelGap });
    const double height = topInset + trackHeightValue + labelSpacing + label.height();
    return QSize(static_cast<int>(std::ceil(width)), static_cast<int>(std::ceil(height)));
}

QSize VerticalGainSlider::minimumSizeHint() const
{
    // The label is never cut: the column is at least as wide as its text.
    return sizeHint();
}

void VerticalGainSlider::paintEvent(QPaintEvent*)
{
    // Dimming fades the control as one picture (the fill over the track does
    // not show through), so it is drawn into a layer first.
    QPixmap layer;
    QPainter direct;
    QPainter* painter = &direct;
    QPainter layered;
    if (dimmed) {
        layer = QPixmap(size() * devicePixelRatioF());
        layer.setDevicePixelRatio(devicePixelRatioF());
        layer.fill(Qt::transparent);
        layered.begin(&layer);
        painter = &layered;
    } else {
        direct.begin(this);
    }
    painter->setRenderHint(QPainter::Antialiasing);

    const QRectF track = trackRect();
    const double level = std::clamp(normalisedLevel(gainValue), 0.0, 1.0);

    fillCapsule(*painter, track, SORVATheme::white(0.1));

    // At -24 dB a round dot of the track's width remains.
    const double fillHeight = std::max(trackWidthValue, trackHeightValue * level);
    const QRectF fill(track.left(), track.bottom() - fillHeight, trackWidthValue, fillHeight);
    QLinearGradient gradient(fill.bottomLeft(), fill.topLeft());
    gradient.setColorAt(0, SORVATheme::violet());
    gradient.setColorAt(1, SORVATheme::magenta());
    fillCapsule(*painter, fill, gradient);

    const double diameter = active ? activeKnobDiameter : knobDiameter;
    const double lift = (trackHeightValue - activeKnobDiameter) * level;
    const QRectF knob(track.center().x() - diameter / 2, track.bottom() - lift - diameter, diameter, diameter);
    if (active) {
        // The glow: magenta at 80 % fading out over 6 beyond the knob's edge.
        QColor glow = SORVATheme::magenta();
        glow.setAlphaF(0.8f);
        QColor clear = glow;
        clear.setAlphaF(0);
        const double outer = diameter / 2 + glowRadius;
        QRadialGradient halo(knob.center(), outer);
        halo.setColorAt(0, glow);
        halo.setColorAt(diameter / 2 / outer, glow);
        halo.setColorAt(1, clear);
        painter->setPen(Qt::NoPen);
        painter->setBrush(halo);
        painter->drawEllipse(knob.center(), outer, outer);
    }
    painter->setPen(Qt::NoPen);
    painter->setBrush(Qt::white);
    painter->drawEllipse(knob);
    if (hasFocus() && keyboardFocus) {
        painter->setBrush(Qt::NoBrush);
        painter->setPen(QPen(SORVATheme::white(0.6), 1));
        painter->drawEllipse(knob.adjusted(-2.5, -2.5, 2.5, 2.5));
    }

    const QSizeF label = labelSize();
    const QRectF labelRect((width() - label.width()) / 2, track.bottom() + labelSpacing, label.width(), label.height());
    painter->setFont(labelFont());
    painter->setPen(SORVATheme::white(active ? 0.9 : 0.5));
    painter->drawText(labelRect, Qt::AlignCenter | Qt::TextSingleLine | Qt::TextDontClip, labelText);

    if (dimmed) {
        layered.end();
        direct.begin(this);
        direct.setOpacity(dimmedOpacity);
        direct.drawPixmap(0, 0, layer);
    }
}

void VerticalGainSlider::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    emit touched();
    const QRectF track = trackRect();
    const QPointF at = event->position();
    // The whole width over the track's height takes a drag, not only the
    // thin capsule.
    if (at.y() >= track.top() && at.y() <= track.bottom()) {
        dragging = true;
        editTo(gainAt(at.y() - track.top(), trackHeightValue));
    }
    event->accept();
}

void VerticalGainSlider::mouseMoveEvent(QMouseEvent* event)
{
    if (!(event->buttons() & Qt::LeftButton)) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    emit touched();
    if (dragging)
        editTo(gainAt(event->position().y() - trackRect().top(), trackHeightValue));
    event->accept();
}

void VerticalGainSlider::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        dragging = false;
    QWidget::mouseReleaseEvent(event);
}

void VerticalGainSlider::keyPressEvent(QKeyEvent* event)
{
    const double whole = std::round(gainValue);
    double next;
    switch (event->key()) {
    case Qt::Key_Up:
    case Qt::Key_Right:
        next = whole + 1;
        break;
    case Qt::Key_Down:
    case Qt::Key_Left:
        next = whole - 1;
        break;
    case Qt::Key_PageUp:
        next = whole + 3;
        break;
    case Qt::Key_PageDown:
        next = whole - 3;
        break;
    case Qt::Key_Home:
        next = minimumGain;
        break;
    case Qt::Key_End:
        next = maximumGain;
        break;
    default:
        QWidget::keyPressEvent(event);
        return;
    }
    emit touched();
    editTo(std::clamp(next, minimumGain, maximumGain));
    event->accept();
}

void VerticalGainSlider::focusInEvent(QFocusEvent* event)
{
    keyboardFocus = event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason
        || event->reason() == Qt::ShortcutFocusReason;
    QWidget::focusInEvent(event);
}

void VerticalGainSlider::focusOutEvent(QFocusEvent* event)
{
    keyboardFocus = false;
    QWidget::focusOutEvent(event);
}

void VerticalGainSlider::editTo(double gain)
{
    if (gain == gainValue)
        return;
    gainValue = gain;
    update();
    emit gainEdited(gain);
}

} // namespace sorva
