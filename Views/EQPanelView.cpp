#include "Views/EQPanelView.h"

#include "Models/EQPresets.h"
#include "Models/LoginItem.h"
#include "Views/CapsuleButton.h"
#include "Views/ColorHex.h"
#include "Views/CreditsOverlay.h"
#include "Views/CreditsView.h"
#include "Views/CurveView.h"
#include "Views/DotMatrixText.h"
#include "Views/GlassBackground.h"
#include "Views/PanelWindowStyler.h"
#include "Views/PillButton.h"
#include "Views/PresetPills.h"
#include "Views/SORVALogo.h"
#include "Views/SORVATheme.h"
#include "Views/SpectrumView.h"
#include "Views/SwitchToggle.h"
#include "Views/VerticalGainSlider.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QProcess>
#include <QSlider>
#include <QStandardPaths>
#include <QUrl>
#include <QVBoxLayout>

#include <cmath>
#include <cstdio>

namespace sorva {

namespace {

QColor white(double opacity)
{
    return SORVATheme::white(opacity);
}

QString cssColor(const QColor& color)
{
    return QStringLiteral("rgba(%1,%2,%3,%4)")
        .arg(color.red())
        .arg(color.green())
        .arg(color.blue())
        .arg(color.alphaF(), 0, 'f', 3);
}

QFont panelFont(int size, QFont::Weight weight, qreal letterSpacing = 0)
{
    return letterSpacing != 0 ? SORVATheme::font(size, weight, letterSpacing) : SORVATheme::font(size, weight);
}

// The readout card: a rounded rectangle of radius 22 filled with the card
// gradient behind its rows.
class ReadoutCard final : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterPath shape;
        shape.addRoundedRect(QRectF(rect()), 22, 22);
        painter.fillPath(shape, SORVATheme::cardGradient());
    }
};

// The panel's black outline, drawn over the content along the rounded edge;
// the half of the line outside the edge is clipped away. Lets every click
// through.
class PanelOutline final : public QWidget {
public:
    explicit PanelOutline(QWidget* parent)
        : QWidget(parent)
    {
        setAttribute(Qt::WA_TransparentForMouseEvents);
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterPath shape;
        shape.addRoundedRect(QRectF(rect()), 12, 12);
        painter.setClipPath(shape);
        painter.setPen(QPen(Qt::black, 1.5));
        painter.drawPath(shape);
    }
};

QLabel* makeLabel(const QString& text, const QFont& font, const QColor& color, QWidget* parent)
{
    auto* label = new QLabel(text, parent);
    label->setFont(font);
    label->setStyleSheet(QStringLiteral("color: %1; background: transparent;").arg(cssColor(color)));
    return label;
}

QWidget* padded(QWidget* row, int bottom, QWidget* parent, int top = 0)
{
    auto* box = new QWidget(parent);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, top, 0, bottom);
    layout->setSpacing(0);
    layout->addWidget(row);
    return box;
}

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

} // namespace

// --- Texts and colours -------------------------------------------------------

QString EQPanelView::presetSuffix(const std::vector<EQBand>& bands)
{
    const auto preset = EQPresets::matching(bands);
    if (!preset)
        return {};
    return text(" \u00B7 ") + QString::fromStdString(preset->name).toUpper();
}

QString EQPanelView::statusText(const EQController::Status& status, const QString& diagnostics,
    const std::vector<EQBand>& bands)
{
    using Case = EQController::Status::Case;
    switch (status.kind) {
    case Case::off:
        return text("Off \u2014 audio untouched") + presetSuffix(bands);
    case Case::starting:
        return text("Starting\u2026") + presetSuffix(bands);
    case Case::idle:
        return diagnostics + presetSuffix(bands);
    case Case::capturing:
        if (status.glitches < 1)
            return diagnostics + presetSuffix(bands);
        return diagnostics + text(" \u00B7 ") + QString::number(status.glitches) + QStringLiteral(" glitches/s")
            + presetSuffix(bands);
    case Case::permissionDenied:
        return text("Needs \u201CScreen & System Audio Recording\u201D permission");
    case Case::failed:
        return QString::fromStdString(status.message);
    }
    return {};
}

QColor EQPanelView::statusColor(const EQController::Status& status)
{
    using Case = EQController::Status::Case;
    switch (status.kind) {
    case Case::capturing:
        return SORVATheme::yellow();
    case Case::failed:
    case Case::permissionDenied:
        return colorFromHex("FF5A5A");
    case Case::starting:
    case Case::idle:
        return white(0.4);
    case Case::off:
        return white(0.25);
    }
    return white(0.25);
}

QString EQPanelView::frequencyLabel(double frequency)
{
    char buffer[64];
    if (frequency >= 1000)
        std::snprintf(buffer, sizeof buffer, "%.0f kHz", frequency / 1000);
    else
        std::snprintf(buffer, sizeof buffer, "%.0f Hz", frequency);
    return QString::fromUtf8(buffer);
}

QString EQPanelView::gainText(double gain)
{
    const long long whole = static_cast<long long>(std::trunc(gain));
    return whole < 0 ? QStringLiteral("-%1").arg(-whole) : QStringLiteral("+%1").arg(whole);
}

QString EQPanelView::outputGainText(double gain)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%+.1f", gain);
    return QString::fromUtf8(buffer);
}

QStringList EQPanelView::soundSettingsCommand()
{
    const QList<QStringList> candidates = {
        { QStringLiteral("gnome-control-center"), QStringLiteral("sound") },
        { QStringLiteral("systemsettings"), QStringLiteral("kcm_pulseaudio") },
        { QStringLiteral("pavucontrol") },
    };
    for (const QStringList& candidate : candidates) {
        const QString program = QStandardPaths::findExecutable(candidate.first());
        if (!program.isEmpty()) {
            QStringList command = candidate;
            command.first() = program;
            return command;
        }
    }
    return {};
}

// --- The view ----------------------------------------------------------------

EQPanelView::EQPanelView(EQController& controller, bool stylesWindow, QWidget* parent)
    : QWidget(parent)
    , controller(controller)
    , soundSettings(soundSettingsCommand())
{
    setObjectName(QStringLiteral("eqPanel"));
    setFixedWidth(panelWidth);
    setAttribute(Qt::WA_TranslucentBackground);
    setFocusPolicy(Qt::StrongFocus);

    // Behind everything: the glass with the panel's gradient; the styler
    // shapes the hosting window (not in the fallback normal window, which
    // keeps its frame).
    glass = new GlassBackground(GlassBackground::hudWindow, this);
    glass->lower();
    if (stylesWindow)
        new PanelWindowStyler(this);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(20, 12, 20, 20);
    column->setSpacing(0);
    column->addWidget(padded(buildHeader(), 6, this));
    column->addWidget(padded(buildStatusLine(), 14, this));
    column->addWidget(padded(buildReadoutCard(), 12, this));
    column->addWidget(padded(buildPresetPills(), 10, this));
    column->addWidget(padded(buildSliderRow(), 18, this));
    column->addWidget(padded(buildOutputRow(), 14, this));
    column->addWidget(padded(buildLoginRow(), 14, this));
    column->addWidget(padded(buildFooter(), 0, this));
    column->addWidget(padded(buildMetaRow(), 0, this, 10));

    outline = new PanelOutline(this);
    credits = new CreditsOverlay(new CreditsView([this] { setShowingCredits(false); }), this);
    credits->hide();
    connect(credits, &CreditsOverlay::closeRequested, this, [this] { setShowingCredits(false); });

    connect(&controller, &EQController::statusChanged, this, &EQPanelView::refreshStatus);
    connect(&controller, &EQController::diagnosticsChanged, this, &EQPanelView::refreshStatus);
    connect(&controller, &EQController::isRunningChanged, this, &EQPanelView::refreshRunning);
    connect(&controller, &EQController::isBypassedChanged, this, &EQPanelView::refreshRunning);
    connect(&controller, &EQController::configChanged, this, &EQPanelView::refreshConfig);
    connect(&controller, &EQController::spectrumChanged, this,
        [this](const std::vector<float>& levels) { spectrum->setLevels(levels); });
    refreshRunning();
    refreshConfig();
}

EQPanelView::~EQPanelView() = default;

QWidget* EQPanelView::buildHeader()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(new SORVALogo(34, row), 0, Qt::AlignVCenter);
    layout->addStretch(1);

    abPill = new CapsuleButton(QStringLiteral("A/B"), CapsuleButton::Look::filled, row);
    abPill->setObjectName(QStringLiteral("abPill"));
    abPill->setFont(panelFont(10, QFont::DemiBold, 0.6));
    abPill->setPadding(QMargins(9, 4, 9, 4));
    connect(abPill, &CapsuleButton::clicked, this, [this] { controller.setBypassed(!controller.isBypassed()); });
    layout->addWidget(abPill, 0, Qt::AlignVCenter);
    layout->addSpacing(8);

    powerSwitch = new SwitchToggle(row);
    powerSwitch->setObjectName(QStringLiteral("powerSwitch"));
    powerSwitch->setTint(SORVATheme::yellow());
    powerSwitch->setAccessibleName(QStringLiteral("Equalizer on"));
    // The switch shows what the controller reports, not the click itself.
    connect(powerSwitch, &SwitchToggle::clicked, this, [this](bool on) {
        powerSwitch->setChecked(controller.isRunning());
        controller.setRunning(on);
    });
    layout->addWidget(powerSwitch, 0, Qt::AlignVCenter);
    return row;
}

QWidget* EQPanelView::buildStatusLine()
{
    auto* box = new QWidget(this);
    auto* stack = new QVBoxLayout(box);
    stack->setContentsMargins(0, 0, 0, 0);
    stack->setSpacing(8);

    auto* row = new QHBoxLayout;
    row->setSpacing(6);
    statusDot = new QWidget(box);
    statusDot->setFixedSize(6, 6);
    row->addWidget(statusDot, 0, Qt::AlignVCenter);
    statusLabel = makeLabel(QString(), panelFont(10, QFont::Normal), white(0.55), box);
    statusLabel->setObjectName(QStringLiteral("statusText"));
    statusLabel->setWordWrap(true);
    row->addWidget(statusLabel, 1);
    stack->addLayout(row);

    permissionButton = new CapsuleButton(QStringLiteral("OPEN PRIVACY SETTINGS"), CapsuleButton::Look::filled, box);
    permissionButton->setObjectName(QStringLiteral("privacyButton"));
    permissionButton->setFont(panelFont(10, QFont::DemiBold, 0.8));
    permissionButton->setColors(SORVATheme::ink(), SORVATheme::yellow());
    permissionButton->setPadding(QMargins(0, 7, 0, 7));
    permissionButton->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    connect(permissionButton, &CapsuleButton::clicked, this, &EQPanelView::openSoundSettings);
    stack->addWidget(permissionButton);
    return box;
}

QWidget* EQPanelView::buildReadoutCard()
{
    auto* card = new ReadoutCard(this);
    card->setObjectName(QStringLiteral("readoutCard"));
    auto* stack = new QVBoxLayout(card);
    stack->setContentsMargins(16, 16, 16, 16);
    stack->setSpacing(10);
    auto* title = new QHBoxLayout;
    bandLabel = makeLabel(QString(), panelFont(15, QFont::Medium), white(0.85), card);
    frequencyText = makeLabel(QString(), panelFont(11, QFont::Normal), white(0.45), card);
    title->addWidget(bandLabel, 0, Qt::AlignTop);
    title->addStretch(1);
    title->addWidget(frequencyText, 0, Qt::AlignTop);
    stack->addLayout(title);

    gainDigits = new DotMatrixText(QString(), 3, 3.5, 1.6, Qt::white, card);
    gainDigits->setObjectName(QStringLiteral("gainDigits"));
    stack->addWidget(padded(gainDigits, 4, card, 4));
    stack->itemAt(stack->count() - 1)->widget()->layout()->setAlignment(gainDigits, Qt::AlignHCenter);

    spectrum = new SpectrumView(controller.spectrum(), 7, 3, 2, card);
    spectrum->setObjectName(QStringLiteral("spectrum"));
    spectrum->setFixedHeight(34);
    stack->addWidget(spectrum);

    curve = new CurveView(card);
    curve->setObjectName(QStringLiteral("curve"));
    curve->setFixedHeight(30);
    stack->addWidget(curve);
    return card;
}

QWidget* EQPanelView::buildPresetPills()
{
    auto* pills = new PresetPills(controller, this);
    pills->setObjectName(QStringLiteral("presetPills"));
    int index = 0;
    for (PillButton* pill : pills->pills())
        pill->setObjectName(QStringLiteral("presetPill%1").arg(index++));
    return pills;
}

QWidget* EQPanelView::buildSliderRow()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    const std::vector<EQBand>& bands = controller.config().bands;
    for (size_t i = 0; i < bands.size(); ++i) {
        auto* slider = new VerticalGainSlider(row);
        const int index = static_cast<int>(i);
        slider->setObjectName(QStringLiteral("bandSlider%1").arg(index));
        slider->setTrackSize(116, 5);
        slider->setLabel(QString::fromStdString(bands[i].label));
        slider->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
        // A press, a drag movement or a key on the column makes its band the
        // active one, alongside the slider's own editing.
        connect(slider, &VerticalGainSlider::touched, this, [this, index] { setActiveBand(index); });
        connect(slider, &VerticalGainSlider::gainEdited, this, [this, index](double gain) {
            EQConfig config = controller.config();
            if (index >= static_cast<int>(config.bands.size()) || config.bands[static_cast<size_t>(index)].gain == gain)
                return;
            config.bands[static_cast<size_t>(index)].gain = gain;
            controller.setConfig(std::move(config));
        });
        layout->addWidget(slider, 1, Qt::AlignBottom);
        bandSliders.push_back(slider);
    }
    return row;
}

QWidget* EQPanelView::buildOutputRow()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(10);
    layout->addWidget(makeLabel(QStringLiteral("OUTPUT"), panelFont(10, QFont::DemiBold, 0.8), white(0.45), row));

    // Half-decibel steps: the slider counts them, -12 … +12.
    outputSlider = new QSlider(Qt::Horizontal, row);
    outputSlider->setObjectName(QStringLiteral("outputSlider"));
    outputSlider->setRange(-12, 12);
    outputSlider->setSingleStep(1);
    outputSlider->setPageStep(4);
    outputSlider->setFocusPolicy(Qt::StrongFocus);
    outputSlider->setStyleSheet(QStringLiteral(
        "QSlider { background: transparent; min-height: 14px; }"
        "QSlider::groove:horizontal { height: 3px; border-radius: 1px; background: %1; }"
        "QSlider::sub-page:horizontal { height: 3px; border-radius: 1px; background: %2; }"
        "QSlider::handle:horizontal { width: 12px; height: 12px; margin: -5px 0; border-radius: 6px;"
        " background: white; }")
                                    .arg(cssColor(white(0.18)), cssColor(SORVATheme::yellow())));
    connect(outputSlider, &QSlider::valueChanged, this, [this](int halfSteps) {
        const double gain = halfSteps / 2.0;
        if (controller.config().outputGain == gain)
            return;
        EQConfig config = controller.config();
        config.outputGain = gain;
        controller.setConfig(std::move(config));
    });
    layout->addWidget(outputSlider, 1);

    // Qt 6.4 cannot switch on tabular figures; right alignment in a fixed box
    // keeps the number from wandering as it changes.
    outputValue = makeLabel(QString(), panelFont(10, QFont::Normal), white(0.6), row);
    outputValue->setFixedWidth(30);
    outputValue->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    layout->addWidget(outputValue);
    return row;
}

QWidget* EQPanelView::buildLoginRow()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);
    layout->addWidget(
        makeLabel(QStringLiteral("LAUNCH AT LOGIN"), panelFont(10, QFont::DemiBold, 0.8), white(0.45), row));
    layout->addStretch(1);
    loginSwitch = new SwitchToggle(row);
    loginSwitch->setObjectName(QStringLiteral("loginSwitch"));
    loginSwitch->setTint(SORVATheme::yellow());
    loginSwitch->setAccessibleName(QStringLiteral("Launch at login"));
    loginSwitch->setChecked(LoginItem::isEnabled());
    // The switch ends up showing what is really in force after the attempt.
    connect(loginSwitch, &SwitchToggle::clicked, this,
        [this](bool on) { loginSwitch->setChecked(LoginItem::setEnabled(on)); });
    layout->addWidget(loginSwitch, 0, Qt::AlignVCenter);
    return row;
}

QWidget* EQPanelView::buildFooter()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(10);
    auto* reset = new CapsuleButton(QStringLiteral("RESET"), CapsuleButton::Look::filled, row);
    reset->setObjectName(QStringLiteral("resetButton"));
    reset->setFont(panelFont(12, QFont::DemiBold, 1));
    reset->setColors(SORVATheme::ink(), SORVATheme::yellow());
    reset->setPadding(QMargins(0, 10, 0, 10));
    reset->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    connect(reset, &CapsuleButton::clicked, this, [this] { controller.reset(); });
    auto* quit = new CapsuleButton(QStringLiteral("QUIT"), CapsuleButton::Look::outlined, row);
    quit->setObjectName(QStringLiteral("quitButton"));
    quit->setFont(panelFont(12, QFont::DemiBold, 1));
    quit->setColors(white(0.75), white(0.25));
    quit->setPadding(QMargins(0, 10, 0, 10));
    quit->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    // Ends the event loop; the shell's shut-down stops processing.
    connect(quit, &CapsuleButton::clicked, this, [] { QCoreApplication::quit(); });
    layout->addWidget(reset, 1);
    layout->addWidget(quit, 1);
    return row;
}

QWidget* EQPanelView::buildMetaRow()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(14);
    for (const char* name : { "Support", "Credits" }) {
        auto* link = new CapsuleButton(QString::fromLatin1(name), CapsuleButton::Look::plain, row);
        link->setObjectName(QString::fromLatin1(name).toLower() + QStringLiteral("Link"));
        link->setFont(panelFont(10, QFont::Medium));
        link->setColors(white(0.4), Qt::transparent);
        layout->addWidget(link);
        if (std::string_view(name) == "Support")
            connect(link, &CapsuleButton::clicked, this,
                [] { QDesktopServices::openUrl(QUrl(QString::fromLatin1(supportUrl))); });
        else
            connect(link, &CapsuleButton::clicked, this, [this] { setShowingCredits(true); });
    }
    layout->addStretch(1);
    return row;
}

void EQPanelView::setActiveBand(int index)
{
    if (index == activeBandIndex || index < 0 || index >= static_cast<int>(controller.config().bands.size()))
        return;
    activeBandIndex = index;
    for (size_t i = 0; i < bandSliders.size(); ++i)
        bandSliders[i]->setActive(static_cast<int>(i) == activeBandIndex);
    curve->setActive(activeBandIndex);
    refreshReadout();
}

void EQPanelView::setShowingCredits(bool shown)
{
    creditsShown = shown;
    credits->setGeometry(rect());
    credits->setVisible(shown);
    outline->raise();
    if (shown) {
        credits->raise();
        credits->setFocus();
    } else {
        setFocus();
    }
}

void EQPanelView::refreshStatus()
{
    const EQController::Status& status = controller.status();
    statusLabel->setText(statusText(status, controller.diagnostics(), controller.config().bands));
    statusDot->setStyleSheet(
        QStringLiteral("background: %1; border-radius: 3px;").arg(cssColor(statusColor(status))));
    // Without any sound settings program the button would lead nowhere.
    permissionButton->setVisible(
        status.kind == EQController::Status::Case::permissionDenied && !soundSettings.isEmpty());
}

void EQPanelView::refreshRunning()
{
    const bool running = controller.isRunning();
    powerSwitch->setChecked(running);
    abPill->setEnabled(running);
    const bool bypassed = controller.isBypassed();
    abPill->setColors(bypassed ? SORVATheme::ink() : white(0.7), bypassed ? SORVATheme::yellow() : white(0.1));
    for (VerticalGainSlider* slider : bandSliders)
        slider->setDimmed(!running);
    gainDigits->setColor(running ? QColor(Qt::white) : white(0.35));
    refreshReadout();
}

void EQPanelView::refreshConfig()
{
    const EQConfig& config = controller.config();
    const int halfSteps = static_cast<int>(std::lround(config.outputGain * 2));
    if (outputSlider->value() != halfSteps) {
        const QSignalBlocker blocker(outputSlider);
        outputSlider->setValue(halfSteps);
    }
    outputValue->setText(outputGainText(config.outputGain));
    if (activeBandIndex >= static_cast<int>(config.bands.size()))
        activeBandIndex = 0;
    for (size_t i = 0; i < bandSliders.size() && i < config.bands.size(); ++i) {
        bandSliders[i]->setGain(config.bands[i].gain);
        bandSliders[i]->setActive(static_cast<int>(i) == activeBandIndex);
    }
    curve->setBands(config.bands);
    curve->setActive(activeBandIndex);
    refreshReadout();
    refreshStatus();
}

void EQPanelView::refreshReadout()
{
    const std::vector<EQBand>& bands = controller.config().bands;
    if (bands.empty())
        return;
    const EQBand& band = bands[static_cast<size_t>(activeBandIndex)];
    bandLabel->setText(QString::fromStdString(band.label));
    frequencyText->setText(frequencyLabel(band.frequency));
    gainDigits->setText(gainText(band.gain));
}

void EQPanelView::openSoundSettings()
{
    if (soundSettings.isEmpty())
        return;
    QProcess::startDetached(soundSettings.first(), soundSettings.mid(1));
}

void EQPanelView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    glass->setGeometry(rect());
    outline->setGeometry(rect());
    outline->raise();
    credits->setGeometry(rect());
    credits->raise();
}

void EQPanelView::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    loginSwitch->setChecked(LoginItem::isEnabled());
    controller.startSpectrum();
}

void EQPanelView::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    controller.stopSpectrum();
}

void EQPanelView::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        if (creditsShown)
            setShowingCredits(false);
        else
            emit closeRequested();
        event->accept();
        return;
    }
    QWidget::keyPressEvent(event);
}

} // namespace sorva
