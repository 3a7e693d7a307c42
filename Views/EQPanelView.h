// The whole content of the tray panel: logo with the A/B pill and the power
// switch, the status line (with the sound-settings button when capture is
// refused), the readout card (active band, its gain in dot-matrix digits, the
// live spectrum and the response curve), the preset pills, one vertical
// slider per band, the output slider, the launch-at-login switch, RESET and
// QUIT, and the "Support" and "Credits" links.
//
// It observes the shared controller and writes every edit through
// setConfig(); the controller saves it and sends it to the engine. The
// spectrum is polled only while the panel is shown.
//
// Keyboard: Escape closes the panel (or the credits first); Tab moves between
// the controls; a focused band slider or the output slider takes Up/Down and
// Left/Right (one step: 1 dB on a band, 0.5 dB on the output), Page Up/Down
// (3 dB on a band, 2 dB on the output) and Home/End (the range's ends).
//
// Threads: the main thread only.
#pragma once

#include "Audio/EQController.h"
#include "Models/EQBand.h"

#include <QColor>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <vector>

class QLabel;
class QSlider;

namespace sorva {

class CapsuleButton;
class CreditsOverlay;
class CurveView;
class DotMatrixText;
class GlassBackground;
class SpectrumView;
class SwitchToggle;
class VerticalGainSlider;

class EQPanelView final : public QWidget {
    Q_OBJECT
public:
    // stylesWindow: attach the window styler (the frameless tray panel);
    // false for the fallback normal window, which keeps its frame.
    explicit EQPanelView(EQController& controller, bool stylesWindow = true, QWidget* parent = nullptr);
    ~EQPanelView() override;

    static constexpr int panelWidth = 320;

    // --- Texts and colours, pure functions of the controller's state --------

    // " · " and the matching built-in preset's name in capitals, or empty.
    static QString presetSuffix(const std::vector<EQBand>& bands);
    static QString statusText(const EQController::Status& status, const QString& diagnostics,
        const std::vector<EQBand>& bands);
    static QColor statusColor(const EQController::Status& status);
    // "%.0f kHz" of f / 1000 from 1000 Hz up, else "%.0f Hz".
    static QString frequencyLabel(double frequency);
    // The gain truncated toward zero with an explicit sign: +0, +6, -12.
    static QString gainText(double gain);
    // The output slider's value: "%+.1f".
    static QString outputGainText(double gain);

    // The command that opens the desktop's sound settings: the first of
    // gnome-control-center sound, systemsettings kcm_pulseaudio, pavucontrol
    // found on PATH; empty when none is.
    static QStringList soundSettingsCommand();

    // Where "Support" leads.
    static constexpr const char* supportUrl = "https://sorva.app/support";

    int activeBand() const { return activeBandIndex; }
    bool showingCredits() const { return creditsShown; }

signals:
    // Escape: the window holding the panel should close.
    void closeRequested();

protected:
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QWidget* buildHeader();
    QWidget* buildStatusLine();
    QWidget* buildReadoutCard();
    QWidget* buildPresetPills();
    QWidget* buildSliderRow();
    QWidget* buildOutputRow();
    QWidget* buildLoginRow();
    QWidget* buildFooter();
    QWidget* buildMetaRow();

    void setActiveBand(int index);
    void setShowingCredits(bool shown);
    void refreshStatus();
    void refreshRunning();
    void refreshConfig();
    void refreshReadout();
    void openSoundSettings();

    EQController& controller;
    int activeBandIndex = 0;
    bool creditsShown = false;
    QStringList soundSettings;

    CapsuleButton* abPill = nullptr;
    SwitchToggle* powerSwitch = nullptr;
    QWidget* statusDot = nullptr;
    QLabel* statusLabel = nullptr;
    CapsuleButton* permissionButton = nullptr;
    QLabel* bandLabel = nullptr;
    QLabel* frequencyText = nullptr;
    QSlider* outputSlider = nullptr;
    QLabel* outputValue = nullptr;
    SwitchToggle* loginSwitch = nullptr;
    CreditsOverlay* credits = nullptr;
    GlassBackground* glass = nullptr;
    QWidget* outline = nullptr;
    DotMatrixText* gainDigits = nullptr;
    SpectrumView* spectrum = nullptr;
    CurveView* curve = nullptr;
    std::vector<VerticalGainSlider*> bandSliders;
};

} // namespace sorva
