// The monitor's rules, fed with scripted key events. Grabs given back on stop and a lost
// server connection are checked on a real server by the X11 desktop tests.

#include "hotkey/HotkeyMonitor.h"

#include "support/EventLoop.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace vocari {
namespace {

using Kind = KeyEvent::Kind;
using Route = KeyEvent::Route;
using Reason = GrabFailure::Reason;

const Hotkey ctrlAltSpace{KeyCode::space, Modifier::control | Modifier::alt, false};
const KeyGrab spaceGrab{KeyCode::space, ctrlAltSpace.modifiers, false};
const KeyGrab escapeGrab{KeyCode::escape, 0, true};

// A keyboard that plays what the test tells it to, and remembers what it was asked.
struct ScriptedKeyboard final : KeyEventSource
{
    bool open(Sink newSink) override
    {
        ++opens;
        isOpenNow = true;
        sink = std::move(newSink);
        return true;
    }
    void close() override
    {
        closes += isOpenNow;
        isOpenNow = false;
        grabs.clear();
        sink = nullptr;
    }
    bool isOpen() const override { return isOpenNow; }
    QString errorString() const override { return QStringLiteral("no keyboard here"); }
    bool seesEveryKey() const override { return everyKey; }
    void maskModifierTap() override { ++masks; }
    std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &wanted) override
    {
        grabs.clear();
        std::vector<GrabFailure> failed;
        for (const KeyGrab &grab : wanted) {
            const auto refusal = std::find_if(refusals.begin(), refusals.end(),
                                              [&](const GrabFailure &f) { return f.grab == grab; });
            if (refusal != refusals.end())
                failed.push_back(*refusal);
            if (refusal == refusals.end() || refusal->partly)
                grabs.push_back(grab);
        }
        return failed;
    }

    bool isOpenNow = false;
    bool everyKey = false;
    int opens = 0, closes = 0, masks = 0;
    std::vector<KeyGrab> grabs;
    std::vector<GrabFailure> refusals;
    Sink sink;
};

class MonitorRules : public ::testing::Test
{
protected:
    MonitorRules()
        : keyboard(*new ScriptedKeyboard), monitor(std::unique_ptr<ScriptedKeyboard>(&keyboard))
    {
        monitor.onPress = [this] { ++pressed; };
        monitor.onRelease = [this] { ++released; };
        monitor.onEscape = [this] { ++escaped; };
        monitor.escapeActive = [this] { return escapeActive; };
    }

    // Delivers the event; true when the monitor swallowed it.
    bool send(Kind kind, Route route, std::uint16_t code, std::uint64_t modifiers = 0,
              bool repeat = false)
    {
        return keyboard.sink && keyboard.sink(KeyEvent{kind, route, code, modifiers, repeat});
    }
    void observed(Kind kind, std::uint16_t code, bool repeat = false)
    {
        send(kind, Route::observed, code, 0, repeat);
    }
    bool grabbedPress(std::uint16_t code, std::uint64_t modifiers, bool repeat = false)
    {
        return send(Kind::press, Route::grabbed, code, modifiers, repeat);
    }

    ScriptedKeyboard &keyboard; // owned by the monitor
    HotkeyMonitor monitor;
    int pressed = 0, released = 0, escaped = 0;
    bool escapeActive = false;
};

// What the desktop tests cannot stage: auto-repeat marks, stray settings, releases that come
// by either route.
TEST_F(MonitorRules, KeyFollowsPressAndReleaseOnceWhateverTheRepeatsAndRoutes)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(keyboard.grabs.empty()) << "a modifier alone is watched, never grabbed";
    observed(Kind::press, KeyCode::rightAlt);
    observed(Kind::press, KeyCode::rightAlt, true);
    observed(Kind::release, KeyCode::rightAlt);
    observed(Kind::release, KeyCode::rightAlt);
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(released, 1);
    // A grabbed event of the same key code is not how a modifier alone is followed.
    EXPECT_FALSE(grabbedPress(KeyCode::rightAlt, 0));
    // A hand-edited setting: the A key "alone". Typing an "a" must not start dictation.
    ASSERT_TRUE(monitor.start(Hotkey{30, 0, true}));
    observed(Kind::press, 30);
    EXPECT_EQ(pressed, 1);

    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.grabs, std::vector<KeyGrab>{spaceGrab});
    // A first press that arrives marked as a repeat is not a new press, but is swallowed.
    EXPECT_TRUE(grabbedPress(KeyCode::space, ctrlAltSpace.modifiers, true));
    EXPECT_EQ(pressed, 1);
    EXPECT_TRUE(grabbedPress(KeyCode::space, ctrlAltSpace.modifiers));
    EXPECT_TRUE(grabbedPress(KeyCode::space, ctrlAltSpace.modifiers));
    EXPECT_EQ(pressed, 2);
    observed(Kind::release, KeyCode::leftCtrl);
    EXPECT_TRUE(monitor.isDown());
    // The release may come through the grab and be seen again; it counts once.
    send(Kind::release, Route::grabbed, KeyCode::space, 0);
    observed(Kind::release, KeyCode::space);
    EXPECT_EQ(released, 2);

    // Bits beyond the four modifiers (a hand-edited setting) are not part of the combination.
    ASSERT_TRUE(monitor.start(Hotkey{KeyCode::space, ctrlAltSpace.modifiers | 0x800000, false}));
    EXPECT_EQ(keyboard.grabs, std::vector<KeyGrab>{spaceGrab});
    EXPECT_TRUE(grabbedPress(KeyCode::space, ctrlAltSpace.modifiers));
    EXPECT_EQ(pressed, 3);
    EXPECT_FALSE(grabbedPress(KeyCode::space, Modifier::mask));
}

TEST_F(MonitorRules, EscapeWithAnyModifiersCancelsOnlyWhileItShould)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(keyboard.grabs.empty());

    escapeActive = true;
    monitor.refreshEscapeGrab();
    EXPECT_EQ(keyboard.grabs, std::vector<KeyGrab>{escapeGrab});
    // Held dictation keys put modifiers on the Escape press; repeats count too.
    observed(Kind::press, KeyCode::rightAlt);
    EXPECT_TRUE(grabbedPress(KeyCode::escape, Modifier::alt));
    EXPECT_TRUE(grabbedPress(KeyCode::escape, Modifier::alt, true));
    EXPECT_TRUE(grabbedPress(KeyCode::escape, Modifier::control | Modifier::alt));
    EXPECT_TRUE(grabbedPress(KeyCode::escape, 0));
    EXPECT_EQ(escaped, 4);
    EXPECT_EQ(pressed, 1);

    escapeActive = false;
    monitor.refreshEscapeGrab();
    EXPECT_TRUE(keyboard.grabs.empty());

    // A grab that outlived its reason: no cancel, the Escape goes on to the focused window,
    // and Escape is handed back.
    escapeActive = true;
    monitor.refreshEscapeGrab();
    escapeActive = false;
    EXPECT_FALSE(grabbedPress(KeyCode::escape, Modifier::alt));
    EXPECT_EQ(escaped, 4);
    EXPECT_TRUE(keyboard.grabs.empty());

    // Starting while Escape cancels grabs it along with the combination.
    escapeActive = true;
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.grabs, (std::vector<KeyGrab>{spaceGrab, escapeGrab}));

    // Escape held elsewhere only costs the cancel key, in part or in whole.
    keyboard.refusals = {{escapeGrab, Reason::heldElsewhere, true, 0}};
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.grabs, (std::vector<KeyGrab>{spaceGrab, escapeGrab}));
    keyboard.refusals[0].partly = false;
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(monitor.errorString().isEmpty());
    EXPECT_TRUE(keyboard.grabs.empty());
}

TEST_F(MonitorRules, AModifierKeyAlonePressedIsMaskedOncePerPress)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    observed(Kind::press, KeyCode::rightAlt);
    observed(Kind::press, KeyCode::rightAlt, true);
    observed(Kind::release, KeyCode::rightAlt);
    EXPECT_EQ(keyboard.masks, 1) << "once per press, not per repeat";
    observed(Kind::press, KeyCode::leftAlt);
    EXPECT_EQ(keyboard.masks, 1) << "another modifier is none of the monitor's business";

    // A grabbed combination never reaches the window, so there is nothing to mask.
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_TRUE(grabbedPress(KeyCode::space, ctrlAltSpace.modifiers));
    EXPECT_EQ(keyboard.masks, 1);
}

TEST_F(MonitorRules, EscapeTheDesktopKeepsFromTheGrabStillCancelsOnce)
{
    // A window manager holds Escape with Alt: the grab is held only in part, and Escape pressed
    // so reaches the monitor only among the observed keys.
    keyboard.everyKey = true;
    keyboard.refusals = {{escapeGrab, Reason::heldElsewhere, true, 0}};
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    escapeActive = true;
    monitor.refreshEscapeGrab();
    EXPECT_TRUE(monitor.escapeCancels());
    const auto waitForChecks = [] { test::spin(std::chrono::milliseconds(150)); };

    observed(Kind::press, KeyCode::escape);
    EXPECT_EQ(escaped, 0) << "the grabbed copy gets a moment to come first";
    waitForChecks();
    EXPECT_EQ(escaped, 1);
    observed(Kind::press, KeyCode::escape, true);
    waitForChecks();
    EXPECT_EQ(escaped, 1) << "auto-repeat";

    // A press the grab takes as well comes by both routes, in either order: one cancel.
    observed(Kind::press, KeyCode::escape);
    EXPECT_TRUE(grabbedPress(KeyCode::escape, Modifier::control));
    waitForChecks();
    EXPECT_EQ(escaped, 2);
    EXPECT_TRUE(grabbedPress(KeyCode::escape, 0));
    observed(Kind::press, KeyCode::escape);
    waitForChecks();
    EXPECT_EQ(escaped, 3);

    // The grabbed copy of a press that already cancelled, late, is still taken from the window.
    observed(Kind::press, KeyCode::escape);
    waitForChecks();
    EXPECT_EQ(escaped, 4);
    escapeActive = false;
    EXPECT_TRUE(grabbedPress(KeyCode::escape, 0));
    EXPECT_EQ(escaped, 4);

    // A check still waiting when the monitor stops belongs to the old watch.
    escapeActive = true;
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    observed(Kind::press, KeyCode::escape);
    monitor.stop();
    waitForChecks();
    EXPECT_EQ(escaped, 4);
}

TEST_F(MonitorRules, ObservedEscapeDoesNothingWhereTheWholeGrabIsHeldOrNothingIsSeen)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    escapeActive = true;
    monitor.refreshEscapeGrab();
    observed(Kind::press, KeyCode::escape); // its grabbed copy is what cancels
    test::spin(std::chrono::milliseconds(150));
    EXPECT_EQ(escaped, 0);

    // A desktop that refused Escape and shows the monitor only its own keys: Escape is not
    // offered at all.
    keyboard.refusals = {{escapeGrab, Reason::refused, false, 0}};
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_FALSE(monitor.escapeCancels());
    keyboard.everyKey = true;
    EXPECT_TRUE(monitor.escapeCancels()) << "seen among every key, it cancels all the same";
}

TEST_F(MonitorRules, StartAndStopKeepOneListenerAndCallbacksMayStopIt)
{
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.opens - keyboard.closes, 1);
    monitor.stop();
    monitor.stop(); // harmless when stopped

    // A new key while stopped is only stored; while running it takes effect at once.
    monitor.setHotkey(Hotkey::defaultKey());
    EXPECT_FALSE(keyboard.isOpenNow);
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    monitor.setHotkey(ctrlAltSpace);
    EXPECT_EQ(keyboard.grabs, std::vector<KeyGrab>{spaceGrab});

    // A callback may stop the monitor.
    monitor.onRelease = [this] { monitor.stop(); };
    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers);
    const KeyEventSource::Sink sink = keyboard.sink;
    sink(KeyEvent{Kind::release, Route::observed, KeyCode::space, 0, false});
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_FALSE(monitor.isDown());
}

TEST_F(MonitorRules, StartFailsWithTheCauseWhenTheKeyCannotBeWatched)
{
    // A refused grab closes the keyboard again and names the key; with two modifiers
    // missing, both are named.
    const Hotkey altSuperF5{63, Modifier::super | Modifier::alt, false};
    const KeyGrab grab{63, altSuperF5.modifiers, false};
    keyboard.refusals = {{grab, Reason::noSuchModifier, false, altSuperF5.modifiers}};
    EXPECT_FALSE(monitor.start(altSuperF5));
    EXPECT_FALSE(keyboard.isOpenNow);
    EXPECT_TRUE(monitor.errorString().startsWith(QStringLiteral("Alt+Super+F5 cannot be used: ")));
    EXPECT_TRUE(monitor.errorString().contains(QStringLiteral("no Alt or Super modifier")));
    keyboard.refusals = {{grab, Reason::refused, false, 0}};
    EXPECT_FALSE(monitor.start(altSuperF5));
    EXPECT_FALSE(keyboard.isOpenNow);
}

} // namespace
} // namespace vocari
