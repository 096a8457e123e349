// The monitor's rules, fed with scripted key events.

#include "hotkey/HotkeyMonitor.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace vocari {
namespace {

using Kind = KeyEvent::Kind;
using Route = KeyEvent::Route;

const Hotkey ctrlAltSpace{KeyCode::space, Modifier::control | Modifier::alt, false};
const KeyGrab escapeGrab{KeyCode::escape, 0};

// A keyboard that plays what the test tells it to, and remembers what it was asked.
struct ScriptedKeyboard final : KeyEventSource
{
    struct State
    {
        bool open = false;
        bool lost = false;
        bool refuseOpen = false;
        int opens = 0;
        int closes = 0;
        std::vector<KeyGrab> grabs;
        std::vector<KeyGrab> takenByOthers;
        Sink sink;
    };

    explicit ScriptedKeyboard(State &state) : state(state) {}

    bool open(Sink sink) override
    {
        if (state.refuseOpen)
            return false;
        ++state.opens;
        state.open = true;
        state.sink = std::move(sink);
        return true;
    }
    void close() override
    {
        if (!state.open)
            return;
        ++state.closes;
        state.open = false;
        state.grabs.clear();
        state.sink = nullptr;
    }
    bool isOpen() const override { return state.open && !state.lost; }
    std::vector<KeyGrab> setGrabs(const std::vector<KeyGrab> &grabs) override
    {
        std::vector<KeyGrab> failed;
        state.grabs.clear();
        for (const KeyGrab &grab : grabs) {
            const auto &taken = state.takenByOthers;
            if (std::find(taken.begin(), taken.end(), grab) != taken.end())
                failed.push_back(grab);
            else
                state.grabs.push_back(grab);
        }
        return failed;
    }
    QString errorString() const override { return QStringLiteral("no keyboard here"); }

    State &state;
};

class MonitorRules : public ::testing::Test
{
protected:
    MonitorRules() : monitor(std::make_unique<ScriptedKeyboard>(keyboard))
    {
        monitor.onPress = [this] { ++pressed; };
        monitor.onRelease = [this] { ++released; };
        monitor.onEscape = [this] { ++escaped; };
        monitor.escapeActive = [this] { return escapeActive; };
    }

    void send(Kind kind, Route route, std::uint16_t code, std::uint64_t modifiers = 0,
              bool repeat = false)
    {
        ASSERT_TRUE(keyboard.sink) << "the monitor is not listening";
        keyboard.sink(KeyEvent{kind, route, code, modifiers, repeat});
    }
    void observed(Kind kind, std::uint16_t code, bool repeat = false)
    {
        send(kind, Route::observed, code, 0, repeat);
    }
    void grabbedPress(std::uint16_t code, std::uint64_t modifiers, bool repeat = false)
    {
        send(Kind::press, Route::grabbed, code, modifiers, repeat);
    }

    ScriptedKeyboard::State keyboard;
    HotkeyMonitor monitor;
    int pressed = 0;
    int released = 0;
    int escaped = 0;
    bool escapeActive = false;
};

TEST_F(MonitorRules, ModifierKeyAloneFollowsItsOwnPressAndRelease)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(keyboard.grabs.empty()) << "a modifier alone is watched, never grabbed";

    observed(Kind::press, KeyCode::rightAlt);
    observed(Kind::press, KeyCode::rightAlt, true);
    observed(Kind::press, KeyCode::rightAlt);
    EXPECT_EQ(pressed, 1) << "repeats and presses while down call nothing";
    EXPECT_TRUE(monitor.isDown());
    observed(Kind::release, KeyCode::rightAlt);
    observed(Kind::release, KeyCode::rightAlt);
    EXPECT_EQ(released, 1);
    EXPECT_FALSE(monitor.isDown());

    // The other Alt is another key; holding it does not keep Right Alt down.
    observed(Kind::press, KeyCode::leftAlt);
    EXPECT_EQ(pressed, 1);
    observed(Kind::press, KeyCode::rightAlt);
    observed(Kind::release, KeyCode::rightAlt);
    observed(Kind::release, KeyCode::leftAlt);
    EXPECT_EQ(pressed, 2);
    EXPECT_EQ(released, 2);

    // A grabbed event of the same key code is not how a modifier alone is followed.
    grabbedPress(KeyCode::rightAlt, 0);
    EXPECT_EQ(pressed, 2);
}

TEST_F(MonitorRules, StoredModifierKeyThatIsNoModifierIsIgnored)
{
    // A hand-edited setting: the A key "alone". Typing an "a" must not start dictation.
    ASSERT_TRUE(monitor.start(Hotkey{30, 0, true}));
    observed(Kind::press, 30);
    observed(Kind::release, 30);
    EXPECT_EQ(pressed, 0);
    EXPECT_EQ(released, 0);
}

TEST_F(MonitorRules, CombinationStartsOnItsExactModifiersAndEndsOnItsKeysRelease)
{
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.grabs, (std::vector<KeyGrab>{{KeyCode::space, ctrlAltSpace.modifiers}}));

    // Space seen in passing (typing) is ignored, a release without a seen press too.
    observed(Kind::press, KeyCode::space);
    observed(Kind::release, KeyCode::space);
    EXPECT_EQ(pressed + released, 0);

    // Extra modifiers make another combination.
    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers | Modifier::shift);
    EXPECT_EQ(pressed, 0);

    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers);
    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers, true);
    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers);
    EXPECT_EQ(pressed, 1);
    // Another key's release does not end it; Space's does, whatever modifiers are left.
    observed(Kind::release, KeyCode::leftCtrl);
    EXPECT_TRUE(monitor.isDown());
    observed(Kind::release, KeyCode::space);
    EXPECT_EQ(released, 1);
    EXPECT_FALSE(monitor.isDown());

    // The release may also come through the grab; it counts once either way.
    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers);
    send(Kind::release, Route::grabbed, KeyCode::space, 0);
    observed(Kind::release, KeyCode::space);
    EXPECT_EQ(pressed, 2);
    EXPECT_EQ(released, 2);

    // A first press that arrives marked as a repeat is not a new press.
    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers, true);
    EXPECT_EQ(pressed, 2);
}

TEST_F(MonitorRules, EscapeIsGrabbedAndReportedOnlyWhileItCancels)
{
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(keyboard.grabs.empty());

    escapeActive = true;
    monitor.refreshEscapeGrab();
    EXPECT_EQ(keyboard.grabs, std::vector<KeyGrab>{escapeGrab});
    grabbedPress(KeyCode::escape, 0);
    grabbedPress(KeyCode::escape, 0, true);
    EXPECT_EQ(escaped, 2) << "every press counts, repeats included";
    EXPECT_EQ(pressed, 0);

    escapeActive = false;
    monitor.refreshEscapeGrab();
    EXPECT_TRUE(keyboard.grabs.empty());

    // A grab that outlived its reason: no cancel, and Escape is handed back.
    escapeActive = true;
    monitor.refreshEscapeGrab();
    escapeActive = false;
    grabbedPress(KeyCode::escape, 0);
    EXPECT_EQ(escaped, 2);
    EXPECT_TRUE(keyboard.grabs.empty());

    // Starting while Escape cancels grabs it along with the combination.
    escapeActive = true;
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.grabs,
              (std::vector<KeyGrab>{{KeyCode::space, ctrlAltSpace.modifiers}, escapeGrab}));
}

TEST_F(MonitorRules, StartAndStopKeepOneListenerAndForgetTheHeldKey)
{
    EXPECT_FALSE(monitor.isRunning());
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    ASSERT_TRUE(monitor.start(ctrlAltSpace));
    EXPECT_EQ(keyboard.opens, 2);
    EXPECT_EQ(keyboard.closes, 1);
    EXPECT_EQ(keyboard.grabs.size(), 1u);
    EXPECT_TRUE(monitor.isRunning());
    EXPECT_EQ(monitor.hotkey(), ctrlAltSpace);

    grabbedPress(KeyCode::space, ctrlAltSpace.modifiers);
    ASSERT_TRUE(monitor.isDown());
    monitor.stop();
    EXPECT_FALSE(monitor.isDown());
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_EQ(released, 0) << "stopping is not a release";
    EXPECT_FALSE(keyboard.open);
    monitor.stop(); // harmless when stopped

    // A new key while stopped is only stored; while running it takes effect at once.
    monitor.setHotkey(Hotkey::defaultKey());
    EXPECT_FALSE(keyboard.open);
    EXPECT_EQ(monitor.hotkey(), Hotkey::defaultKey());
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    monitor.setHotkey(ctrlAltSpace);
    EXPECT_EQ(keyboard.grabs.size(), 1u);
    EXPECT_TRUE(monitor.isRunning());

    // A keyboard connection that goes away shows as not running.
    keyboard.lost = true;
    EXPECT_FALSE(monitor.isRunning());
}

TEST_F(MonitorRules, StartFailsClearlyWhenTheKeyboardOrTheCombinationIsUnavailable)
{
    keyboard.refuseOpen = true;
    EXPECT_FALSE(monitor.start(ctrlAltSpace));
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_EQ(monitor.errorString(), QStringLiteral("no keyboard here"));

    keyboard.refuseOpen = false;
    keyboard.takenByOthers = {{KeyCode::space, ctrlAltSpace.modifiers}, escapeGrab};
    EXPECT_FALSE(monitor.start(ctrlAltSpace));
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_FALSE(keyboard.open);
    EXPECT_TRUE(monitor.errorString().contains(QStringLiteral("Ctrl+Alt+Space")));

    // Escape held elsewhere only costs the cancel key.
    escapeActive = true;
    EXPECT_TRUE(monitor.start(Hotkey::defaultKey()));
    EXPECT_TRUE(monitor.errorString().isEmpty());
    EXPECT_TRUE(keyboard.grabs.empty());
}

TEST_F(MonitorRules, CallbacksMayStopTheMonitor)
{
    monitor.onPress = [this] {
        ++pressed;
        monitor.stop();
    };
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    const KeyEventSource::Sink sink = keyboard.sink;
    sink(KeyEvent{Kind::press, Route::observed, KeyCode::rightAlt, 0, false});
    EXPECT_EQ(pressed, 1);
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_FALSE(monitor.isDown());
}

} // namespace
} // namespace vocari
