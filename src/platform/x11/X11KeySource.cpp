#include "platform/x11/X11KeySource.h"

#include "platform/x11/X11Log.h"

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <algorithm>

namespace vocari {

namespace {

// X keycodes are Linux input event codes moved up by 8.
constexpr unsigned int keycodeOffset = 8;
constexpr unsigned int maxKeycode = 255;

} // namespace

X11KeySource::X11KeySource() : X11KeySource(XConnection::shared()) {}

X11KeySource::X11KeySource(XConnection &connection) : m_connection(&connection) {}

X11KeySource::~X11KeySource()
{
    close();
}

bool X11KeySource::open(Sink sink)
{
    close();
    if (!m_connection) {
        m_error = QStringLiteral("No X display.");
        return false;
    }
    if (!m_connection->ensureOpen()) {
        m_error = m_connection->errorString();
        return false;
    }
    m_generation = m_connection->generation();
    m_modifiers = X11Modifiers::read(m_connection->display());
    m_sink = std::move(sink);
    m_handler = m_connection->addEventHandler([this](XEvent &event) { handleEvent(event); });
    m_connection->watchRawKeys(true);
    m_open = true;
    m_error.clear();
    return true;
}

void X11KeySource::close()
{
    if (!m_open)
        return;
    if (connectionIsCurrent()) {
        for (const HeldGrab &held : m_grabs)
            ungrab(held);
        XFlush(m_connection->display());
    }
    if (m_connection) {
        m_connection->watchRawKeys(false);
        m_connection->removeEventHandler(m_handler);
    }
    m_grabs.clear();
    m_grabbedDown.clear();
    m_sink = nullptr;
    m_open = false;
}

bool X11KeySource::connectionIsCurrent() const
{
    return m_connection && m_connection->isOpen() && m_connection->generation() == m_generation;
}

bool X11KeySource::isOpen() const
{
    return m_open && connectionIsCurrent();
}

std::vector<KeyGrab> X11KeySource::setGrabs(const std::vector<KeyGrab> &grabs)
{
    if (!isOpen())
        return grabs;
    const auto wanted = [&grabs](const HeldGrab &held) {
        return std::find(grabs.begin(), grabs.end(), held.grab) != grabs.end();
    };
    for (auto held = m_grabs.begin(); held != m_grabs.end();) {
        if (wanted(*held)) {
            ++held;
        } else {
            ungrab(*held);
            held = m_grabs.erase(held);
        }
    }

    std::vector<KeyGrab> failed;
    for (const KeyGrab &keyGrab : grabs) {
        const bool held = std::any_of(m_grabs.begin(), m_grabs.end(),
                                      [&](const HeldGrab &h) { return h.grab == keyGrab; });
        if (!held && !grab(keyGrab))
            failed.push_back(keyGrab);
    }
    XFlush(m_connection->display());
    return failed;
}

bool X11KeySource::grab(const KeyGrab &keyGrab)
{
    const unsigned int keycode = keyGrab.keyCode + keycodeOffset;
    const std::optional<unsigned int> state = m_modifiers.toX(keyGrab.modifiers);
    if (keycode > maxKeycode || !state) {
        qCDebug(lcX11, "key %u with modifiers %llx cannot be grabbed here", keyGrab.keyCode,
                static_cast<unsigned long long>(keyGrab.modifiers));
        return false;
    }
    HeldGrab held{keyGrab, keycode, {}};
    for (unsigned int locks : m_modifiers.lockCombinations())
        held.states.push_back(*state | locks);

    Display *display = m_connection->display();
    const Window root = DefaultRootWindow(display);
    const int error = m_connection->checked([&] {
        for (unsigned int grabState : held.states)
            XGrabKey(display, int(keycode), grabState, root, False, GrabModeAsync, GrabModeAsync);
    });
    if (error != 0) {
        // Another client holds some of the combinations; give back the ones we got.
        ungrab(held);
        qCDebug(lcX11, "grabbing keycode %u failed with X error %d", keycode, error);
        return false;
    }
    m_grabs.push_back(std::move(held));
    return true;
}

void X11KeySource::ungrab(const HeldGrab &held)
{
    Display *display = m_connection->display();
    const Window root = DefaultRootWindow(display);
    for (unsigned int grabState : held.states)
        XUngrabKey(display, int(held.keycode), grabState, root);
}

void X11KeySource::regrabAll()
{
    std::vector<KeyGrab> keys;
    for (const HeldGrab &held : m_grabs) {
        ungrab(held);
        keys.push_back(held.grab);
    }
    m_grabs.clear();
    m_modifiers = X11Modifiers::read(m_connection->display());
    for (const KeyGrab &keyGrab : keys) {
        if (!grab(keyGrab))
            qCWarning(lcX11, "After a keyboard change, key %u could not be grabbed again.",
                      keyGrab.keyCode);
    }
}

void X11KeySource::handleEvent(XEvent &event)
{
    if (!isOpen())
        return;
    switch (event.type) {
    case GenericEvent: {
        const XGenericEventCookie &cookie = event.xcookie;
        if (cookie.extension != m_connection->xinputOpcode() || !cookie.data ||
            (cookie.evtype != XI_RawKeyPress && cookie.evtype != XI_RawKeyRelease))
            return;
        const auto *raw = static_cast<const XIRawEvent *>(cookie.data);
        // Each slave's own event counts once; the master's copy of it is skipped.
        if (raw->deviceid != raw->sourceid || raw->detail < int(keycodeOffset))
            return;
        const unsigned int keycode = unsigned(raw->detail);
        const bool press = cookie.evtype == XI_RawKeyPress;
        if (!press)
            m_grabbedDown.erase(keycode);
        deliver({press ? KeyEvent::Kind::press : KeyEvent::Kind::release, KeyEvent::Route::observed,
                 std::uint16_t(keycode - keycodeOffset), 0, (raw->flags & XIKeyRepeat) != 0});
        return;
    }
    case KeyPress: {
        // The grab has kept the key from the focused window; give the keyboard back at once.
        XUngrabKeyboard(m_connection->display(), CurrentTime);
        XFlush(m_connection->display());
        const unsigned int keycode = event.xkey.keycode;
        const bool repeat = !m_grabbedDown.insert(keycode).second;
        deliver({KeyEvent::Kind::press, KeyEvent::Route::grabbed,
                 std::uint16_t(keycode - keycodeOffset), m_modifiers.fromX(event.xkey.state),
                 repeat});
        return;
    }
    case KeyRelease: {
        const unsigned int keycode = event.xkey.keycode;
        m_grabbedDown.erase(keycode);
        deliver({KeyEvent::Kind::release, KeyEvent::Route::grabbed,
                 std::uint16_t(keycode - keycodeOffset), m_modifiers.fromX(event.xkey.state),
                 false});
        return;
    }
    case MappingNotify:
        XRefreshKeyboardMapping(&event.xmapping);
        if (event.xmapping.request == MappingModifier)
            regrabAll();
        return;
    default:
        return;
    }
}

void X11KeySource::deliver(const KeyEvent &event)
{
    if (!m_sink)
        return;
    const Sink sink = m_sink; // the sink may close this source
    sink(event);
}

} // namespace vocari
