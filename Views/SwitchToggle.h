// A small switch-style toggle (the "mini" size of a platform switch): a
// capsule track, yellow while on and dim while off, with a round white knob
// that sits right when on. Space and Return flip it when it has the focus.
// Drawn here rather than styled from a check box, so that it looks the same
// under every desktop theme.
//
// Threads: the main thread only.
#pragma once

#include <QAbstractButton>
#include <QColor>

namespace sorva {

class SwitchToggle final : public QAbstractButton {
    Q_OBJECT
public:
    explicit SwitchToggle(QWidget* parent = nullptr);

    void setTint(const QColor& color);
    QSize sizeHint() const override;

    static constexpr int trackWidth = 28;
    static constexpr int trackHeight = 16;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor tint;
};

} // namespace sorva
