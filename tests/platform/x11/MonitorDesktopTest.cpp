// The dictation-key monitor on a real (virtual) X server: what it reports, and what the focused
// window still gets to see.

#include "DesktopSupport.h"
#include "XvfbDisplay.h"
#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/InputAccess.h"
#include "platform/x11/X11KeySource.h"
#include "platform/x11/XConnection.h"
#include "support/MissingTool.h"
#include "text/TextInserter.h"

#include <gtest/gtest.h>

// Xlib last: its macros must not meet the headers above.
#include <X11/Xlib.h>

namespace vocari::test {
namespace {

// X keycodes on the test server's evdev keymap. The Alt keys are given to xdotool by keycode:
// by keysym it presses Left Alt along with Right Alt, for the Mod1 it thinks Alt_R needs.
constexpr unsigned int xSpace = 65;
constexpr unsigned int xEscape = 9;
constexpr unsigned int xBackSpace = 22;
constexpr unsigned int xRightAlt = 108;
constexpr unsigned int xLeftAlt = 64;

const Hotkey ctrlAltSpace{KeyCode::space, Modifier::control | Modifier::alt, false};

class MonitorOnDisplay : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!testDisplay())
            VOCARI_SKIP_FOR_MISSING(std::string("no X display for this test: ") +
                                    noDisplayReason().toStdString());
        ASSERT_TRUE(window.start());
        monitor.onPress = [this] { ++pressed; };
        monitor.onRelease = [this] { ++released; };
        monitor.onEscape = [this] { ++escaped; };
        monitor.escapeActive = [this] { return escapeActive; };
    }

    bool send(const char *words) { return window.send(QString::fromLatin1(words)); }

    TestWindow window;
    HotkeyMonitor monitor{std::make_unique<X11KeySource>()};
    int pressed = 0, released = 0, escaped = 0;
    bool escapeActive = false;
};

TEST_F(MonitorOnDisplay, ModifierKeyAloneIsReportedAndStillReachesTheWindow)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    ASSERT_TRUE(send("keydown 108"));
    EXPECT_TRUE(monitor.isDown());
    ASSERT_TRUE(send("keyup 108"));
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(window.presses(xRightAlt), 1) << "a modifier alone is watched, never taken";

    // The other Alt key is not the dictation key, and holding it does not keep Right Alt down.
    ASSERT_TRUE(send("keydown 64 keydown 108 keyup 108 keyup 64"));
    EXPECT_EQ(pressed, 2);
    EXPECT_EQ(released, 2);
    EXPECT_EQ(window.presses(xLeftAlt), 1);
}

TEST_F(MonitorOnDisplay, ModifierKeyAloneNeverReachesTheWindowAsALoneTap)
{
    // Firefox opens its menu bar when Alt is pressed and let go with no key between: the
    // monitor puts a key that means nothing between the two.
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    ASSERT_TRUE(send("keydown 108"));
    ASSERT_TRUE(send("keyup 108"));
    std::vector<QString> seen; // "press alt", "release other", ...
    for (const TestWindow::Key &key : window.keys()) {
        seen.push_back(QLatin1String(key.press ? "press " : "release ") +
                       QLatin1String(key.keycode == xRightAlt ? "alt" : "other"));
    }
    const auto altDown = std::find(seen.begin(), seen.end(), QStringLiteral("press alt"));
    const auto altUp = std::find(seen.begin(), seen.end(), QStringLiteral("release alt"));
    ASSERT_NE(altDown, seen.end());
    ASSERT_NE(altUp, seen.end());
    EXPECT_NE(std::find(altDown, altUp, QStringLiteral("press other")), altUp)
        << "no key between the press and the release of Right Alt";
    EXPECT_EQ(window.text(), QString()) << "the masking key must type nothing";
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
}

TEST_F(MonitorOnDisplay, CombinationIsSwallowedWhileOtherCombinationsPass)
{
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    ASSERT_TRUE(monitor.start(ctrlAltSpace)); // one set of grabs, as stop shows below

    ASSERT_TRUE(send("key ctrl+alt+space"));
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(window.presses(xSpace), 0) << "the dictation key never reaches the window";

    // An extra modifier makes it another combination, which the window gets; so is Space alone.
    ASSERT_TRUE(send("key ctrl+alt+shift+space key space"));
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(window.presses(xSpace), 2);

    // Letting go of the modifiers first does not end it; letting go of Space does.
    ASSERT_TRUE(send("keydown ctrl keydown alt keydown space keyup ctrl keyup alt"));
    EXPECT_EQ(pressed, 2);
    EXPECT_TRUE(monitor.isDown());
    ASSERT_TRUE(send("keyup space"));
    EXPECT_FALSE(monitor.isDown());
    EXPECT_EQ(released, 2);

    // Stopping while the key is held forgets it without a release, and leaves no grab behind.
    ASSERT_TRUE(send("keydown ctrl keydown alt keydown space"));
    monitor.stop();
    EXPECT_FALSE(monitor.isDown());
    EXPECT_FALSE(monitor.isRunning());
    ASSERT_TRUE(send("keyup space keyup alt keyup ctrl key ctrl+alt+space"));
    EXPECT_EQ(released, 2);
    EXPECT_EQ(pressed, 3);
    EXPECT_EQ(window.presses(xSpace), 3);
}

TEST_F(MonitorOnDisplay, AutoRepeatOfAHeldCombinationGivesOnePress)
{
    const x11::Repeat normal = x11::setAutoRepeat({100, 20});
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    const x11::GrabbedPressCounter grabbedSpaces(xSpace);

    ASSERT_TRUE(xdotool(QStringLiteral("keydown ctrl keydown alt keydown space")));
    const bool repeated = waitUntil([&] { return grabbedSpaces.count() >= 4; });
    ASSERT_TRUE(send("keyup space keyup alt keyup ctrl"));
    x11::setAutoRepeat(normal);

    EXPECT_TRUE(repeated) << "the server should have repeated the held key";
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(window.presses(xSpace), 0);
}

TEST_F(MonitorOnDisplay, EscapeIsTakenOnlyWhileItCancels)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    escapeActive = true;
    monitor.refreshEscapeGrab();
    ASSERT_TRUE(send("key Escape key Escape"));
    EXPECT_EQ(escaped, 2) << "once per press";
    EXPECT_EQ(window.presses(xEscape), 0);

    escapeActive = false;
    monitor.refreshEscapeGrab();
    ASSERT_TRUE(send("key Escape"));
    EXPECT_EQ(escaped, 2);
    EXPECT_EQ(window.presses(xEscape), 1);

    // The owner forgot to refresh: the Escape caught by the stale grab does not cancel and
    // still reaches the window, and Escape is handed back to the session at once.
    escapeActive = true;
    monitor.refreshEscapeGrab();
    escapeActive = false;
    ASSERT_TRUE(send("key Escape"));
    EXPECT_EQ(window.presses(xEscape), 2);
    ASSERT_TRUE(send("key Escape"));
    EXPECT_EQ(escaped, 2);
    EXPECT_EQ(window.presses(xEscape), 3);
}

TEST_F(MonitorOnDisplay, EscapeCancelsWhileTheDictationKeyIsHeld)
{
    // Cancelling erases what was typed: those keys are posted while the grab still holds the
    // keyboard, and must reach the window, not this program.
    const x11::GrabbedPressCounter grabbedBackSpaces(xBackSpace);
    monitor.onEscape = [this] {
        ++escaped;
        TextInserter::erase(2);
    };
    escapeActive = true;
    ASSERT_TRUE(send("type abc"));
    ASSERT_TRUE(window.waitForText(QStringLiteral("abc")));

    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    ASSERT_TRUE(send("keydown 108 key Escape"));
    ASSERT_TRUE(send("keyup 108"));
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(escaped, 1);
    EXPECT_EQ(window.presses(xEscape), 0) << "Alt+Escape would switch windows";
    EXPECT_TRUE(window.waitForText(QStringLiteral("a")));

    // Another program (a window manager, say) holding Alt+Escape costs only that combination.
    monitor.stop();
    const x11::ForeignGrab altEscape("Escape", x11::mod1Mask);
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    ASSERT_TRUE(send("keydown ctrl keydown alt keydown space key Escape"));
    ASSERT_TRUE(send("keyup space keyup alt keyup ctrl"));
    EXPECT_EQ(pressed, 2);
    EXPECT_EQ(escaped, 2);
    EXPECT_EQ(window.presses(xEscape), 0);
    EXPECT_TRUE(window.waitForText(QString()));
    EXPECT_EQ(grabbedBackSpaces.count(), 0);
}

TEST_F(MonitorOnDisplay, EscapeCancelsWhereTheWindowManagerHoldsAltEscape)
{
    // Openbox and GNOME hold Alt+Escape: with Right Alt held, Escape goes to them, not to a
    // grab. It is still seen among the observed keys, cancels once, and reaches its owner.
    const x11::ForeignGrab altEscape("Escape", x11::mod1Mask);
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    escapeActive = true;
    monitor.refreshEscapeGrab();
    EXPECT_TRUE(monitor.escapeCancels());
    ASSERT_TRUE(send("keydown 108 key Escape"));
    EXPECT_TRUE(waitUntil([this] { return escaped == 1; })) << escaped;
    ASSERT_TRUE(send("keyup 108"));
    spin(std::chrono::milliseconds(200));
    EXPECT_EQ(escaped, 1);

    // Escape the grab does take cancels once, not once more through its observed copy.
    ASSERT_TRUE(send("key Escape"));
    spin(std::chrono::milliseconds(200));
    EXPECT_EQ(escaped, 2);
    EXPECT_EQ(window.presses(xEscape), 0);
}

TEST_F(MonitorOnDisplay, CombinationThatCannotBeGrabbedIsRefusedWithItsCause)
{
    const x11::ForeignGrab other("F5", x11::controlMask | x11::mod1Mask);
    EXPECT_FALSE(monitor.start(Hotkey{63, Modifier::control | Modifier::alt, false}));
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_EQ(monitor.errorString(), QStringLiteral("Ctrl+Alt+F5 is already used by another "
                                                    "program; choose another dictation key."));

    // X keycodes end at 255, Linux codes at 247.
    EXPECT_FALSE(monitor.start(Hotkey{300, Modifier::control, false}));
    EXPECT_EQ(monitor.errorString(),
              QStringLiteral("Ctrl+Key 300 cannot be used: key code 300 is beyond the keys the X "
                             "server knows; choose another dictation key."));

    // A free combination still works afterwards.
    EXPECT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_TRUE(monitor.errorString().isEmpty());

    // A server where no key acts as Super.
    XvfbDisplay second;
    ASSERT_TRUE(second.start()) << second.error().toStdString();
    XConnection connection(second.name());
    ASSERT_TRUE(connection.ensureOpen());
    XModifierKeymap *map = XGetModifierMapping(connection.display());
    for (int slot = 0; slot < map->max_keypermod; ++slot)
        map->modifiermap[Mod4MapIndex * map->max_keypermod + slot] = 0;
    ASSERT_EQ(XSetModifierMapping(connection.display(), map), MappingSuccess);
    XFreeModifiermap(map);
    HotkeyMonitor bare(std::make_unique<X11KeySource>(connection));
    EXPECT_FALSE(bare.start(Hotkey{KeyCode::space, Modifier::super, false}));
    EXPECT_EQ(bare.errorString(), QStringLiteral("Super+Space cannot be used: the X server has no "
                                                 "Super modifier; choose another dictation key."));
    EXPECT_TRUE(bare.start(ctrlAltSpace));
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
