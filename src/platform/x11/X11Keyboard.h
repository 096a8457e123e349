#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace vocari {

class XConnection;
class X11Keymap;

// Synthetic keys for the focused window, posted through XTEST.
//
// Modifiers the user holds at that moment (such as a dictation key that is still down) would
// turn typed letters into shortcuts, so they are lifted for the keystrokes and pressed again
// afterwards, unless the user let go of them on the physical keyboard meanwhile; a modifier
// pressed again is followed by a neutral key, so that letting it go later is no lone tap of it
// for the program in front; Caps Lock is
// unlocked for the keystrokes too, and a held key that is to be typed (the Space of a held
// Ctrl+Alt+Space) is let go first. The program's own key monitor does not see any of this.
//
// A character the keymap has no key for is typed by binding its keysym to a keycode that
// carries no symbol. Programs read the new mapping when they get to the key event, which can
// be well after it was posted, so the borrowed keycodes keep their symbols until typing has
// been idle for a while and are then cleared again.
class X11Keyboard : public QObject
{
    Q_OBJECT
public:
    enum class Shortcut
    {
        ctrlV,
        ctrlShiftV,
        shiftInsert
    };

    explicit X11Keyboard(XConnection &connection, QObject *parent = nullptr);
    ~X11Keyboard() override;

    // The keyboard of the program's shared X connection.
    static X11Keyboard &shared();

    // Types the chunks one after the other, each character through its keysym; the server is
    // flushed after every chunk. Returns the characters that were sent, which leaves out those
    // without a keysym or a keycode to type them with; none when there is no display.
    std::optional<QString> type(const QStringList &chunks);
    // Presses BackSpace `count` times.
    bool erase(std::int64_t count);
    // Presses the paste shortcut once.
    bool paste(Shortcut shortcut);
    // Taps a key that means nothing to any program, leaving every held key down, so that a
    // modifier held meanwhile is not taken for a lone tap when it is let go (a lone Alt opens
    // the menu bar in Firefox). False when the keymap has no spare keycode.
    bool tapNeutralKey();

    // Whether some keycodes are bound to characters the keymap lacked.
    bool hasBorrowedKeycodes() const { return !m_borrowed.empty(); }
    // Clears the borrowed keycodes now instead of after the idle delay.
    void restoreKeymap();

    // How long typing must be idle before borrowed keycodes are cleared.
    static constexpr int restoreDelayMs = 2000;

private:
    class Posting;
    struct Borrowed
    {
        unsigned int keycode = 0;
        unsigned long keysym = 0;
        std::chrono::steady_clock::time_point lastPressed;
    };

    bool ready();
    bool isBorrowed(unsigned int keycode) const;
    unsigned int borrowKeycode(unsigned long keysym, const X11Keymap &keymap);
    // The spare keycode kept free of borrowed characters for neutral taps, or 0.
    unsigned int neutralKeycode(const X11Keymap &keymap) const;

    QPointer<XConnection> m_connection;
    int m_generation = 0;
    std::vector<Borrowed> m_borrowed;
    QTimer m_restoreTimer;
};

} // namespace vocari
