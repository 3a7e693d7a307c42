// A plain push button drawn as the panel's capsules: filled with a colour,
// outlined (a 1-wide line centred on the capsule's edge), or bare text. The
// text is centred with the font's letter spacing; the padding around it gives
// the size hint. Dimmed to 40 % while disabled.
//
// Threads: the main thread only.
#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QMargins>

namespace sorva {

class CapsuleButton final : public QAbstractButton {
    Q_OBJECT
public:
    enum class Look { filled, outlined, plain };

    CapsuleButton(const QString& text, Look look, QWidget* parent = nullptr);

    void setColors(const QColor& text, const QColor& capsule);
    void setPadding(const QMargins& padding);
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Look look;
    QColor textColor = Qt::white;
    QColor capsuleColor = Qt::transparent;
    QMargins padding;
};

} // namespace sorva
