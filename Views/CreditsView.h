// The credits card shown over the panel: the logo (26 high), "Version " and
// the project's version, "Made by the SORVA authors", and the yellow CLOSE
// button, on a 260-wide rounded card (radius 16) filled with the panel's
// gradient and outlined in black. Pressing CLOSE (or Escape while the card has
// focus) calls onClose. The dimmed backdrop around it belongs to the panel.
//
// Threads: the main thread only.
#pragma once

#include <QWidget>

#include <functional>

namespace sorva {

class PillButton;

class CreditsView final : public QWidget {
    Q_OBJECT
    // Read by the SORVA_INSPECT dump.
    Q_PROPERTY(double cornerRadius READ cornerRadiusValue CONSTANT)
public:
    static constexpr int cardWidth = 260;
    static constexpr double cornerRadius = 16.0;

    explicit CreditsView(std::function<void()> onClose, QWidget* parent = nullptr);

    // "Version " + the project version.
    static QString versionLine();
    // "Made by " + the maker.
    static QString makerLine();

    double cornerRadiusValue() const { return cornerRadius; }
    PillButton* closeButton() const { return close; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    std::function<void()> onClose;
    PillButton* close = nullptr;
};

} // namespace sorva
