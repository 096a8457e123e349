// The main() of the X11 desktop tests: a private Xvfb display for the whole program, and a Qt
// GUI application on it (the clipboard needs one).

#include "DesktopSupport.h"
#include "XvfbDisplay.h"

#include <QGuiApplication>
#include <gtest/gtest.h>

namespace vocari::test {
namespace {
XvfbDisplay *display = nullptr;
QString reason;
} // namespace

XvfbDisplay *testDisplay()
{
    return display;
}
QString noDisplayReason()
{
    return reason;
}
} // namespace vocari::test

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
