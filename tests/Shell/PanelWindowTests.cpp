// Where the tray panel opens relative to its icon on the screen.
#include "App/PanelWindow.h"

#include <gtest/gtest.h>

namespace sorva {
namespace {

TEST(PanelWindowTests, PanelSitsNextToTheIconAndStaysOnTheScreen)
{
    const QSize panel(320, 600);
    // A 1920 × 1080 screen with a 30-high top bar.
    const QRect available(0, 30, 1920, 1050);
    struct Row {
        const char* where;
        QRect anchor;
        QPoint expected;
    };
    const Row rows[] = {
        // Top bar, middle: centred under the icon, the gap below the bar.
        { "top middle", QRect(950, 3, 24, 24), QPoint(961 - 160, 27 + PanelWindow::anchorGap) },
        // Top bar, right corner: pushed left to the screen's edge.
        { "top right", QRect(1890, 3, 24, 24), QPoint(1920 - 320, 27 + PanelWindow::anchorGap) },
        // Bottom panel, left corner: above the icon, pushed right.
        { "bottom left", QRect(4, 1052, 24, 24), QPoint(0, 1052 - PanelWindow::anchorGap - 600) },
        // The pointer when the tray does not say where its icon is.
        { "pointer", QRect(500, 400, 1, 1), QPoint(500 - 160, 401 + PanelWindow::anchorGap) },
    };
    for (const Row& row : rows)
        EXPECT_EQ(PanelWindow::placement(row.anchor, panel, available), row.expected) << row.where;

    // A panel taller than the screen keeps its top (and its header) visible.
    const QPoint tall = PanelWindow::placement(QRect(950, 1000, 24, 24), QSize(320, 2000), available);
    EXPECT_EQ(tall.y(), 30);
    // On a second screen to the right, the panel stays on that screen.
    const QRect right(1920, 0, 1280, 1024);
    const QPoint second = PanelWindow::placement(QRect(3190, 2, 20, 20), panel, right);
    EXPECT_EQ(second, QPoint(1920 + 1280 - 320, 22 + PanelWindow::anchorGap));
}

} // namespace
} // namespace sorva
