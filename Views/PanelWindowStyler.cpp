#include "Views/PanelWindowStyler.h"

#include "Audio/EQLog.h"
#include "Platform/DesktopCompositor.h"
#include "Views/GlassBackground.h"
#include "Views/SORVATheme.h"

#include <QEvent>
#include <QFrame>
#include <QPainterPath>
#include <QPalette>
#include <QSet>
#include <QVariant>

#include <functional>

namespace sorva {

namespace {

QPalette darkPalette()
{
    QPalette palette;
    const QColor window(0x1E, 0x1A, 0x2A);
    const QColor base(0x15, 0x12, 0x1E);
    const QColor text(0xEE, 0xEE, 0xF2);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::ToolTipBase, base);
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, QColor(0x8A, 0x86, 0x96));
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, QColor(0x2A, 0x25, 0x38));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::BrightText, SORVATheme::yellow());
    palette.setColor(QPalette::Highlight, SORVATheme::magenta());
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, SORVATheme::yellow());
    palette.setColor(QPalette::Disabled, QPalette::Text, QColor(0x70, 0x6C, 0x7C));
    palette.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x70, 0x6C, 0x7C));
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x70, 0x6C, 0x7C));
    return palette;
}

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

QString sizeText(const QSize& size)
{
    return QString::number(size.width()) + QLatin1Char('x') + QString::number(size.height());
}

bool isGlass(const QWidget* widget)
{
    return widget->objectName() == QLatin1String(GlassBackground::identifier);
}

} // namespace

PanelWindowStyler::PanelWindowStyler(QWidget* parent)
    : QWidget(parent)
{
    setObjectName(QStringLiteral("sorva-window-styler"));
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
    setFocusPolicy(Qt::NoFocus);
    setFixedSize(0, 0);
    scheduleStyle();
}

bool PanelWindowStyler::event(QEvent* event)
{
    switch (event->type()) {
    case QEvent::Show:
    case QEvent::Polish:
    case QEvent::ParentChange:
        scheduleStyle();
        break;
    default:
        break;
    }
    return QWidget::event(event);
}

void PanelWindowStyler::scheduleStyle()
{
    if (scheduled)
        return;
    scheduled = true;
    // One turn of the event loop later the styler sits in its final window.
    // The call is dropped with the styler if it goes away first.
    QMetaObject::invokeMethod(
        this,
        [this] {
            scheduled = false;
            styleWindow();
        },
        Qt::QueuedConnection);
}

void PanelWindowStyler::styleWindow()
{
    QWidget* root = window();
    if (root == this)
        return;

    if (qgetenv("SORVA_INSPECT") == "1") {
        for (const QString& line : describeTree(root))
            EQLog::trace(line.toStdString());
    }

    // Window level: frameless, translucent, dark. Translucency is set before
    // the flags so that a window recreated by the flag change gets an alpha
    // channel. The compositor's own shadow is kept (NoDropShadowWindowHint is
    // never set).
    root->setAttribute(Qt::WA_TranslucentBackground);
    root->setAttribute(Qt::WA_NoSystemBackground);
    root->setAttribute(Qt::WA_OpaquePaintEvent, false);
    root->setAutoFillBackground(false);
    const Qt::WindowFlags flags = (root->windowFlags() | Qt::FramelessWindowHint) & ~Qt::NoDropShadowWindowHint;
    if (flags != root->windowFlags()) {
        const bool wasVisible = root->isVisible();
        root->setWindowFlags(flags);
        if (wasVisible)
            root->show();
    }
    root->setPalette(darkPalette());

    // Corners: the panel paints them antialiased over a transparent window;
    // only without a compositor that blends alpha do they need a mask.
    if (DesktopCompositor::blendsAlpha() || !root->isWindow()) {
        root->clearMask();
    } else {
        QPainterPath shape;
        shape.addRoundedRect(QRectF(root->rect()), cornerRadius, cornerRadius);
        root->setMask(QRegion(shape.toFillPolygon().toPolygon()));
    }

    QSet<const QWidget*> ancestors;
    for (const QWidget* up = parentWidget(); up; up = up->parentWidget())
        ancestors.insert(up);

    QList<QWidget*> tree = root->findChildren<QWidget*>();
    tree.prepend(root);
    for (QWidget* widget : tree) {
        // No borders anywhere: frames are the toolkit's own chrome.
        if (auto* frame = qobject_cast<QFrame*>(widget); frame && frame->frameShape() != QFrame::NoFrame)
            frame->setFrameShape(QFrame::NoFrame);
        if (widget == this || isGlass(widget) || ancestors.contains(widget))
            continue;
        // A foreign background: the widget fills itself with the palette's
        // window colour, which would cover the glass.
        if (widget->autoFillBackground())
            widget->setAutoFillBackground(false);
    }
    ++styled;
}

QStringList PanelWindowStyler::describeTree(const QWidget* window)
{
    QStringList lines;
    const bool translucent = window->testAttribute(Qt::WA_TranslucentBackground);
    const QColor background = translucent && !window->autoFillBackground()
        ? QColor(Qt::transparent)
        : window->palette().color(QPalette::Window);
    QString description = QString::fromLatin1(window->metaObject()->className());
    if (!window->objectName().isEmpty())
        description += QStringLiteral(" \"") + window->objectName() + QLatin1Char('"');
    if (!window->windowTitle().isEmpty())
        description += QStringLiteral(" title=\"") + window->windowTitle() + QLatin1Char('"');
    description += QLatin1Char(' ') + sizeText(window->size()) + QStringLiteral(" at ")
        + QString::number(window->x()) + QLatin1Char(',') + QString::number(window->y());
    lines << QStringLiteral("window ") + description + QStringLiteral(" opaque=") + boolText(!translucent)
            + QStringLiteral(" bg=") + background.name(QColor::HexArgb);

    std::function<void(const QWidget*, int)> visit = [&](const QWidget* widget, int depth) {
        QString line(depth * 2, QLatin1Char(' '));
        line += QString::fromLatin1(widget->metaObject()->className());
        line += QStringLiteral(" frame=") + sizeText(widget->size());
        // The rounded widgets say their radius; the window is rounded by the
        // styler.
        QVariant corner = widget->property("cornerRadius");
        if (!corner.isValid() && widget == window)
            corner = cornerRadius;
        if (corner.isValid())
            line += QStringLiteral(" corner=") + QString::number(corner.toDouble());
        int children = 0;
        for (const QObject* child : widget->children())
            children += child->isWidgetType() ? 1 : 0;
        line += QStringLiteral(" sublayers=") + QString::number(children);
        lines << line;
        for (const QObject* child : widget->children()) {
            if (child->isWidgetType())
                visit(static_cast<const QWidget*>(child), depth + 1);
        }
    };
    visit(window, 0);
    return lines;
}

} // namespace sorva
