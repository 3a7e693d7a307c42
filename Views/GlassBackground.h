// The translucent "glass" layer behind the panel's content: paints the
// panel's gradient (SORVATheme::panelGradient) with its opacities, and asks
// the compositor to blur what lies behind the window where it offers that
// (KWin on X11: the _KDE_NET_WM_BLUR_BEHIND_REGION property). Where no
// compositor blurs, the gradient alone shows; nothing else changes.
//
// Its objectName is "sorva-glass": PanelWindowStyler leaves it alone.
//
// Threads: the main thread only.
#pragma once

#include <QWidget>

namespace sorva {

class GlassBackground final : public QWidget {
    Q_OBJECT
    // Read by the SORVA_INSPECT dump.
    Q_PROPERTY(double cornerRadius READ cornerRadius CONSTANT)
public:
    // The material the panel asks for (the dark heads-up-display glass).
    static constexpr int hudWindow = 13;
    static constexpr const char* identifier = "sorva-glass";

    explicit GlassBackground(int material = hudWindow, QWidget* parent = nullptr);

    double cornerRadius() const;

    int material() const { return materialValue; }
    void setMaterial(int material);

    // Whether the last blur request reached a compositor that takes it.
    bool blurRequested() const { return blurActive; }

protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;

private:
    void requestBlur();

    int materialValue;
    bool blurActive = false;
};

} // namespace sorva
