#include "Views/CreditsOverlay.h"

#include <QGridLayout>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

namespace sorva {

CreditsOverlay::CreditsOverlay(QWidget* card, QWidget* parent)
    : QWidget(parent)
    , card(card)
{
    setObjectName(QStringLiteral("creditsOverlay"));
    setFocusPolicy(Qt::StrongFocus);
    auto* layout = new QGridLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->addWidget(card, 0, 0, Qt::AlignCenter);
}

void CreditsOverlay::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), QColor(0, 0, 0, qRound(0.55 * 255)));
}

void CreditsOverlay::mousePressEvent(QMouseEvent* event)
{
    // Presses on the card reach the card; only the backdrop gets here.
    if (!card->geometry().contains(event->position().toPoint()))
        emit closeRequested();
    event->accept();
}

void CreditsOverlay::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        emit closeRequested();
        event->accept();
        return;
    }
    QWidget::keyPressEvent(event);
}

} // namespace sorva
