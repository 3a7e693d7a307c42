// The row of preset pills under the readout card: one capsule per built-in
// preset, in the table's order, names in capitals, centred as a group. The
// pill of the preset that the controller's current bands match is
// highlighted (yellow, ink text); the highlight follows the configuration,
// not the last click, and is re-evaluated on every configChanged. A click
// applies the pill's preset through the controller.
//
// When the pills do not fit the width, the spacing shrinks from 6 to 2 and
// the side padding from 10 to 6 first; if they still do not fit they wrap
// onto further centred rows (the widget reports heightForWidth), so every
// pill stays whole and clickable.
//
// Threads: the main thread only.
#pragma once

#include "Audio/EQController.h"

#include <QWidget>

#include <vector>

namespace sorva {

class PillButton;

class PresetPills final : public QWidget {
    Q_OBJECT
public:
    static constexpr double spacing = 6.0;
    static constexpr double minimumSpacing = 2.0;
    static constexpr double horizontalPadding = 10.0;
    static constexpr double minimumHorizontalPadding = 6.0;
    static constexpr double verticalPadding = 5.0;

    explicit PresetPills(EQController& controller, QWidget* parent = nullptr);

    // One per preset, in EQPresets::all() order.
    const std::vector<PillButton*>& pills() const { return pillButtons; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Arrangement {
        double spacing;
        double padding;
        std::vector<QRectF> frames;
        double height;
    };
    Arrangement arrange(double width) const;
    void placePills();
    void refreshSelection();

    EQController& controller;
    std::vector<PillButton*> pillButtons;
};

} // namespace sorva
