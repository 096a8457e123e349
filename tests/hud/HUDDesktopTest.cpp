// The HUD panel on a real X server: a private Xvfb with a window manager, a window of the
// test's own that has the focus, and xdotool for the pointer. The panel must land where it was
// computed and neither take the focus nor catch a click. (Which screen it picks is checked as
// geometry: neither Xvfb nor Xephyr can show Qt 6 two monitors of one X screen.)

#include "dictation/Dictation.h"
#include "dictation/Fakes.h"
#include "hud/HUDController.h"
#include "hud/HUDPlacement.h"
#include "hud/HUDView.h"
#include "platform/x11/XvfbDisplay.h"
#include "settings/Preferences.h"
#include "support/EventLoop.h"
#include "support/MissingTool.h"
#include "support/ScopedSettings.h"

#include <QApplication>
#include <QCursor>
#include <QGuiApplication>
#include <QProcess>
#include <QScreen>
#include <QStandardPaths>
#include <QThread>
#include <QWidget>
#include <gtest/gtest.h>

// Last: Xlib's macros (None, Bool, Status…) clash with names in the headers above.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__)
// Qt's X11 platform plugin talks to the session bus through libdbus, which keeps a buffer for
// the life of the process.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libdbus-1.so\n";
}
#endif

namespace vocari::test {
namespace {

// Set up by main() before the application connects to the display.
XvfbDisplay *g_display = nullptr;
QString g_skipReason;

// A plain X window of the test's own connection: the application in front.
class FrontWindow
{
public:
    FrontWindow()
    {
        m_display = XOpenDisplay(nullptr);
        if (!m_display)
            return;
        m_window = XCreateSimpleWindow(m_display, DefaultRootWindow(m_display), 0, 0, 1000, 740, 0,
                                       0, 0xffffff);
        XStoreName(m_display, m_window, "front");
        XSelectInput(m_display, m_window, ButtonPressMask | FocusChangeMask);
        XMapWindow(m_display, m_window);
        XSync(m_display, False);
    }
    ~FrontWindow()
    {
        if (m_display)
            XCloseDisplay(m_display);
    }

    bool isOpen() const { return m_display; }
    unsigned long id() const { return m_window; }

    Window focus() const
    {
        Window focused = 0;
        int revert = 0;
        XGetInputFocus(m_display, &focused, &revert);
        return focused;
    }

    // Button presses this window received since the last call.
    int takeButtonPresses()
    {
        int presses = 0;
        XSync(m_display, False);
        while (XPending(m_display)) {
            XEvent event;
            XNextEvent(m_display, &event);
            if (event.type == ButtonPress)
                ++presses;
        }
        return presses;
    }

    // The window's _NET_WM_WINDOW_TYPE atoms, as names.
    QStringList windowTypes(unsigned long window) const
    {
        QStringList names;
        Atom type = 0;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char *data = nullptr;
        const Atom property = XInternAtom(m_display, "_NET_WM_WINDOW_TYPE", False);
        if (XGetWindowProperty(m_display, window, property, 0, 16, False, XA_ATOM, &type, &format,
                               &count, &after, &data) == Success &&
            data) {
            const auto *atoms = reinterpret_cast<const Atom *>(data);
            for (unsigned long i = 0; i < count; ++i) {
                char *name = XGetAtomName(m_display, atoms[i]);
                names.append(QString::fromLatin1(name));
                XFree(name);
            }
            XFree(data);
        }
        return names;
    }

    // Whether the window asks the window manager never to give it the keyboard focus.
    bool refusesFocus(unsigned long window) const
    {
        XWMHints *hints = XGetWMHints(m_display, window);
        const bool refuses = hints && (hints->flags & InputHint) && !hints->input;
        if (hints)
            XFree(hints);
        return refuses;
    }

    // Whether the window manager leaves the window alone.
    bool isOverrideRedirect(unsigned long window) const
    {
        XWindowAttributes attributes;
        return XGetWindowAttributes(m_display, window, &attributes) && attributes.override_redirect;
    }

    // Where the window is on the root window.
    QRect geometry(unsigned long window) const
    {
        XWindowAttributes attributes;
        if (!XGetWindowAttributes(m_display, window, &attributes))
            return {};
        int x = 0, y = 0;
        Window child = 0;
        XTranslateCoordinates(m_display, window, DefaultRootWindow(m_display), 0, 0, &x, &y,
                              &child);
        return {x, y, attributes.width, attributes.height};
    }

private:
    Display *m_display = nullptr;
    Window m_window = 0;
};

bool xdotool(const QStringList &arguments)
{
    return QProcess::execute(QStringLiteral("xdotool"), arguments) == 0;
}

class HUDDesktopTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!g_display)
            VOCARI_SKIP_FOR_MISSING(g_skipReason.toStdString());
        m_dictation = std::make_unique<Dictation>(std::make_unique<FakeAudioEngine>(), m_clock);
        m_dictation->setOnFinished([this](const QString &text) { m_finished.append(text); });
        m_hud.attach(m_dictation.get());
        m_hud.setShapedToGlass(true); // no compositing manager here
    }

    // Shows the HUD and waits until the X server has it mapped and opaque.
    bool showAndWait()
    {
        m_hud.show();
        return waitUntil([&] {
                   return m_hud.panel()->isVisible() && m_hud.panel()->windowOpacity() == 1.0;
               }) &&
               (spin(200ms), true);
    }

    ScopedSettings m_settings;
    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
    std::unique_ptr<Dictation> m_dictation;
    QStringList m_finished;
    HUDController m_hud;
};

TEST_F(HUDDesktopTest, PanelLandsWhereComputedAndIsAnOverlay)
{
    FrontWindow x;
    ASSERT_TRUE(x.isOpen());
    ASSERT_TRUE(showAndWait());
    const unsigned long panel = m_hud.panel()->winId();
    // Bottom centre of the 1024 × 768 screen, 56 above its edge.
    EXPECT_TRUE(waitUntil([&] { return x.geometry(panel) == QRect(297, 636, 430, 76); }))
        << "the panel is at " << x.geometry(panel).x() << "," << x.geometry(panel).y();

    // Moved at once when shown again with other settings: top right at scale 1.3.
    m_settings.store().setValue(SettingsKey::hudPosition, QStringLiteral("topRight"));
    m_settings.store().setValue(SettingsKey::hudScale, 1.3);
    m_hud.show();
    EXPECT_TRUE(waitUntil([&] { return x.geometry(panel) == QRect(1024 - 56 - 559, 56, 559, 99); }))
        << "the panel is at " << x.geometry(panel).x() << "," << x.geometry(panel).y();

    // An overlay that window managers neither decorate nor focus.
    EXPECT_TRUE(x.windowTypes(panel).contains(QStringLiteral("_NET_WM_WINDOW_TYPE_UTILITY")))
        << x.windowTypes(panel).join(u' ').toStdString();
    EXPECT_TRUE(x.isOverrideRedirect(panel));
    EXPECT_TRUE(x.refusesFocus(panel));
}

TEST_F(HUDDesktopTest, FocusStaysInFrontThroughADictationAndClicksGoThrough)
{
    FrontWindow front;
    ASSERT_TRUE(front.isOpen());
    const QString id = QString::number(front.id());
    ASSERT_TRUE(xdotool({QStringLiteral("windowactivate"), QStringLiteral("--sync"), id}));
    ASSERT_TRUE(waitUntil([&] { return front.focus() == front.id(); }));
    // A scripted dictation through every phase, the HUD redrawing all the while.
    auto transcriber = std::make_shared<ScriptedTranscriber>();
    transcriber->holdPrepare = true;
    transcriber->holdFinish = true;
    transcriber->finalText = QStringLiteral("hello there");
    m_dictation->keyDown(false, QStringLiteral("Script"), [&](bool) { return transcriber; });
    ASSERT_TRUE(showAndWait());
    const auto focusKept = [&](const char *when) {
        spin(150ms);
        EXPECT_EQ(front.focus(), front.id()) << "the HUD took the focus " << when;
    };
    focusKept("while getting ready");
    transcriber->reportStatus(QStringLiteral("Loading speech model…"));
    transcriber->prepared.open();
    ASSERT_TRUE(waitUntil([&] { return m_dictation->phase() == Dictation::Phase::listening; }));
    transcriber->reportText(QStringLiteral("hello there"));
    focusKept("while listening");

    // A click on the middle of the glass reaches the window below.
    const QRect panel = m_hud.panel()->geometry();
    const QPoint glass = panel.topLeft() + m_hud.view()->glassRect().center().toPoint();
    front.takeButtonPresses();
    ASSERT_TRUE(
        xdotool({QStringLiteral("mousemove"), QString::number(glass.x()),
                 QString::number(glass.y()), QStringLiteral("click"), QStringLiteral("1")}));
    EXPECT_TRUE(waitUntil([&] { return front.takeButtonPresses() > 0; }, 3s))
        << "the click stayed in the HUD";

    m_clock->advance(2s);
    m_dictation->keyUp();
    ASSERT_TRUE(waitUntil([&] { return m_dictation->phase() == Dictation::Phase::finishing; }));
    focusKept("while finishing");
    transcriber->finished.open();
    ASSERT_TRUE(waitUntil([&] { return m_dictation->phase() == Dictation::Phase::idle; }));
    EXPECT_EQ(m_finished, QStringList{QStringLiteral("hello there")});
    focusKept("at the end");

    int hidden = 0;
    QObject::connect(&m_hud, &HUDController::hidden, [&] { ++hidden; });
    m_hud.hide(0.0);
    ASSERT_TRUE(waitUntil([&] { return hidden == 1; }));
    EXPECT_EQ(front.focus(), front.id()) << "the focus moved when the HUD went";
}

} // namespace
} // namespace vocari::test

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    using namespace vocari::test;
    XvfbDisplay display;
    QProcess windowManager;
    if (QStandardPaths::findExecutable(QStringLiteral("openbox")).isEmpty()) {
        g_skipReason = QStringLiteral("openbox is not installed");
    } else if (!display.start()) {
        g_skipReason = display.error();
    } else {
        qputenv("DISPLAY", display.name().toUtf8());
        qputenv("QT_QPA_PLATFORM", "xcb");
        windowManager.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        windowManager.setStandardOutputFile(QProcess::nullDevice());
        windowManager.start(QStringLiteral("openbox"), {QStringLiteral("--sm-disable")});
        if (!windowManager.waitForStarted(5000))
            g_skipReason = QStringLiteral("openbox did not start");
        else
            g_display = &display;
        QThread::msleep(500); // the window manager takes over the screen
    }
    // Without a display the application runs offscreen and every test skips with the reason.
    if (!g_display)
        qputenv("QT_QPA_PLATFORM", "offscreen");
    int result = 0;
    {
        QApplication app(argc, argv);
        result = RUN_ALL_TESTS();
    }
    windowManager.terminate();
    windowManager.waitForFinished(3000);
    return result;
}
