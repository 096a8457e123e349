#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <functional>
#include <vector>

namespace vocari::test {

class XvfbDisplay;

// The private display of the X11 test program, or null when Xvfb could not start.
XvfbDisplay *testDisplay();
// Why there is no display.
QString noDisplayReason();

// Runs the event loop until the condition holds or the time is up; returns the condition.
bool waitUntil(const std::function<bool()> &condition, int timeoutMs = 10000);

// Runs xdotool with the arguments on the test display and lets the program's own X
// connection handle what it caused; true when xdotool succeeded.
bool xdotool(const QStringList &arguments);

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
        bool autoRepeat = false;
        QString text;
    };

    TestWindow() = default;
    ~TestWindow();
    TestWindow(const TestWindow &) = delete;
    TestWindow &operator=(const TestWindow &) = delete;

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

    bool waitForText(const QString &expected, int timeoutMs = 10000);
    // Empties the editor and forgets the keys seen so far.
    bool clear();
    // Presses a key that nothing else uses and waits until the window has seen it, so that
    // every key sent before has been delivered; then lets the program's own connection catch
    // up with the server.
    bool settle();

private:
    bool launch(const QString &program, const QStringList &arguments);
    void readOutput();

    QProcess m_process;
    QByteArray m_pending;
    bool m_ready = false;
    qint64 m_pid = 0;
    unsigned long m_window = 0;
    QString m_text;
    std::vector<Key> m_keys;
};

} // namespace vocari::test
