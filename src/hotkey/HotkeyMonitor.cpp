#include "hotkey/HotkeyMonitor.h"

#include <QLoggingCategory>
#include <algorithm>

namespace vocari {

Q_LOGGING_CATEGORY(lcHotkey, "vocari.hotkey", QtInfoMsg)

namespace {

bool contains(const std::vector<KeyGrab> &grabs, const KeyGrab &grab)
{
    return std::find(grabs.begin(), grabs.end(), grab) != grabs.end();
}

const KeyGrab escapeGrab{KeyCode::escape, 0};

} // namespace

HotkeyMonitor::HotkeyMonitor(std::unique_ptr<KeyEventSource> source) : m_source(std::move(source))
{
}

HotkeyMonitor::~HotkeyMonitor()
{
    stop();
}

std::vector<KeyGrab> HotkeyMonitor::grabsFor(const Hotkey &hotkey, bool escape)
{
    std::vector<KeyGrab> grabs;
    if (!hotkey.modifierOnly)
        grabs.push_back({hotkey.keyCode, hotkey.modifiers});
    if (escape)
        grabs.push_back(escapeGrab);
    return grabs;
}

bool HotkeyMonitor::start(const Hotkey &hotkey)
{
    stop();
    m_hotkey = hotkey;
    if (!m_source->open([this](const KeyEvent &event) { handle(event); })) {
        fail(m_source->errorString());
        return false;
    }

    const bool escape = escapeActive && escapeActive();
    const std::vector<KeyGrab> failed = m_source->setGrabs(grabsFor(hotkey, escape));
    if (!hotkey.modifierOnly && contains(failed, KeyGrab{hotkey.keyCode, hotkey.modifiers})) {
        m_source->close();
        fail(QStringLiteral("%1 is already used by another program; choose another dictation "
                            "key.")
                 .arg(hotkey.label()));
        return false;
    }
    m_escapeGrabbed = escape && !contains(failed, escapeGrab);
    if (escape && !m_escapeGrabbed)
        qCWarning(lcHotkey, "Escape is held by another program, so it cannot cancel dictation.");

    m_running = true;
    m_error.clear();
    m_lastLoggedError.clear();
    return true;
}

void HotkeyMonitor::stop()
{
    if (m_source)
        m_source->close();
    m_running = false;
    m_down = false;
    m_escapeGrabbed = false;
}

bool HotkeyMonitor::isRunning() const
{
    return m_running && m_source->isOpen();
}

void HotkeyMonitor::setHotkey(const Hotkey &hotkey)
{
    if (m_running)
        start(hotkey);
    else
        m_hotkey = hotkey;
}

void HotkeyMonitor::refreshEscapeGrab()
{
    if (!isRunning())
        return;
    const bool wanted = escapeActive && escapeActive();
    if (wanted == m_escapeGrabbed)
        return;
    const std::vector<KeyGrab> failed = m_source->setGrabs(grabsFor(m_hotkey, wanted));
    m_escapeGrabbed = wanted && !contains(failed, escapeGrab);
    if (wanted && !m_escapeGrabbed)
        qCWarning(lcHotkey, "Escape is held by another program, so it cannot cancel dictation.");
}

void HotkeyMonitor::handle(const KeyEvent &event)
{
    const bool isHotkey = event.keyCode == m_hotkey.keyCode;
    if (event.route == KeyEvent::Route::grabbed) {
        if (event.kind == KeyEvent::Kind::press)
            handleGrabbedPress(event);
        else if (isHotkey && !m_hotkey.modifierOnly)
            setDown(false);
        return;
    }

    // Observed events: a modifier key alone follows its own presses and releases. A
    // combination's release is seen here once its grab has been handed back to the session.
    if (!isHotkey)
        return;
    if (m_hotkey.modifierOnly) {
        if (!Hotkey::flag(event.keyCode))
            return;
        setDown(event.kind == KeyEvent::Kind::press);
    } else if (event.kind == KeyEvent::Kind::release) {
        setDown(false);
    }
}

void HotkeyMonitor::handleGrabbedPress(const KeyEvent &event)
{
    if (event.keyCode == KeyCode::escape) {
        if (escapeActive && escapeActive()) {
            if (onEscape)
                onEscape();
        } else {
            // The grab outlived the state that wanted it: hand Escape back.
            refreshEscapeGrab();
        }
        return;
    }
    if (m_hotkey.modifierOnly || event.keyCode != m_hotkey.keyCode)
        return;
    // Extra modifiers make another combination.
    if ((event.modifiers & Modifier::mask) != m_hotkey.modifiers)
        return;
    if (event.autoRepeat || m_down)
        return;
    setDown(true);
}

void HotkeyMonitor::setDown(bool down)
{
    if (down == m_down)
        return;
    m_down = down;
    // A copy, so that a callback may replace the callbacks while it runs.
    const std::function<void()> callback = down ? onPress : onRelease;
    if (callback)
        callback();
}

void HotkeyMonitor::fail(const QString &message)
{
    m_error = message;
    if (message != m_lastLoggedError)
        qCWarning(lcHotkey).noquote() << message;
    m_lastLoggedError = message;
}

} // namespace vocari
