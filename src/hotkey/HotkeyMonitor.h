#pragma once

#include "hotkey/Hotkey.h"

#include <QObject>
#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace vocari {

// One key going down or up somewhere in the login session, as a key source reports it.
struct KeyEvent
{
    enum class Kind
    {
        press,
        release
    };
    // Observed events are seen by the focused window as well; grabbed events were taken away
    // from it and reach only this program.
    enum class Route
    {
        observed,
        grabbed
    };

    Kind kind = Kind::press;
    Route route = Route::observed;
    std::uint16_t keyCode = 0;   // Linux input event code
    std::uint64_t modifiers = 0; // Modifier bits held at the time (grabbed events only)
    bool autoRepeat = false;     // a repeated press of a key that is held down
};

// A key to take away from the focused window: the key with exactly these modifiers, or with
// whatever modifiers are held. Lock keys such as Caps Lock and Num Lock never matter.
struct KeyGrab
{
    std::uint16_t keyCode = 0;
    std::uint64_t modifiers = 0; // Modifier bits; unused with anyModifiers
    bool anyModifiers = false;
    bool operator==(const KeyGrab &) const = default;
};

// Why a key source could not take a grab, or could take it only in part.
struct GrabFailure
{
    enum class Reason
    {
        heldElsewhere,  // another program holds the combination
        noSuchModifier, // the keyboard has no modifier for some of the bits
        keyOutOfRange,  // the key code lies outside what the keyboard can report
        refused         // any other refusal
    };

    KeyGrab grab;
    Reason reason = Reason::heldElsewhere;
    // Only for anyModifiers: the grab is held, but some modifier combinations of the key are
    // held by another program and reach that program instead.
    bool partly = false;
    std::uint64_t missingModifiers = 0; // with noSuchModifier
};

// Where the monitor gets its key events from: the desktop's keyboard in the program, a script
// in the tests.
class KeyEventSource
{
public:
    // Called for every key event. For a grabbed press the answer decides where the press goes:
    // true swallows it, false lets it go on to the focused window as if no grab had taken it.
    // The answer is ignored for every other event.
    using Sink = std::function<bool(const KeyEvent &)>;

    virtual ~KeyEventSource() = default;

    // The dictation key the monitor is about to watch, told before every open(). A source that
    // sees only the keys it registered with the desktop (a shortcut service) registers this
    // one and reports it as its own events: a modifier key alone as observed presses and
    // releases, any other key as grabbed ones with the key's modifiers. A source that sees
    // every key ignores it.
    virtual void watchHotkey(const Hotkey &) {}
    // Starts delivering every key press and release of the session to `sink`, on the main
    // thread. False when the keyboard cannot be watched; errorString() then says why.
    virtual bool open(Sink sink) = 0;
    // Stops delivering and gives back every grab. Safe when not open.
    virtual void close() = 0;
    // Whether events are being delivered; false also once the connection behind it is lost.
    virtual bool isOpen() const = 0;
    // Makes exactly these the grabbed keys, keeping those already held. Returns the ones that
    // could not be taken, or were taken only in part, and why.
    virtual std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &grabs) = 0;
    virtual QString errorString() const = 0;
    // Whether the user declined the desktop's prompt for the key, which is not shown again by
    // itself; askAgain() lets the next open() show it once more.
    virtual bool declined() const { return false; }
    virtual void askAgain() {}
    // How the desktop describes the key it runs the dictation on, where the desktop binds it
    // (the user may have chosen another there); empty otherwise.
    virtual QString triggerDescription() const { return {}; }
    // What is wrong with the key the desktop bound, for the settings; empty while all is well.
    virtual QString bindingWarning() const { return {}; }
    // Whether a modifier key alone (Right Alt) can be the dictation key.
    virtual bool bindsModifierAlone() const { return true; }
    // Whether every key of the session reaches the sink as an observed event, grabbed or not,
    // so that a key the desktop keeps from a grab (Escape with a modifier a window manager
    // holds) is still seen.
    virtual bool seesEveryKey() const { return false; }
    // Makes sure the focused window does not take a modifier key pressed on its own for a
    // lone tap when it is let go (Firefox and others open their menu bar on a lone Alt),
    // with a key event that does nothing else. Called while the key is down.
    virtual void maskModifierTap() {}
};

// Watches the keyboard of the whole session for the dictation key and reports it as pressed and
// released; while the owner says a dictation can be cancelled, it also reports Escape, with
// whatever modifiers are held (the dictation key among them). Presses of the dictation key and
// a cancelling Escape never reach the focused window (a key source may let their releases
// through: a release without its press is harmless), except that a modifier key used on its own
// is only watched, so other programs still see it. An Escape taken by a grab that has outlived
// its reason goes on to the focused window.
//
// Where the desktop keeps Escape with some modifiers from the grab (a window manager holding
// Alt+Escape), an Escape seen only through the observed events cancels as well; it then also
// reaches its owner.
//
// A modifier key used on its own follows its own presses and releases (auto-repeat ignored). A
// combination or function key is grabbed: its press (with exactly the chosen modifiers) starts
// it, auto-repeat and presses while it is down are swallowed without a call, and its release
// ends it whatever modifiers are still held. A release without a press the monitor saw does
// nothing. All callbacks run on the main thread, from inside event handling (an Escape seen
// only among the observed keys from a short timer after it); they must not block.
class HotkeyMonitor
{
public:
    explicit HotkeyMonitor(std::unique_ptr<KeyEventSource> source);
    ~HotkeyMonitor();
    HotkeyMonitor(const HotkeyMonitor &) = delete;
    HotkeyMonitor &operator=(const HotkeyMonitor &) = delete;

    std::function<void()> onPress;
    std::function<void()> onRelease;
    std::function<void()> onEscape;
    // Whether Escape should cancel now. Asked when the monitor starts, at refreshEscapeGrab()
    // and on every Escape press that reaches the monitor.
    std::function<bool()> escapeActive = [] { return false; };

    // Stops, stores the key and starts watching for it. False when the keyboard cannot be
    // watched or the combination cannot be grabbed; errorString() says why.
    bool start(const Hotkey &hotkey);
    // Stops watching and forgets whether the key is down, without calling onRelease.
    void stop();

    bool isRunning() const;
    bool isDown() const { return m_down; }
    Hotkey hotkey() const { return m_hotkey; }
    // Changes the key; a running monitor restarts with it.
    void setHotkey(const Hotkey &hotkey);
    // Why the last start failed, empty after a successful one.
    // A source that fails after it opened (a desktop that answers later) says why itself.
    QString errorString() const
    {
        return !m_error.isEmpty() || isRunning() ? m_error : m_source->errorString();
    }
    // Whether the user declined the desktop's prompt for the key; askAgain() lets the next
    // start show it again.
    bool declined() const { return m_source->declined(); }
    void askAgain() { m_source->askAgain(); }
    QString triggerDescription() const { return m_source->triggerDescription(); }
    QString bindingWarning() const { return m_source->bindingWarning(); }
    bool bindsModifierAlone() const { return m_source->bindsModifierAlone(); }

    // Takes Escape from the focused window while escapeActive() says so, and gives it back when
    // it no longer does. Called by the owner whenever the answer may have changed.
    void refreshEscapeGrab();
    // Whether Escape can cancel a dictation now: the monitor runs, and Escape is either seen
    // whatever grabs the desktop allows, or its grab has not been refused.
    bool escapeCancels() const;

    // The grabs the monitor wants for a key: none for a modifier key alone, else the key with
    // its modifiers; plus Escape with any modifiers while Escape cancels.
    static std::vector<KeyGrab> grabsFor(const Hotkey &hotkey, bool escape);

private:
    bool handle(const KeyEvent &event);
    bool handleGrabbedPress(const KeyEvent &event);
    void handleObservedEscape(const KeyEvent &event);
    void noteEscapeGrab(bool wanted, const std::vector<GrabFailure> &failures);
    void setDown(bool down);
    void fail(const QString &message);

    std::unique_ptr<KeyEventSource> m_source;
    Hotkey m_hotkey;
    bool m_running = false;
    bool m_down = false;
    bool m_escapeGrabbed = false;
    bool m_escapeWhole = false;        // the grab takes Escape with every modifier
    bool m_escapeRefused = false;      // the last try to take Escape failed outright
    std::unique_ptr<QObject> m_timers; // context of pending checks; gone with the monitor
    // When a grabbed Escape last cancelled, to tell its observed copy from a press of its own.
    std::optional<std::chrono::steady_clock::time_point> m_grabbedEscapeAt;
    // When an Escape seen only among the observed keys last cancelled.
    std::optional<std::chrono::steady_clock::time_point> m_observedEscapeAt;
    QString m_error;
    QString m_lastLoggedError;
    QString m_lastEscapeNote;
};

} // namespace vocari
