#pragma once

#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/X11Keymap.h"
#include "platform/x11/XConnection.h"

#include <set>
#include <vector>

namespace vocari {

// The session's keyboard as the X server shows it. Every key of every keyboard is observed
// through XInput 2 raw events on the root window, which the server sends whatever window has
// the focus and whatever grabs are active, and which are never taken from anyone. Grabbed
// combinations are passive key grabs on the root window, one per combination of lock keys.
//
// The keyboard grab that a grabbed press starts is handed back at once: synthetic keys posted
// while the key is still held (live typing, erasing on Escape) must reach the focused window,
// not this program. The release of a grabbed key is therefore usually seen as an observed
// event, and auto-repeat of a held combination starts the grab again and arrives as a repeated
// grabbed press. A key typed in the instant before the grab is handed back reaches only this
// program, which is why the hand-back happens first thing.
class X11KeySource final : public KeyEventSource
{
public:
    // A source on the program's shared X connection.
    X11KeySource();
    explicit X11KeySource(XConnection &connection);
    ~X11KeySource() override;

    bool open(Sink sink) override;
    void close() override;
    bool isOpen() const override;
    std::vector<KeyGrab> setGrabs(const std::vector<KeyGrab> &grabs) override;
    QString errorString() const override { return m_error; }

private:
    struct HeldGrab
    {
        KeyGrab grab;
        unsigned int keycode = 0;
        std::vector<unsigned int> states; // every X modifier state grabbed for it
    };

    bool connectionIsCurrent() const;
    bool grab(const KeyGrab &grab);
    void ungrab(const HeldGrab &held);
    void regrabAll();
    void handleEvent(_XEvent &event);
    void deliver(const KeyEvent &event);

    QPointer<XConnection> m_connection;
    Sink m_sink;
    bool m_open = false;
    int m_generation = 0;
    int m_handler = 0;
    X11Modifiers m_modifiers;
    std::vector<HeldGrab> m_grabs;
    // X keycodes whose grabbed press was delivered and whose release has not been seen yet.
    std::set<unsigned int> m_grabbedDown;
    QString m_error;
};

} // namespace vocari
