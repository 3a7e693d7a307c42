// The credits layer over the whole panel: black at 55 % opacity with the
// credits card on top. A press on the dimmed backdrop (anywhere outside the
// card) or the card's own close action emits closeRequested().
//
// Threads: the main thread only.
#pragma once

#include <QWidget>

namespace sorva {

class CreditsOverlay final : public QWidget {
    Q_OBJECT
public:
    // card: the credits view, reparented and centred in the overlay.
    explicit CreditsOverlay(QWidget* card, QWidget* parent = nullptr);

signals:
    void closeRequested();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QWidget* card;
};

} // namespace sorva
