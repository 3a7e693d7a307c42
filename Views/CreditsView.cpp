#include "Views/CreditsView.h"

#include "Views/PillButton.h"
#include "Views/SORVALogo.h"
#include "Views/SORVATheme.h"

#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#ifndef SORVA_VERSION
#error "SORVA_VERSION must be defined by the build (the project's version)"
#endif

namespace sorva {

namespace {

constexpr double borderWidth = 1.5;
constexpr const char* maker = "the SORVA authors";

QLabel* secondaryLine(const QString& text, QWidget* parent)
{
    auto* label = new QLabel(text, parent);
    label->setFont(SORVATheme::font(11, QFont::Normal));
    QPalette palette = label->palette();
    // The secondary foreground of a dark appearance.
    palette.setColor(QPalette::WindowText, SORVATheme::white(0.55));
    label->setPalette(palette);
    label->setTextFormat(Qt::PlainText);
    return label;
}

} // namespace

CreditsView::CreditsView(std::function<void()> onClose, QWidget* parent)
    : QWidget(parent)
    , onClose(std::move(onClose))
{
    setFixedWidth(cardWidth);
    setFocusPolicy(Qt::StrongFocus);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(20, 20, 20, 20);
    column->setSpacing(16);

    column->addWidget(new SORVALogo(26, this), 0, Qt::AlignLeft);

    auto* lines = new QVBoxLayout();
    lines->setSpacing(4);
    lines->setContentsMargins(0, 0, 0, 0);
    lines->addWidget(secondaryLine(versionLine(), this));
    lines->addWidget(secondaryLine(makerLine(), this));
    column->addLayout(lines);

    const QFont buttonFont = SORVATheme::font(12, QFont::DemiBold, 1);
    close = new PillButton(QStringLiteral("CLOSE"), buttonFont, this);
    const PillButton::Face face { buttonFont, SORVATheme::ink(), SORVATheme::yellow() };
    close->setFaces(face, face);
    close->setPadding(QMarginsF(10, 10, 10, 10));
    close->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    column->addWidget(close);
    connect(close, &PillButton::clicked, this, [this] {
        if (this->onClose)
            this->onClose();
    });
    setFixedHeight(column->sizeHint().height());
}

QString CreditsView::versionLine()
{
    return QStringLiteral("Version ") + QStringLiteral(SORVA_VERSION);
}

QString CreditsView::makerLine()
{
    return QStringLiteral("Made by ") + QString::fromLatin1(maker);
}

QSize CreditsView::sizeHint() const
{
    return QSize(cardWidth, layout() ? layout()->sizeHint().height() : 0);
}

void CreditsView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    // The border's line is centred on the card's edge; the card is inset by
    // half the line so that the whole line shows inside the widget.
    const QRectF card = QRectF(rect()).adjusted(borderWidth / 2, borderWidth / 2, -borderWidth / 2, -borderWidth / 2);
    QPainterPath shape;
    shape.addRoundedRect(card, cornerRadius, cornerRadius);
    painter.fillPath(shape, SORVATheme::panelGradient());
    painter.setPen(QPen(Qt::black, borderWidth));
    painter.drawPath(shape);
}

void CreditsView::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        if (onClose)
            onClose();
        event->accept();
        return;
    }
    QWidget::keyPressEvent(event);
}

} // namespace sorva
