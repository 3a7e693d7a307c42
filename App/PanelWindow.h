// The top-level window that holds the panel. In the tray it is a frameless,
// translucent panel placed next to the icon (or near the pointer when the
// tray does not tell where its icon is), kept on the screen, and hidden when
// it loses the focus; on Wayland the compositor places it. Without a tray it
// is a small normal window with a title, so that the program stays usable.
//
// Threads: the main thread only.
#pragma once

#include <QElapsedTimer>
#include <QWidget>

namespace sorva {

class PanelWindow final : public QWidget {
    Q_OBJECT
public:
    enum class Kind { trayPanel, normalWindow };

    // content: the panel's view, reparented into this window.
    PanelWindow(QWidget* content, Kind kind, QWidget* parent = nullptr);

    Kind kind() const { return windowKind; }

    // Shows the panel, or hides it when it is shown. anchor: the tray icon's
    // geometry in global coordinates; empty when unknown.
    void toggle(const QRect& anchor);
    void open(const QRect& anchor);

    // Where a panel of size goes for a tray icon at anchor (the pointer's
    // position as a 1 × 1 rectangle when the icon's place is unknown): below
    // the anchor when it is in the screen's upper half, else above; centred
    // on it horizontally; then moved inside available.
    static QPoint placement(const QRect& anchor, QSize size, const QRect& available);

    // Gap between the tray icon and the panel.
    static constexpr int anchorGap = 6;

signals:
    void shown();
    void hidden();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    Kind windowKind;
    // When the panel last hid itself because it lost the focus: a click on
    // the tray icon first takes the focus, then toggles, and must not reopen
    // the panel it has just closed.
    QElapsedTimer autoHidden;
};

} // namespace sorva
