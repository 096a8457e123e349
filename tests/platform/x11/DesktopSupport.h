#pragma once

#include "support/EventLoop.h"

#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

struct _XDisplay;

namespace vocari::test {

class XvfbDisplay;

// The private display of the X11 test program, or null when Xvfb could not start.
XvfbDisplay *testDisplay();
// Why there is no display.
QString noDisplayReason();

// Runs xdotool with the space-separated words on the test display and lets the program's own X
// connection handle what it caused; true when xdotool succeeded.
bool xdotool(const QString &words);

// A test window in a child process, with what it has reported so far: the Qt program
// (TestWindow.cpp) or its GTK 3 counterpart (gtk_test_field.py).
class TestWindow
{
public:
    struct Key
    {
        bool press = false;
        unsigned int keycode = 0; // X keycode
        unsigned int state = 0;   // X modifier state
        QString text;
    };

    TestWindow() = default;
    ~TestWindow();
    TestWindow(const TestWindow &) = delete;
    TestWindow &operator=(const TestWindow &) = delete;

    // Variables the window starts with beyond this process's own, such as a Wayland session's;
    // set before start().
    void setEnvironment(const QMap<QString, QString> &variables) { m_environment = variables; }
    // Starts the window and waits until it has the keyboard focus.
    bool start(const QStringList &arguments = {});
    // The same with a GTK entry; false also when GTK 3 for Python is not installed.
    bool startGtk();

    QString text() const { return m_text; }
    const std::vector<Key> &keys() const { return m_keys; }
    int presses(unsigned int keycode) const;
    const Key *lastPress(unsigned int keycode) const;
    qint64 processId() const { return m_pid; }
    unsigned long windowId() const { return m_window; }

    bool waitForText(const QString &expected);
    // Empties the editor and forgets the keys seen so far.
    bool clear();
    // Presses a key that nothing else uses and waits until the window has seen it, so that
    // every key sent before has been delivered; then lets the program's own connection catch
    // up with the server.
    bool settle();
    // Runs xdotool with the words, then settles.
    bool send(const QString &words) { return xdotool(words) && settle(); }

private:
    bool launch(const QString &program, const QStringList &arguments);
    void readOutput();

    QProcess m_process;
    QMap<QString, QString> m_environment;
    QByteArray m_pending;
    bool m_ready = false;
    qint64 m_pid = 0;
    unsigned long m_window = 0;
    QString m_text;
    std::vector<Key> m_keys;
};

} // namespace vocari::test

// Direct requests to the test display, for set-ups the program itself never makes. Each opens
// its own connection to $DISPLAY.
namespace vocari::test::x11 {

// Sets how soon and how fast a held key repeats; returns the old values to restore.
struct Repeat
{
    unsigned int delayMs = 0, intervalMs = 0;
};
Repeat setAutoRepeat(Repeat repeat);

// The core keyboard mapping, every keysym of every keycode.
std::vector<unsigned long> keyboardMapping();

// Whether Caps Lock is locked.
bool capsLockOn();

// Sets (or with 0, removes) _NET_ACTIVE_WINDOW on the root window, as a window manager would.
void setActiveWindowProperty(unsigned long window);

// Another client holding a key grab, until it is destroyed.
class ForeignGrab
{
public:
    ForeignGrab(const char *keysymName, unsigned int xModifiers);

private:
    std::unique_ptr<_XDisplay, int (*)(_XDisplay *)> m_display;
};

// Counts the core key presses of one X keycode that reach the program's shared connection,
// which are the presses its key grabs took, auto-repeats included.
class GrabbedPressCounter
{
public:
    explicit GrabbedPressCounter(unsigned int keycode);
    ~GrabbedPressCounter();
    GrabbedPressCounter(const GrabbedPressCounter &) = delete;
    GrabbedPressCounter &operator=(const GrabbedPressCounter &) = delete;

    int count() const { return m_count; }

private:
    int m_handler = 0;
    int m_count = 0;
};

inline constexpr unsigned int controlMask = 1 << 2;
inline constexpr unsigned int mod1Mask = 1 << 3;

} // namespace vocari::test::x11
