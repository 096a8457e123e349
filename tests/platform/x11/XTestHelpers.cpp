#include "XTestHelpers.h"

#include "platform/x11/XConnection.h"

#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace vocari::test::x11 {

namespace {

// A connection for one helper call.
struct Connection
{
    Display *display = XOpenDisplay(nullptr);
    ~Connection()
    {
        if (display)
            XCloseDisplay(display);
    }
};

} // namespace

Repeat setAutoRepeat(Repeat repeat)
{
    Connection connection;
    Repeat old;
    if (!connection.display)
        return old;
    XkbGetAutoRepeatRate(connection.display, XkbUseCoreKbd, &old.delayMs, &old.intervalMs);
    XkbSetAutoRepeatRate(connection.display, XkbUseCoreKbd, repeat.delayMs, repeat.intervalMs);
    XSync(connection.display, False);
    return old;
}

std::vector<unsigned long> keyboardMapping()
{
    Connection connection;
    std::vector<unsigned long> mapping;
    if (!connection.display)
        return mapping;
    int first = 0, last = 0, perKeycode = 0;
    XDisplayKeycodes(connection.display, &first, &last);
    KeySym *symbols =
        XGetKeyboardMapping(connection.display, KeyCode(first), last - first + 1, &perKeycode);
    mapping.assign(symbols, symbols + (last - first + 1) * perKeycode);
    XFree(symbols);
    return mapping;
}

bool capsLockOn()
{
    Connection connection;
    XkbStateRec state{};
    if (!connection.display)
        return false;
    XkbGetState(connection.display, XkbUseCoreKbd, &state);
    return state.locked_mods & LockMask;
}

void setActiveWindowProperty(unsigned long window)
{
    Connection connection;
    if (!connection.display)
        return;
    const Atom active = XInternAtom(connection.display, "_NET_ACTIVE_WINDOW", False);
    const Window root = DefaultRootWindow(connection.display);
    if (window == 0) {
        XDeleteProperty(connection.display, root, active);
    } else {
        const unsigned long value = window;
        XChangeProperty(connection.display, root, active, XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char *>(&value), 1);
    }
    XSync(connection.display, False);
}

ForeignGrab::ForeignGrab(const char *keysymName, unsigned int xModifiers)
    : m_display(XOpenDisplay(nullptr))
{
    if (!m_display)
        return;
    const KeyCode keycode = XKeysymToKeycode(m_display, XStringToKeysym(keysymName));
    XGrabKey(m_display, keycode, xModifiers, DefaultRootWindow(m_display), False, GrabModeAsync,
             GrabModeAsync);
    XSync(m_display, False);
}

ForeignGrab::~ForeignGrab()
{
    if (m_display)
        XCloseDisplay(m_display);
}

GrabbedPressCounter::GrabbedPressCounter(unsigned int keycode)
{
    m_handler = XConnection::shared().addEventHandler([this, keycode](XEvent &event) {
        if (event.type == KeyPress && event.xkey.keycode == keycode)
            ++m_count;
    });
}

GrabbedPressCounter::~GrabbedPressCounter()
{
    XConnection::shared().removeEventHandler(m_handler);
}

} // namespace vocari::test::x11
