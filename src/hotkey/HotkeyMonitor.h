#pragma once

#include "hotkey/Hotkey.h"

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
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

// A key combination to take away from the focused window: the key with exactly these modifiers
// (lock keys such as Caps Lock and Num Lock do not matter).
struct KeyGrab
{
    std::uint16_t keyCode = 0;
    std::uint64_t modifiers = 0;
    bool operator==(const KeyGrab &) const = default;
};

// Where the monitor gets its key events from: the desktop's keyboard in the program, a script
// in the tests.
class KeyEventSource
{
public:
    using Sink = std::function<void(const KeyEvent &)>;

    virtual ~KeyEventSource() = default;

    // Starts delivering every key press and release of the session to `sink`, on the main
    // thread. False when the keyboard cannot be watched; errorString() then says why.
    virtual bool open(Sink sink) = 0;
    // Stops delivering and gives back every grab. Safe when not open.
    virtual void close() = 0;
    // Whether events are being delivered; false also once the connection behind it is lost.
    virtual bool isOpen() const = 0;
    // Makes exactly these combinations the grabbed ones, keeping those already held. Returns
    // the ones that could not be grabbed because another program holds them.
    virtual std::vector<KeyGrab> setGrabs(const std::vector<KeyGrab> &grabs) = 0;
    virtual QString errorString() const = 0;
};

// Watches the keyboard of the whole session for the dictation key and reports it as pressed and
// released; while the owner says a dictation can be cancelled, it also reports Escape. Presses
// of the dictation key and a cancelling Escape never reach the focused window (a key source may
// let their releases through: a release without its press is harmless), except that a modifier
// key used on its own is only watched, so other programs still see it.
//
// A modifier key used on its own follows its own presses and releases (auto-repeat ignored). A
// combination or function key is grabbed: its press (with exactly the chosen modifiers) starts
// it, auto-repeat and presses while it is down are swallowed without a call, and its release
// ends it whatever modifiers are still held. A release without a press the monitor saw does
// nothing. All callbacks run on the main thread, from inside event handling; they must not
// block.
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
    // watched or another program already holds the combination; errorString() says why.
    bool start(const Hotkey &hotkey);
    // Stops watching and forgets whether the key is down, without calling onRelease.
    void stop();

    bool isRunning() const;
    bool isDown() const { return m_down; }
    Hotkey hotkey() const { return m_hotkey; }
    // Changes the key; a running monitor restarts with it.
    void setHotkey(const Hotkey &hotkey);
    // Why the last start failed, empty after a successful one.
    QString errorString() const { return m_error; }

    // Takes Escape from the focused window while escapeActive() says so, and gives it back when
    // it no longer does. Called by the owner whenever the answer may have changed.
    void refreshEscapeGrab();

    // The grabs the monitor wants for a key: none for a modifier key alone, else the key with
    // its modifiers; plus plain Escape while Escape cancels.
    static std::vector<KeyGrab> grabsFor(const Hotkey &hotkey, bool escape);

private:
    void handle(const KeyEvent &event);
    void handleGrabbedPress(const KeyEvent &event);
    void setDown(bool down);
    void fail(const QString &message);

    std::unique_ptr<KeyEventSource> m_source;
    Hotkey m_hotkey;
    bool m_running = false;
    bool m_down = false;
    bool m_escapeGrabbed = false;
    QString m_error;
    QString m_lastLoggedError;
};

} // namespace vocari
