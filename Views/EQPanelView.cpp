#include "Views/EQPanelView.h"

#include "Models/EQPresets.h"
#include "Models/LoginItem.h"
#include "Views/CapsuleButton.h"
#include "Views/CreditsOverlay.h"
#include "Views/SwitchToggle.h"

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

const QColor yellow(0xF6, 0xD8, 0x18);
const QColor ink(0x00, 0x0B, 0x1A);

QColor white(double opacity)
{
    QColor color(Qt::white);
    color.setAlphaF(static_cast<float>(opacity));
    return color;
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
    QFont font(QStringLiteral("Urbanist"));
    font.setPixelSize(size);
    font.setWeight(weight);
    if (letterSpacing != 0)
        font.setLetterSpacing(QFont::AbsoluteSpacing, letterSpacing);
    return font;
}

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
        return yellow;
    case Case::failed:
    case Case::permissionDenied:
        return QColor(0xFF, 0x5A, 0x5A);
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

EQPanelView::EQPanelView(EQController& controller, QWidget* parent)
    : QWidget(parent)
    , controller(controller)
    , soundSettings(soundSettingsCommand())
{
    setObjectName(QStringLiteral("eqPanel"));
    setFixedWidth(panelWidth);
    setAttribute(Qt::WA_TranslucentBackground);
    setFocusPolicy(Qt::StrongFocus);

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

    credits = new CreditsOverlay(new QWidget, this);
    credits->hide();
    connect(credits, &CreditsOverlay::closeRequested, this, [this] { setShowingCredits(false); });

    connect(&controller, &EQController::statusChanged, this, &EQPanelView::refreshStatus);
    connect(&controller, &EQController::diagnosticsChanged, this, &EQPanelView::refreshStatus);
    connect(&controller, &EQController::isRunningChanged, this, &EQPanelView::refreshRunning);
    connect(&controller, &EQController::isBypassedChanged, this, &EQPanelView::refreshRunning);
    connect(&controller, &EQController::configChanged, this, &EQPanelView::refreshConfig);
    refreshRunning();
    refreshConfig();
}

EQPanelView::~EQPanelView() = default;

QWidget* EQPanelView::buildHeader()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(makeLabel(QStringLiteral("SORVA"), panelFont(20, QFont::Bold, 2), Qt::white, row));
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
    powerSwitch->setTint(yellow);
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
    permissionButton->setColors(ink, yellow);
    permissionButton->setPadding(QMargins(0, 7, 0, 7));
    permissionButton->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    connect(permissionButton, &CapsuleButton::clicked, this, &EQPanelView::openSoundSettings);
    stack->addWidget(permissionButton);
    return box;
}

QWidget* EQPanelView::buildReadoutCard()
{
    auto* card = new QWidget(this);
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
    return card;
}

QWidget* EQPanelView::buildPresetPills()
{
    return new QWidget(this);
}

QWidget* EQPanelView::buildSliderRow()
{
    return new QWidget(this);
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
                                    .arg(cssColor(white(0.18)), cssColor(yellow)));
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
    loginSwitch->setTint(yellow);
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
    reset->setColors(ink, yellow);
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
    refreshReadout();
}

void EQPanelView::setShowingCredits(bool shown)
{
    creditsShown = shown;
    credits->setGeometry(rect());
    credits->setVisible(shown);
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
    abPill->setColors(bypassed ? ink : white(0.7), bypassed ? yellow : white(0.1));
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
}

void EQPanelView::openSoundSettings()
{
    if (soundSettings.isEmpty())
        return;
    QProcess::startDetached(soundSettings.first(), soundSettings.mid(1));
}

void EQPanelView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath outline;
    outline.addRoundedRect(QRectF(rect()), 12, 12);
    painter.setClipPath(outline);
    QLinearGradient gradient(0, 0, 0, height());
    gradient.setColorAt(0, QColor(0x1A, 0x10, 0x2E));
    gradient.setColorAt(1, QColor(0x0B, 0x0A, 0x1E));
    painter.fillPath(outline, gradient);
    painter.setPen(QPen(Qt::black, 1.5));
    painter.drawPath(outline);
}

void EQPanelView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    credits->setGeometry(rect());
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
