#include "hotkey/HotkeyMonitor.h"

#include <QLoggingCategory>
#include <QStringList>
#include <QTimer>
#include <algorithm>

namespace vocari {

Q_LOGGING_CATEGORY(lcHotkey, "vocari.hotkey", QtInfoMsg)

namespace {

const KeyGrab escapeGrab{KeyCode::escape, 0, true};
// An Escape seen only as an observed event waits this long for its grabbed copy (the server
// sends the two together), so that a press the grab did take cancels once, through the grab.
constexpr int kObservedEscapeWaitMs = 60;
// How late the grabbed copy of an Escape that cancelled through the observed keys may come (a
// busy main thread) and still be taken rather than handed on.
constexpr int kLateGrabbedEscapeMs = 1000;

// The failure of one grab among several, if it failed.
const GrabFailure *failureOf(const std::vector<GrabFailure> &failures, const KeyGrab &grab)
{
    const auto found = std::find_if(failures.begin(), failures.end(),
                                    [&grab](const GrabFailure &f) { return f.grab == grab; });
    return found == failures.end() ? nullptr : &*found;
}

QString modifierNames(std::uint64_t modifiers)
{
    static const std::pair<std::uint64_t, const char *> all[] = {{Modifier::control, "Ctrl"},
                                                                 {Modifier::alt, "Alt"},
                                                                 {Modifier::shift, "Shift"},
                                                                 {Modifier::super, "Super"}};
    QStringList names;
    for (const auto &[bit, name] : all) {
        if (modifiers & bit)
            names << QLatin1String(name);
    }
    return names.join(QStringLiteral(" or "));
}

QString cannotGrabMessage(const Hotkey &hotkey, const GrabFailure &failure)
{
    const QString label = hotkey.label();
    switch (failure.reason) {
    case GrabFailure::Reason::heldElsewhere:
        return QStringLiteral("%1 is already used by another program; choose another dictation "
                              "key.")
            .arg(label);
    case GrabFailure::Reason::noSuchModifier:
        return QStringLiteral("%1 cannot be used: the X server has no %2 modifier; choose "
                              "another dictation key.")
            .arg(label, modifierNames(failure.missingModifiers));
    case GrabFailure::Reason::keyOutOfRange:
        return QStringLiteral("%1 cannot be used: key code %2 is beyond the keys the X server "
                              "knows; choose another dictation key.")
            .arg(label)
            .arg(hotkey.keyCode);
    case GrabFailure::Reason::refused:
        break;
    }
    // The X server, the desktop's shortcuts or the keyboards' devices: whatever the source,
    // the key cannot be kept from the window in front.
    return QStringLiteral("%1 cannot be used here, as it cannot be kept from other programs; "
                          "choose another dictation key.")
        .arg(label);
}

} // namespace

HotkeyMonitor::HotkeyMonitor(std::unique_ptr<KeyEventSource> source)
    : m_source(std::move(source)), m_timers(std::make_unique<QObject>())
{
}

HotkeyMonitor::~HotkeyMonitor()
{
    stop();
}

std::vector<KeyGrab> HotkeyMonitor::grabsFor(const Hotkey &hotkey, bool escape)
{
    std::vector<KeyGrab> grabs;
    // Bits beyond the four modifiers are neither shown in the label nor ever held.
    if (!hotkey.modifierOnly)
        grabs.push_back({hotkey.keyCode, hotkey.modifiers & Modifier::mask, false});
    if (escape)
        grabs.push_back(escapeGrab);
    return grabs;
}

bool HotkeyMonitor::start(const Hotkey &hotkey)
{
    stop();
    m_hotkey = hotkey;
    m_source->watchHotkey(hotkey);
    if (!m_source->open([this](const KeyEvent &event) { return handle(event); })) {
        fail(m_source->errorString());
        return false;
    }

    const bool escape = escapeActive && escapeActive();
    const std::vector<KeyGrab> grabs = grabsFor(hotkey, escape);
    const std::vector<GrabFailure> failures = m_source->setGrabs(grabs);
    if (!hotkey.modifierOnly) {
        if (const GrabFailure *failure = failureOf(failures, grabs.front())) {
            m_source->close();
            fail(cannotGrabMessage(hotkey, *failure));
            return false;
        }
    }
    noteEscapeGrab(escape, failures);

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
    m_escapeWhole = false;
    // Checks of Escapes seen before the stop belong to the old watch.
    m_timers = std::make_unique<QObject>();
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
    noteEscapeGrab(wanted, m_source->setGrabs(grabsFor(m_hotkey, wanted)));
}

bool HotkeyMonitor::escapeCancels() const
{
    return isRunning() && (m_source->seesEveryKey() || !m_escapeRefused);
}

void HotkeyMonitor::noteEscapeGrab(bool wanted, const std::vector<GrabFailure> &failures)
{
    const GrabFailure *failure = wanted ? failureOf(failures, escapeGrab) : nullptr;
    m_escapeGrabbed = wanted && (!failure || failure->partly);
    m_escapeWhole = wanted && !failure;
    if (wanted)
        m_escapeRefused = failure && !failure->partly;
    if (!failure)
        return;
    // Said once: the same refusal comes back with every dictation.
    QString note;
    if (m_source->seesEveryKey() && !failure->partly)
        note = QStringLiteral("Escape belongs to another program; it still cancels dictation, "
                              "and reaches that program too.");
    else if (m_source->seesEveryKey())
        note = QStringLiteral("Escape with some modifiers belongs to another program; pressed so, "
                              "it still cancels dictation, and reaches that program too.");
    else if (failure->partly)
        note = QStringLiteral("Escape with some modifiers is held by another program; pressed "
                              "so, it cannot cancel dictation.");
    else if (failure->reason == GrabFailure::Reason::refused)
        note = QStringLiteral("Escape cannot cancel dictation here; the popup's cancel and "
                              "“vocari cancel” still work.");
    else
        note = QStringLiteral("Escape is held by another program, so it cannot cancel dictation.");
    if (note != m_lastEscapeNote)
        qCInfo(lcHotkey).noquote() << note;
    m_lastEscapeNote = note;
}

bool HotkeyMonitor::handle(const KeyEvent &event)
{
    const bool isHotkey = event.keyCode == m_hotkey.keyCode;
    if (event.route == KeyEvent::Route::grabbed) {
        if (event.kind == KeyEvent::Kind::press)
            return handleGrabbedPress(event);
        if (isHotkey && !m_hotkey.modifierOnly)
            setDown(false);
        return false;
    }

    // Observed events: a modifier key alone follows its own presses and releases. A
    // combination's release is seen here once its grab has been handed back to the session.
    if (event.keyCode == KeyCode::escape && event.kind == KeyEvent::Kind::press)
        handleObservedEscape(event);
    if (!isHotkey)
        return false;
    if (m_hotkey.modifierOnly) {
        if (Hotkey::flag(event.keyCode)) {
            const bool press = event.kind == KeyEvent::Kind::press;
            if (press && !event.autoRepeat)
                m_source->maskModifierTap();
            setDown(press);
        }
    } else if (event.kind == KeyEvent::Kind::release) {
        setDown(false);
    }
    return false;
}

void HotkeyMonitor::handleObservedEscape(const KeyEvent &event)
{
    // With the whole grab held, every Escape comes through it; without a grab nothing cancels.
    if (event.autoRepeat || !m_running || m_escapeWhole || !escapeActive || !escapeActive())
        return;
    // The grabbed copy of this press may have come first, or may still come.
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::milliseconds wait(kObservedEscapeWaitMs);
    if (m_grabbedEscapeAt && now - *m_grabbedEscapeAt < wait)
        return;
    QTimer::singleShot(wait, m_timers.get(), [this, now] {
        const bool grabbed = m_grabbedEscapeAt && *m_grabbedEscapeAt >= now;
        if (grabbed || !m_running || !escapeActive || !escapeActive())
            return;
        qCDebug(lcHotkey, "Escape seen outside the grab: cancelling");
        m_observedEscapeAt = std::chrono::steady_clock::now();
        if (const std::function<void()> callback = onEscape)
            callback();
    });
}

bool HotkeyMonitor::handleGrabbedPress(const KeyEvent &event)
{
    if (event.keyCode == KeyCode::escape) {
        if (escapeActive && escapeActive()) {
            m_grabbedEscapeAt = std::chrono::steady_clock::now();
            // A copy, so that the callback may replace the callbacks while it runs.
            if (const std::function<void()> callback = onEscape)
                callback();
            return true;
        }
        // The grab outlived the state that wanted it: this Escape goes on to the focused
        // window, and the next ones are not taken at all. The late copy of a press that has
        // cancelled through the observed keys is still taken.
        refreshEscapeGrab();
        const auto late = std::chrono::milliseconds(kLateGrabbedEscapeMs);
        return m_observedEscapeAt && std::chrono::steady_clock::now() - *m_observedEscapeAt < late;
    }
    if (m_hotkey.modifierOnly || event.keyCode != m_hotkey.keyCode)
        return false;
    // Extra modifiers make another combination.
    if ((event.modifiers & Modifier::mask) != (m_hotkey.modifiers & Modifier::mask))
        return false;
    if (!event.autoRepeat && !m_down)
        setDown(true);
    return true;
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
