#include "Platform/DesktopCompositor.h"

#include <QGuiApplication>
#include <QWindow>

#ifdef SORVA_HAVE_XCB
#include <xcb/xcb.h>

#include <cstdlib>
#include <string>
#include <vector>
#endif

namespace sorva::DesktopCompositor {

namespace {

bool onX11()
{
    return QGuiApplication::platformName() == QLatin1String("xcb");
}

bool onWayland()
{
    return QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

#ifdef SORVA_HAVE_XCB
xcb_connection_t* connection()
{
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return x11 ? x11->connection() : nullptr;
}

xcb_atom_t atom(xcb_connection_t* c, const std::string& name, bool onlyIfExists)
{
    auto cookie = xcb_intern_atom(c, onlyIfExists ? 1 : 0, static_cast<uint16_t>(name.size()), name.c_str());
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(c, cookie, nullptr);
    if (!reply)
        return XCB_ATOM_NONE;
    const xcb_atom_t result = reply->atom;
    std::free(reply);
    return result;
}

xcb_screen_t* defaultScreen(xcb_connection_t* c, int* number)
{
    // xcb_parse_display writes the host and display number through its
    // pointers: they must not be null.
    int screenNumber = 0;
    char* host = nullptr;
    int displayNumber = 0;
    if (xcb_parse_display(nullptr, &host, &displayNumber, &screenNumber) == 0)
        screenNumber = 0;
    std::free(host);
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; it.rem > 0; ++i, xcb_screen_next(&it)) {
        if (i == screenNumber) {
            *number = i;
            return it.data;
        }
    }
    return nullptr;
}

// KWin's blur effect announces itself by keeping its atom as a property of the
// root window.
bool rootHasProperty(xcb_connection_t* c, xcb_window_t root, xcb_atom_t property)
{
    auto cookie = xcb_list_properties(c, root);
    xcb_list_properties_reply_t* reply = xcb_list_properties_reply(c, cookie, nullptr);
    if (!reply)
        return false;
    const xcb_atom_t* atoms = xcb_list_properties_atoms(reply);
    const int count = xcb_list_properties_atoms_length(reply);
    bool found = false;
    for (int i = 0; i < count && !found; ++i)
        found = atoms[i] == property;
    std::free(reply);
    return found;
}
#endif

} // namespace

bool blendsAlpha()
{
    // Wayland always composites; offscreen and other platforms render into
    // images that keep their alpha.
    if (onWayland() || !onX11())
        return true;
#ifdef SORVA_HAVE_XCB
    if (onX11()) {
        xcb_connection_t* c = connection();
        if (!c)
            return false;
        int number = 0;
        if (!defaultScreen(c, &number))
            return false;
        const xcb_atom_t selection = atom(c, "_NET_WM_CM_S" + std::to_string(number), false);
        if (selection == XCB_ATOM_NONE)
            return false;
        xcb_get_selection_owner_reply_t* reply
            = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr);
        const bool owned = reply && reply->owner != XCB_WINDOW_NONE;
        std::free(reply);
        return owned;
    }
#endif
    return true;
}

bool requestBlurBehind(QWindow* window, const QRegion& region)
{
    if (!window)
        return false;
#ifdef SORVA_HAVE_XCB
    if (onX11()) {
        xcb_connection_t* c = connection();
        if (!c)
            return false;
        const xcb_atom_t blur = atom(c, "_KDE_NET_WM_BLUR_BEHIND_REGION", false);
        if (blur == XCB_ATOM_NONE)
            return false;
        // x, y, width, height per rectangle, in the window's device pixels.
        const double ratio = window->devicePixelRatio();
        std::vector<uint32_t> rectangles;
        for (const QRect& r : region) {
            rectangles.push_back(static_cast<uint32_t>(qRound(r.x() * ratio)));
            rectangles.push_back(static_cast<uint32_t>(qRound(r.y() * ratio)));
            rectangles.push_back(static_cast<uint32_t>(qRound(r.width() * ratio)));
            rectangles.push_back(static_cast<uint32_t>(qRound(r.height() * ratio)));
        }
        const auto id = static_cast<xcb_window_t>(window->winId());
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, blur, XCB_ATOM_CARDINAL, 32,
                            static_cast<uint32_t>(rectangles.size()), rectangles.data());
        xcb_flush(c);
        int number = 0;
        xcb_screen_t* screen = defaultScreen(c, &number);
        return screen && rootHasProperty(c, screen->root, blur);
    }
#endif
    // Wayland compositors take blur through protocols Qt does not expose;
    // the gradient alone shows there.
    (void)region;
    return false;
}

} // namespace sorva::DesktopCompositor
