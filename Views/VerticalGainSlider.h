// One band's vertical gain control: a thin capsule track filled from the
// bottom in a violet-to-magenta gradient up to the gain, a round white knob
// (13 with a magenta glow when the band is active, 10 otherwise) and the
// band's label underneath, never truncated. The whole control is drawn at
// 40 % opacity when dimmed.
//
// The gain scale is -24…+24 dB mapped linearly onto the track. A press
// anywhere over the track's height (across the widget's full width) jumps the
// gain to the pressed height, and dragging follows the pointer, in whole
// decibels. Keyboard: Up/Right +1 dB, Down/Left -1 dB, Page Up/Down ±3 dB,
// Home/End the ends of the scale. gainEdited() is emitted only when the new
// gain differs from the current one; the slider shows the new gain at once.
//
// touched() is emitted on every press, drag movement or key press anywhere on
// the control, so that the panel can make this band the active one.
//
// Threads: the main thread only.
#pragma once

#include <QString>
#include <QWidget>

namespace sorva {

class VerticalGainSlider final : public QWidget {
    Q_OBJECT
public:
    static constexpr double minimumGain = -24.0;
    static constexpr double maximumGain = 24.0;
    static constexpr double activeKnobDiameter = 13.0;
    static constexpr double knobDiameter = 10.0;
    static constexpr double glowRadius = 6.0;
    static constexpr double labelSpacing = 8.0;
    static constexpr double dimmedOpacity = 0.4;

    explicit VerticalGainSlider(QWidget* parent = nullptr);

    double gain() const { return gainValue; }
    void setGain(double gain);
    const QString& label() const { return labelText; }
    void setLabel(const QString& label);
    bool isActive() const { return active; }
    void setActive(bool active);
    bool isDimmed() const { return dimmed; }
    void setDimmed(bool dimmed);
    double trackHeight() const { return trackHeightValue; }
    double trackWidth() const { return trackWidthValue; }
    void setTrackSize(double height, double width);

    // The shared gain scale: (gain + 24) / 48, so -24 → 0, 0 → 0.5, +24 → 1.
    static double normalisedLevel(double gain);
    // The drag rule: y is the pointer's height from the track's top.
    // fraction = 1 - y / trackHeight; ≤ 0 gives -24, otherwise min(1, fraction)
    // × 48 - 24 rounded to a whole decibel, halves away from zero.
    static double gainAt(double y, double trackHeight);

    // Where the track sits inside the widget (its capsule is centred in it).
    QRectF trackRect() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

signals:
    void gainEdited(double gain);
    void touched();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

private:
    void editTo(double gain);
    QSizeF labelSize() const;

    double gainValue = 0.0;
    QString labelText;
    bool active = false;
    bool dimmed = false;
    double trackHeightValue = 116.0;
    double trackWidthValue = 5.0;
    bool dragging = false;
    // The focus ring shows only for focus that came from the keyboard (Tab),
    // not for the focus a window gives its first control when it opens.
    bool keyboardFocus = false;
};

} // namespace sorva
