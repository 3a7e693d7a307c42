#include "Views/GlassBackground.h"

#include "Platform/DesktopCompositor.h"
#include "Views/PanelWindowStyler.h"
#include "Views/SORVATheme.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWindow>

namespace sorva {

namespace {

QPainterPath roundedShape(const QRectF& rect)
{
    QPainterPath path;
    path.addRoundedRect(rect, PanelWindowStyler::cornerRadius, PanelWindowStyler::cornerRadius);
    return path;
}

} // namespace

GlassBackground::GlassBackground(int material, QWidget* parent)
    : QWidget(parent)
    , materialValue(material)
{
    setObjectName(QString::fromLatin1(identifier));
    // Only the panel's content takes input; the glass is behind it.
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAutoFillBackground(false);
}

double GlassBackground::cornerRadius() const
{
    return PanelWindowStyler::cornerRadius;
}

void GlassBackground::setMaterial(int material)
{
    materialValue = material;
    update();
}

void GlassBackground::paintEvent(QPaintEvent*)
{
    // The same rounded rectangle as the panel's border and clip, so that the
    // window's corners stay transparent.
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillPath(roundedShape(QRectF(rect())), SORVATheme::panelGradient());
}

bool GlassBackground::event(QEvent* event)
{
    const bool handled = QWidget::event(event);
    switch (event->type()) {
    case QEvent::Show:
    case QEvent::Resize:
    case QEvent::Move:
    case QEvent::WinIdChange:
    case QEvent::ParentChange:
        requestBlur();
        break;
    default:
        break;
    }
    return handled;
}

void GlassBackground::requestBlur()
{
    if (!isVisible())
        return;
    QWidget* top = window();
    QWindow* handle = top->windowHandle();
    if (!handle)
        return;
    // The blurred region is the glass's rounded shape in window coordinates.
    const QRect area(mapTo(top, QPoint(0, 0)), size());
    const QRegion region(roundedShape(QRectF(area)).toFillPolygon().toPolygon());
    blurActive = DesktopCompositor::requestBlurBehind(handle, region);
}

} // namespace sorva
