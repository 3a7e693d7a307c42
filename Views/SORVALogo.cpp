#include "Views/SORVALogo.h"

#include "Views/SORVATheme.h"

#include <QFile>
#include <QFontMetricsF>
#include <QPainter>
#include <QSvgRenderer>

#include <cmath>

// The views' own resources (the logo) are compiled into this static library;
// their initialiser must be called or the linker drops them.
static void initViewResources()
{
    Q_INIT_RESOURCE(sorva_views);
}

namespace sorva {

namespace {

QFont fallbackFont()
{
    return SORVATheme::font(22, QFont::DemiBold, 2);
}

const QString fallbackText = QStringLiteral("SORVA");

} // namespace

SORVALogo::SORVALogo(double height, QWidget* parent)
    : SORVALogo(height, QString::fromLatin1(defaultResource), parent)
{
}

SORVALogo::SORVALogo(double height, const QString& resource, QWidget* parent)
    : QWidget(parent)
    , heightValue(height)
{
    static const bool resourcesReady = (initViewResources(), true);
    (void)resourcesReady;
    if (QFile::exists(resource)) {
        auto loaded = std::make_unique<QSvgRenderer>(resource);
        if (loaded->isValid() && !loaded->viewBoxF().isEmpty()) {
            loaded->setAspectRatioMode(Qt::KeepAspectRatio);
            renderer = std::move(loaded);
        }
    }
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setAccessibleName(fallbackText);
}

SORVALogo::~SORVALogo() = default;

void SORVALogo::setLogoHeight(double height)
{
    heightValue = height;
    updateGeometry();
    update();
}

bool SORVALogo::showsImage() const
{
    return renderer != nullptr;
}

QSize SORVALogo::sizeHint() const
{
    if (renderer) {
        const QSizeF box = renderer->viewBoxF().size();
        const double width = heightValue * box.width() / box.height();
        return QSize(static_cast<int>(std::ceil(width)), static_cast<int>(std::ceil(heightValue)));
    }
    const QFont font = fallbackFont();
    const QFontMetricsF metrics(font);
    // The spacing after the last letter is not part of the word.
    const double width = metrics.horizontalAdvance(fallbackText) - font.letterSpacing();
    return QSize(static_cast<int>(std::ceil(width)), static_cast<int>(std::ceil(metrics.height())));
}

QSize SORVALogo::minimumSizeHint() const
{
    return sizeHint();
}

void SORVALogo::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (renderer) {
        const QSize hint = sizeHint();
        renderer->render(&painter, QRectF(0, (height() - heightValue) / 2, hint.width(), heightValue));
        return;
    }
    painter.setFont(fallbackFont());
    painter.setPen(Qt::white);
    painter.drawText(QRectF(rect()), Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine | Qt::TextDontClip,
                     fallbackText);
}

} // namespace sorva
