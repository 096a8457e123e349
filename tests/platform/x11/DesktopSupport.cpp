// The harness of the X11 desktop tests, and their main(): a private Xvfb display for the whole
// program, and a Qt GUI application on it (the clipboard needs one).

#include "DesktopSupport.h"

#include "XvfbDisplay.h"
#include "platform/x11/XConnection.h"

#include <QGuiApplication>
#include <QUrl>
#include <gtest/gtest.h>

// Xlib last: its macros must not meet the headers above.
#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace vocari::test {

namespace {

XvfbDisplay *display = nullptr;
QString reason;

// Pause (X keycode 127) is the key the tests press to know that earlier keys have arrived: it
// types nothing and, unlike the function keys under Ctrl+Alt, the server never acts on it.
constexpr unsigned int settleKeycode = 127;

QString decoded(const QByteArray &field)
{
    return field == "-" ? QString() : QUrl::fromPercentEncoding(field);
}

} // namespace

XvfbDisplay *testDisplay()
{
    return display;
}

QString noDisplayReason()
{
    return reason;
}

bool xdotool(const QString &words)
{
    // xdotool's server requests are all handled once it has exited; the program then catches
    // up with the events they caused, as its event loop would have done meanwhile.
    const bool done = QProcess::execute(QStringLiteral("xdotool"), words.split(u' ')) == 0;
    XConnection::shared().sync();
    return done;
}

TestWindow::~TestWindow()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.write("quit\n");
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool TestWindow::start(const QStringList &arguments)
{
    return launch(QStringLiteral(VOCARI_TEST_WINDOW), arguments);
}

bool TestWindow::startGtk()
{
    // Debian's GTK bindings belong to the system's Python, whatever python3 comes first on
    // the path.
    return launch(QStringLiteral("/usr/bin/python3"), {QStringLiteral(VOCARI_GTK_TEST_FIELD)});
}

bool TestWindow::launch(const QString &program, const QStringList &arguments)
{
    QObject::connect(&m_process, &QProcess::readyReadStandardOutput, &m_process,
                     [this] { readOutput(); });
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // In sanitizer builds the window would report, at exit, a buffer that the D-Bus library
    // keeps for the life of the process; it is not the program's to free.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString sanitizer = environment.value(QStringLiteral("ASAN_OPTIONS"));
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
                       sanitizer.isEmpty() ? QStringLiteral("detect_leaks=0")
                                           : sanitizer + QStringLiteral(":detect_leaks=0"));
    for (auto variable = m_environment.begin(); variable != m_environment.end(); ++variable) {
        if (variable.value().isNull())
            environment.remove(variable.key());
        else
            environment.insert(variable.key(), variable.value());
    }
    m_process.setProcessEnvironment(environment);
    m_process.start(program, arguments);
    return m_process.waitForStarted(10000) &&
           waitUntil([this] { return m_ready || m_process.state() == QProcess::NotRunning; },
                     std::chrono::seconds(15)) &&
           m_ready;
}

void TestWindow::readOutput()
{
    m_pending += m_process.readAllStandardOutput();
    qsizetype end = 0;
    while ((end = m_pending.indexOf('\n')) >= 0) {
        const QByteArray line = m_pending.left(end);
        m_pending.remove(0, end + 1);
        const QList<QByteArray> fields = line.split(' ');
        if (fields.value(0) == "ready" && fields.size() == 3) {
            m_window = fields[1].toULong();
            m_pid = fields[2].toLongLong();
            m_ready = true;
        } else if (fields.value(0) == "text" && fields.size() == 2) {
            m_text = decoded(fields[1]);
        } else if ((fields.value(0) == "press" || fields.value(0) == "release") &&
                   fields.size() == 5) {
            m_keys.push_back(
                {fields[0] == "press", fields[1].toUInt(), fields[2].toUInt(), decoded(fields[4])});
        }
    }
}

int TestWindow::presses(unsigned int keycode) const
{
    int count = 0;
    for (const Key &key : m_keys)
        count += key.press && key.keycode == keycode;
    return count;
}

const TestWindow::Key *TestWindow::lastPress(unsigned int keycode) const
{
    for (auto key = m_keys.rbegin(); key != m_keys.rend(); ++key) {
        if (key->press && key->keycode == keycode)
            return &*key;
    }
    return nullptr;
}

bool TestWindow::waitForText(const QString &expected)
{
    return waitUntil([&] { return m_text == expected; });
}

bool TestWindow::clear()
{
    m_process.write("clear\n");
    const bool cleared = m_text.isEmpty() || waitForText(QString());
    m_keys.clear();
    return cleared;
}

bool TestWindow::settle()
{
    const int before = presses(settleKeycode);
    if (!xdotool(QStringLiteral("key %1").arg(settleKeycode)))
        return false;
    const bool seen = waitUntil([&] { return presses(settleKeycode) > before; });
    if (!seen) {
        // Which key went astray is easier to tell from everything the window did see.
        for (const Key &key : m_keys)
            qWarning("the window saw %s %u state %u text %s", key.press ? "press" : "release",
                     key.keycode, key.state, qPrintable(key.text));
    }
    XConnection::shared().sync();
    return seen;
}

} // namespace vocari::test

namespace vocari::test::x11 {

namespace {

// A connection of its own for one helper call; null when the display cannot be reached.
using Connection = std::unique_ptr<Display, int (*)(Display *)>;
Connection openDisplay()
{
    return {XOpenDisplay(nullptr), XCloseDisplay};
}

} // namespace

Repeat setAutoRepeat(Repeat repeat)
{
    const Connection display = openDisplay();
    Repeat old;
    if (!display)
        return old;
    XkbGetAutoRepeatRate(display.get(), XkbUseCoreKbd, &old.delayMs, &old.intervalMs);
    XkbSetAutoRepeatRate(display.get(), XkbUseCoreKbd, repeat.delayMs, repeat.intervalMs);
    XSync(display.get(), False);
    return old;
}

std::vector<unsigned long> keyboardMapping()
{
    const Connection display = openDisplay();
    std::vector<unsigned long> mapping;
    if (!display)
        return mapping;
    int first = 0, last = 0, perKeycode = 0;
    XDisplayKeycodes(display.get(), &first, &last);
    KeySym *symbols =
        XGetKeyboardMapping(display.get(), KeyCode(first), last - first + 1, &perKeycode);
    mapping.assign(symbols, symbols + (last - first + 1) * perKeycode);
    XFree(symbols);
    return mapping;
}

bool capsLockOn()
{
    const Connection display = openDisplay();
    XkbStateRec state{};
    if (!display)
        return false;
    XkbGetState(display.get(), XkbUseCoreKbd, &state);
    return state.locked_mods & LockMask;
}

void setActiveWindowProperty(unsigned long window)
{
    const Connection display = openDisplay();
    if (!display)
        return;
    const Atom active = XInternAtom(display.get(), "_NET_ACTIVE_WINDOW", False);
    const Window root = DefaultRootWindow(display.get());
    if (window == 0)
        XDeleteProperty(display.get(), root, active);
    else
        XChangeProperty(display.get(), root, active, XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char *>(&window), 1);
    XSync(display.get(), False);
}

ForeignGrab::ForeignGrab(const char *keysymName, unsigned int xModifiers) : m_display(openDisplay())
{
    Display *display = m_display.get();
    if (!display)
        return;
    const KeyCode keycode = XKeysymToKeycode(display, XStringToKeysym(keysymName));
    XGrabKey(display, keycode, xModifiers, DefaultRootWindow(display), False, GrabModeAsync,
             GrabModeAsync);
    XSync(display, False);
}

GrabbedPressCounter::GrabbedPressCounter(unsigned int keycode)
{
    m_handler = XConnection::shared().addEventHandler([this, keycode](XEvent &event) {
        if (event.type == KeyPress && event.xkey.keycode == keycode)
            ++m_count;
    });
}

GrabbedPressCounter::~GrabbedPressCounter()
{
    XConnection::shared().removeEventHandler(m_handler);
}

} // namespace vocari::test::x11

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    vocari::test::XvfbDisplay xvfb;
    // Listing the tests needs no server.
    if (!GTEST_FLAG_GET(list_tests) && xvfb.start()) {
        vocari::test::display = &xvfb;
        qputenv("DISPLAY", xvfb.name().toLocal8Bit());
        qputenv("QT_QPA_PLATFORM", "xcb");
    } else {
        vocari::test::reason = xvfb.error();
        qunsetenv("DISPLAY");
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    // Whatever session the tests were started from, they run in this X session.
    qunsetenv("XDG_SESSION_TYPE");
    qunsetenv("WAYLAND_DISPLAY");
    QGuiApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
