#include "App/PanelWindow.h"

#include <QCursor>
#include <QEvent>
#include <QGuiApplication>
#include <QPalette>
#include <QScreen>
#include <QVBoxLayout>

#include <algorithm>

namespace sorva {

namespace {

// A focus loss this recent means the click that caused it was the toggle.
constexpr qint64 reopenGuardMs = 300;

bool compositorPlacesWindows()
{
    return QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

} // namespace

PanelWindow::PanelWindow(QWidget* content, Kind kind, QWidget* parent)
    : QWidget(parent)
    , windowKind(kind)
{
    setObjectName(QStringLiteral("panelWindow"));
    setWindowTitle(QStringLiteral("SORVA"));
    if (kind == Kind::trayPanel) {
        setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
        setAttribute(Qt::WA_TranslucentBackground);
    } else {
        setWindowFlags(Qt::Window | Qt::MSWindowsFixedSizeDialogHint);
        // Around the panel's rounded glass: the brand's ink, not the
        // desktop theme's grey.
        QPalette palette = this->palette();
        palette.setColor(QPalette::Window, QColor(0x00, 0x0B, 0x1A));
        setPalette(palette);
        setAutoFillBackground(true);
    }
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->addWidget(content);
}

QPoint PanelWindow::placement(const QRect& anchor, QSize size, const QRect& available)
{
    const bool below = anchor.center().y() < available.center().y();
    int x = anchor.center().x() - size.width() / 2;
    int y = below ? anchor.bottom() + 1 + anchorGap : anchor.top() - anchorGap - size.height();
    // Inside the screen, the top-left corner winning when the panel is larger.
    x = std::max(available.left(), std::min(x, available.right() + 1 - size.width()));
    y = std::max(available.top(), std::min(y, available.bottom() + 1 - size.height()));
    return { x, y };
}

void PanelWindow::toggle(const QRect& anchor)
{
    if (isVisible()) {
        hide();
        return;
    }
    if (autoHidden.isValid() && autoHidden.elapsed() < reopenGuardMs) {
        autoHidden.invalidate();
        return;
    }
    open(anchor);
}

void PanelWindow::open(const QRect& anchor)
{
    if (!isVisible() && windowKind == Kind::trayPanel && !compositorPlacesWindows()) {
        const QRect where = anchor.isValid() ? anchor : QRect(QCursor::pos(), QSize(1, 1));
        QScreen* screen = QGuiApplication::screenAt(where.center());
        if (!screen)
            screen = QGuiApplication::primaryScreen();
        adjustSize();
        if (screen)
            move(placement(where, sizeHint().expandedTo(size()), screen->availableGeometry()));
    }
    show();
    raise();
    activateWindow();
}

void PanelWindow::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    emit shown();
}

void PanelWindow::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    emit hidden();
}

void PanelWindow::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (windowKind == Kind::trayPanel && event->type() == QEvent::ActivationChange && !isActiveWindow()
        && isVisible()) {
        autoHidden.start();
        hide();
    }
}

} // namespace sorva
