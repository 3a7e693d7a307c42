// An invisible widget placed in the panel that styles the window it ends up
// in: frameless, translucent (WA_TranslucentBackground, not opaque), a dark
// palette, corner radius 12 with clipping, the compositor's shadow where it
// draws one, and "foreign" backgrounds hidden — any widget in the window that
// fills its own background and is not the "sorva-glass" layer, not the styler
// and not one of the styler's ancestors stops filling it, and framed widgets
// lose their frame, so that only the panel's own glass shows.
//
// Styling runs one event-loop turn after the styler is shown, polished or
// moved to another window, and again whenever that happens anew (so it is
// reapplied when the panel's tree changes). When "SORVA_INSPECT" is exactly
// "1", each run first writes the window's widget tree to the trace log.
//
// Clipping: where the compositor blends alpha (Wayland; X11 with a compositing
// manager) the corners are left to the panel's antialiased rounded painting
// over a transparent window; without one, a rounded window mask cuts them.
//
// Threads: the main thread only.
#pragma once

#include <QString>
#include <QStringList>
#include <QWidget>

namespace sorva {

class PanelWindowStyler final : public QWidget {
    Q_OBJECT
public:
    static constexpr int cornerRadius = 12;

    explicit PanelWindowStyler(QWidget* parent = nullptr);

    // Styles the window now (what the deferred call runs). Nothing happens
    // while the styler sits in no window.
    void styleWindow();

    // The "SORVA_INSPECT" dump of a window: the "window …" line, then one line
    // per widget, indented two spaces per level.
    static QStringList describeTree(const QWidget* window);

    // How many times styleWindow() has run on a window (for tests).
    int styledCount() const { return styled; }

protected:
    bool event(QEvent* event) override;

private:
    void scheduleStyle();

    bool scheduled = false;
    int styled = 0;
};

} // namespace sorva
