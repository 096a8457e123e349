// The dictation-key monitor on a real (virtual) X server: what it reports, and what the focused
// window still gets to see.

#include "DesktopSupport.h"
#include "XTestHelpers.h"
#include "XvfbDisplay.h"
#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/InputAccess.h"
#include "platform/x11/X11KeySource.h"
#include "platform/x11/XConnection.h"

#include <gtest/gtest.h>

namespace vocari::test {
namespace {

// X keycodes on the test server's evdev keymap. The Alt keys are given to xdotool by keycode:
// by keysym it presses Left Alt along with Right Alt, for the Mod1 it thinks Alt_R needs.
constexpr unsigned int xSpace = 65;
constexpr unsigned int xEscape = 9;
constexpr unsigned int xRightAlt = 108;
constexpr unsigned int xLeftAlt = 64;

const Hotkey ctrlAltSpace{KeyCode::space, Modifier::control | Modifier::alt, false};

QStringList keys(std::initializer_list<const char *> words)
{
    QStringList list;
    for (const char *word : words)
        list << QString::fromLatin1(word);
    return list;
}

class MonitorOnDisplay : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!testDisplay())
            GTEST_SKIP() << "no X display for this test: " << noDisplayReason().toStdString();
        ASSERT_TRUE(window.start());
        monitor.onPress = [this] { ++pressed; };
        monitor.onRelease = [this] { ++released; };
        monitor.onEscape = [this] { ++escaped; };
        monitor.escapeActive = [this] { return escapeActive; };
    }

    TestWindow window;
    HotkeyMonitor monitor{std::make_unique<X11KeySource>()};
    int pressed = 0;
    int released = 0;
    int escaped = 0;
    bool escapeActive = false;
};

TEST_F(MonitorOnDisplay, ModifierKeyAloneIsReportedAndStillReachesTheWindow)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(monitor.isRunning());

    ASSERT_TRUE(xdotool(keys({"keydown", "108"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 1);
    EXPECT_TRUE(monitor.isDown());
    ASSERT_TRUE(xdotool(keys({"keyup", "108"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(released, 1);
    EXPECT_FALSE(monitor.isDown());
    EXPECT_EQ(window.presses(xRightAlt), 1) << "a modifier alone is watched, never taken";

    // The other Alt key is not the dictation key.
    ASSERT_TRUE(xdotool(keys({"key", "64"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(window.presses(xLeftAlt), 1);

    // Each key has its own press and release: Right Alt ends even while Left Alt is held.
    ASSERT_TRUE(xdotool(keys({"keydown", "64", "keydown", "108"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 2);
    ASSERT_TRUE(xdotool(keys({"keyup", "108"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(released, 2);
    ASSERT_TRUE(xdotool(keys({"keyup", "64"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 2);
    EXPECT_EQ(released, 2);
}

TEST_F(MonitorOnDisplay, CombinationIsSwallowedWhileOtherCombinationsPass)
{
    ASSERT_TRUE(monitor.start(ctrlAltSpace));

    ASSERT_TRUE(xdotool(keys({"key", "ctrl+alt+space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(window.presses(xSpace), 0) << "the dictation key never reaches the window";

    // An extra modifier makes it another combination, which the window gets.
    ASSERT_TRUE(xdotool(keys({"key", "ctrl+alt+shift+space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(window.presses(xSpace), 1);

    // Space alone, press and release, is none of the monitor's business.
    ASSERT_TRUE(xdotool(keys({"key", "space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(window.presses(xSpace), 2);

    // Letting go of the modifiers first does not end it; letting go of Space does.
    ASSERT_TRUE(xdotool(keys({"keydown", "ctrl", "keydown", "alt", "keydown", "space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 2);
    ASSERT_TRUE(xdotool(keys({"keyup", "ctrl", "keyup", "alt"})));
    ASSERT_TRUE(window.settle());
    EXPECT_TRUE(monitor.isDown());
    EXPECT_EQ(released, 1);
    ASSERT_TRUE(xdotool(keys({"keyup", "space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_FALSE(monitor.isDown());
    EXPECT_EQ(released, 2);
    EXPECT_EQ(window.presses(xSpace), 2);
}

TEST_F(MonitorOnDisplay, AutoRepeatOfAHeldCombinationGivesOnePress)
{
    const x11::Repeat normal = x11::setAutoRepeat({100, 20});
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    const x11::GrabbedPressCounter grabbedSpaces(xSpace);

    ASSERT_TRUE(xdotool(keys({"keydown", "ctrl", "keydown", "alt", "keydown", "space"})));
    const bool repeated = waitUntil([&] { return grabbedSpaces.count() >= 4; });
    ASSERT_TRUE(xdotool(keys({"keyup", "space", "keyup", "alt", "keyup", "ctrl"})));
    ASSERT_TRUE(window.settle());
    x11::setAutoRepeat(normal);

    EXPECT_TRUE(repeated) << "the server should have repeated the held key";
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(window.presses(xSpace), 0);
}

TEST_F(MonitorOnDisplay, EscapeIsTakenOnlyWhileItCancels)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));

    ASSERT_TRUE(xdotool(keys({"key", "Escape"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(escaped, 0);
    EXPECT_EQ(window.presses(xEscape), 1);

    escapeActive = true;
    monitor.refreshEscapeGrab();
    ASSERT_TRUE(xdotool(keys({"key", "Escape"})));
    ASSERT_TRUE(xdotool(keys({"key", "Escape"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(escaped, 2) << "once per press";
    EXPECT_EQ(window.presses(xEscape), 1);

    escapeActive = false;
    monitor.refreshEscapeGrab();
    ASSERT_TRUE(xdotool(keys({"key", "Escape"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(escaped, 2);
    EXPECT_EQ(window.presses(xEscape), 2);

    // The owner forgot to refresh: the one Escape caught by the stale grab does not cancel,
    // and Escape is handed back to the session at once.
    escapeActive = true;
    monitor.refreshEscapeGrab();
    escapeActive = false;
    ASSERT_TRUE(xdotool(keys({"key", "Escape"})));
    ASSERT_TRUE(window.settle());
    ASSERT_TRUE(xdotool(keys({"key", "Escape"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(escaped, 2);
    EXPECT_EQ(window.presses(xEscape), 3);
}

TEST_F(MonitorOnDisplay, StartingTwiceHoldsOneSetOfGrabsAndStopGivesThemBack)
{
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    ASSERT_TRUE(monitor.start(ctrlAltSpace));

    // Stopping while the key is held forgets it without a release.
    ASSERT_TRUE(xdotool(keys({"keydown", "ctrl", "keydown", "alt", "keydown", "space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_TRUE(monitor.isDown());
    monitor.stop();
    EXPECT_FALSE(monitor.isDown());
    EXPECT_FALSE(monitor.isRunning());
    ASSERT_TRUE(xdotool(keys({"keyup", "space", "keyup", "alt", "keyup", "ctrl"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(released, 0);

    // No grab is left behind by either start.
    ASSERT_TRUE(xdotool(keys({"key", "ctrl+alt+space"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(window.presses(xSpace), 1);
}

TEST_F(MonitorOnDisplay, CombinationHeldByAnotherProgramIsRefused)
{
    const x11::ForeignGrab other("F5", x11::controlMask | x11::mod1Mask);
    const Hotkey ctrlAltF5{63, Modifier::control | Modifier::alt, false};

    EXPECT_FALSE(monitor.start(ctrlAltF5));
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_TRUE(monitor.errorString().contains(QStringLiteral("Ctrl+Alt+F5")))
        << monitor.errorString().toStdString();

    // A free combination still works afterwards.
    EXPECT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_TRUE(monitor.errorString().isEmpty());
}

TEST_F(MonitorOnDisplay, LosingTheServerStopsTheMonitorWithoutACrash)
{
    XvfbDisplay second;
    ASSERT_TRUE(second.start()) << second.error().toStdString();
    XConnection connection(second.name());
    HotkeyMonitor lonely(std::make_unique<X11KeySource>(connection));
    int lonelyPresses = 0;
    lonely.onPress = [&] { ++lonelyPresses; };
    ASSERT_TRUE(lonely.start(ctrlAltSpace));
    EXPECT_TRUE(InputAccess::check(connection).granted);

    second.stop();
    EXPECT_TRUE(waitUntil([&] { return !lonely.isRunning(); }));
    const InputAccess access = InputAccess::check(connection);
    EXPECT_FALSE(access.granted);
    EXPECT_FALSE(access.explanation.isEmpty());
    EXPECT_FALSE(lonely.start(ctrlAltSpace));
    EXPECT_EQ(lonelyPresses, 0);
}

} // namespace
} // namespace vocari::test
