#include "platform/x11/X11KeySource.h"

#include "platform/x11/X11Log.h"

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <algorithm>

namespace vocari {

namespace {

// X keycodes are Linux input event codes moved up by 8.
constexpr unsigned int keycodeOffset = 8;
// Shift, Lock, Control and Mod1 to Mod5: every subset is one modifier state.
constexpr unsigned int modifierStates = 1u << 8;

} // namespace

X11KeySource::X11KeySource() : X11KeySource(XConnection::shared(), &X11Keyboard::shared()) {}

X11KeySource::X11KeySource(XConnection &connection, X11Keyboard *keyboard)
    : m_connection(&connection), m_keyboard(keyboard)
{
}

void X11KeySource::maskModifierTap()
{
    if (m_keyboard && isOpen() && !m_keyboard->tapNeutralKey())
        qCDebug(lcX11, "no spare keycode to mask a lone modifier tap with");
}

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
    int minKeycode = 0, maxKeycode = 0;
    XDisplayKeycodes(m_connection->display(), &minKeycode, &maxKeycode);
    m_minKeycode = unsigned(minKeycode);
    m_maxKeycode = unsigned(maxKeycode);
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
        // A press one of the grabs froze the keyboard for may still be on its way here; it
        // would no longer be answered, so the server sends it on to the focused window now.
        // (A press being delivered right now is answered once delivery returns.)
        if (!m_answering)
            XAllowEvents(m_connection->display(), ReplayKeyboard, CurrentTime);
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

std::vector<GrabFailure> X11KeySource::setGrabs(const std::vector<KeyGrab> &grabs)
{
    std::vector<GrabFailure> failures;
    if (!isOpen()) {
        for (const KeyGrab &keyGrab : grabs)
            failures.push_back({keyGrab, GrabFailure::Reason::refused, false, 0});
        return failures;
    }
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

    for (const KeyGrab &keyGrab : grabs) {
        const bool held = std::any_of(m_grabs.begin(), m_grabs.end(),
                                      [&](const HeldGrab &h) { return h.grab == keyGrab; });
        if (held)
            continue;
        if (std::optional<GrabFailure> failure = grab(keyGrab))
            failures.push_back(*failure);
    }
    XFlush(m_connection->display());
    return failures;
}

std::vector<unsigned int> X11KeySource::statesFor(const KeyGrab &keyGrab) const
{
    std::vector<unsigned int> states;
    if (keyGrab.anyModifiers) {
        for (unsigned int state = 0; state < modifierStates; ++state)
            states.push_back(state);
    } else if (const std::optional<unsigned int> modifiers = m_modifiers.toX(keyGrab.modifiers)) {
        for (unsigned int locks : m_modifiers.lockCombinations())
            states.push_back(*modifiers | locks);
    }
    return states;
}

std::optional<GrabFailure> X11KeySource::grab(const KeyGrab &keyGrab)
{
    GrabFailure failure{keyGrab, GrabFailure::Reason::refused, false, 0};
    const unsigned int keycode = keyGrab.keyCode + keycodeOffset;
    if (keycode < m_minKeycode || keycode > m_maxKeycode) {
        failure.reason = GrabFailure::Reason::keyOutOfRange;
        return failure;
    }
    if (!keyGrab.anyModifiers) {
        failure.missingModifiers = m_modifiers.missing(keyGrab.modifiers);
        if (failure.missingModifiers || !m_modifiers.toX(keyGrab.modifiers)) {
            failure.reason = GrabFailure::Reason::noSuchModifier;
            return failure;
        }
    }

    // Each state's grab is a request of its own, so a refusal can be traced to its state.
    HeldGrab held{keyGrab, keycode, statesFor(keyGrab)};
    std::vector<unsigned long> serials;
    Display *display = m_connection->display();
    const Window root = DefaultRootWindow(display);
    const auto errors = m_connection->checkedEach([&] {
        for (unsigned int grabState : held.states) {
            serials.push_back(NextRequest(display));
            XGrabKey(display, int(keycode), grabState, root, False, GrabModeAsync, GrabModeSync);
        }
    });
    if (!errors)
        return failure; // the connection went away meanwhile

    std::vector<unsigned int> placed;
    for (size_t i = 0; i < held.states.size(); ++i) {
        const bool refused = std::any_of(errors->begin(), errors->end(), [&](const auto &error) {
            return error.serial == serials[i];
        });
        if (!refused)
            placed.push_back(held.states[i]);
    }
    if (!errors->empty()) {
        const bool taken = std::all_of(errors->begin(), errors->end(),
                                       [](const auto &error) { return error.code == BadAccess; });
        failure.reason = taken ? GrabFailure::Reason::heldElsewhere : GrabFailure::Reason::refused;
        qCDebug(lcX11, "grabbing keycode %u: %zu of %zu states refused, first with X error %d",
                keycode, errors->size(), held.states.size(), errors->front().code);
    }
    // A combination is all or nothing; a key with any modifiers keeps the states it got.
    const bool keep = !placed.empty() && (errors->empty() || keyGrab.anyModifiers);
    held.states = std::move(placed);
    if (!keep) {
        ungrab(held);
        return failure;
    }
    m_grabs.push_back(std::move(held));
    if (errors->empty())
        return std::nullopt;
    failure.partly = true;
    return failure;
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
        const std::optional<GrabFailure> failure = grab(keyGrab);
        if (failure && !failure->partly)
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
        // Only a grab of this program sends key presses to its connection, and the grab has
        // frozen the keyboard until the press is answered.
        const unsigned int keycode = event.xkey.keycode;
        const bool repeat = !m_grabbedDown.insert(keycode).second;
        m_answering = true;
        const bool swallow = deliver({KeyEvent::Kind::press, KeyEvent::Route::grabbed,
                                      std::uint16_t(keycode - keycodeOffset),
                                      m_modifiers.fromX(event.xkey.state), repeat});
        m_answering = false;
        answerGrabbedPress(swallow, event.xkey.time);
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

bool X11KeySource::deliver(const KeyEvent &event)
{
    if (!m_sink)
        return false;
    const Sink sink = m_sink; // the sink may close this source
    return sink(event);
}

void X11KeySource::answerGrabbedPress(bool swallow, unsigned long time)
{
    // Answered even when the sink closed this source meanwhile: the keyboard stays frozen
    // until it is. The press's own time keeps an answer that comes late from releasing a grab
    // a newer press has started.
    if (!m_connection || !m_connection->isOpen() || m_connection->generation() != m_generation)
        return;
    Display *display = m_connection->display();
    if (swallow)
        XUngrabKeyboard(display, time);
    else
        XAllowEvents(display, ReplayKeyboard, time);
    XFlush(display);
}

} // namespace vocari
