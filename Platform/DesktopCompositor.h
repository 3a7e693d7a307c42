// What the desktop's compositor offers a translucent panel, and the requests
// that reach past Qt to it. X11 through xcb (KWin's blur-behind property, the
// compositing manager's selection); Wayland always blends alpha; other
// platforms (offscreen) take no requests.
// Only X11 without a compositing manager blends nothing.
// Nothing here fails: where a facility is missing the request is dropped.
//
// Threads: the main thread only (Qt's native window handles).
#pragma once

#include <QRegion>

class QWindow;

namespace sorva::DesktopCompositor {

// Whether a compositor blends the window's alpha channel with what lies
// behind it (else transparent pixels show black and corners need a mask).
bool blendsAlpha();

// Asks the compositor to blur what lies behind the window, inside region (in
// the window's device-independent pixels; empty = the whole window). Returns
// whether a compositor that honours the request is running.
bool requestBlurBehind(QWindow* window, const QRegion& region);

} // namespace sorva::DesktopCompositor
