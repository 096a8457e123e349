#pragma once

#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/X11Keyboard.h"
#include "platform/x11/X11Keymap.h"
#include "platform/x11/XConnection.h"

#include <optional>
#include <set>
#include <vector>

namespace vocari {

// The session's keyboard as the X server shows it. Every key of every keyboard is observed
// through XInput 2 raw events on the root window, which the server sends whatever window has
// the focus and whatever grabs are active, and which are never taken from anyone. Grabbed keys
// are passive key grabs on the root window: a combination once per combination of lock keys,
// a key with any modifiers once per modifier state, each state on its own so that a state
// another program holds (a window manager's Alt+Escape, say) does not cost the others.
//
// The grabs freeze the keyboard when they take a press. The press is delivered, and then the
// keyboard is given back at once: when the monitor swallows the press, the grab simply ends and
// the keys queued meanwhile, synthetic ones the monitor's callbacks posted among them (erasing
// typed text on Escape), go on to the focused window in order; when it does not, the server
// replays the press to the focused window as if the grab had not been there. The release of a
// grabbed key is therefore usually seen as an observed event, and auto-repeat of a held
// combination starts the grab again and arrives as a repeated grabbed press.
class X11KeySource final : public KeyEventSource
{
public:
    // A source on the program's shared X connection, masking lone modifier taps with the
    // shared keyboard.
    X11KeySource();
    // A source on that connection; `keyboard` masks lone modifier taps (none: not masked).
    explicit X11KeySource(XConnection &connection, X11Keyboard *keyboard = nullptr);
    ~X11KeySource() override;

    bool open(Sink sink) override;
    void close() override;
    bool isOpen() const override;
    std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &grabs) override;
    QString errorString() const override { return m_error; }
    bool seesEveryKey() const override { return true; }
    void maskModifierTap() override;

private:
    struct HeldGrab
    {
        KeyGrab grab;
        unsigned int keycode = 0;
        std::vector<unsigned int> states; // every X modifier state grabbed for it
    };

    bool connectionIsCurrent() const;
    // Places the grab; what went wrong, if anything. A grab held only in part is kept.
    std::optional<GrabFailure> grab(const KeyGrab &grab);
    std::vector<unsigned int> statesFor(const KeyGrab &grab) const;
    void ungrab(const HeldGrab &held);
    void regrabAll();
    void handleEvent(_XEvent &event);
    bool deliver(const KeyEvent &event);
    void answerGrabbedPress(bool swallow, unsigned long time);

    QPointer<XConnection> m_connection;
    QPointer<X11Keyboard> m_keyboard;
    Sink m_sink;
    bool m_open = false;
    bool m_answering = false; // a grabbed press is being delivered
    int m_generation = 0;
    int m_handler = 0;
    unsigned int m_minKeycode = 8;
    unsigned int m_maxKeycode = 255;
    X11Modifiers m_modifiers;
    std::vector<HeldGrab> m_grabs;
    // X keycodes whose grabbed press was delivered and whose release has not been seen yet.
    std::set<unsigned int> m_grabbedDown;
    QString m_error;
};

} // namespace vocari
