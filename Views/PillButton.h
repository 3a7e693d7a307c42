// A push button drawn as one of the panel's capsules: a tracked text centred
// on a filled capsule, its padding giving the size hint. The face of the
// preset pills and of the credits card's CLOSE button. A selected pill shows
// its selected text and fill colours.
//
// Threads: the main thread only.
#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QFont>
#include <QMarginsF>

namespace sorva {

class PillButton final : public QAbstractButton {
    Q_OBJECT
    // Read by the SORVA_INSPECT dump: half the height.
    Q_PROPERTY(double cornerRadius READ cornerRadius)
public:
    struct Face {
        QFont font;
        QColor text;
        QColor fill;
    };

    PillButton(const QString& text, const QFont& font, QWidget* parent = nullptr);

    void setFaces(const Face& normal, const Face& selected);
    void setPadding(const QMarginsF& padding);
    const QMarginsF& padding() const { return paddingValue; }
    double cornerRadius() const { return height() / 2.0; }
    // The tracked text's size, without the spacing after the last letter.
    QSizeF textSize() const;
    bool isSelected() const { return selected; }
    void setSelected(bool selected);

    // The text's natural size plus the padding, rounded up.
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

private:
    const Face& face() const { return selected ? selectedFace : normalFace; }

    Face normalFace;
    Face selectedFace;
    QMarginsF paddingValue { 10, 5, 10, 5 };
    bool selected = false;
    // The focus ring shows only for focus that came from the keyboard, not
    // for the focus a window hands its first control when it opens.
    bool keyboardFocus = false;
};

} // namespace sorva
