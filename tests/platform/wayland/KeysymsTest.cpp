#include "platform/wayland/Keysyms.h"

#include "platform/wayland/DesktopKeymap.h"
#include "platform/wayland/ShortcutTrigger.h"

#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon.h>

namespace vocari {
namespace {

// The keysyms of the presses, checking that each press is followed by its release.
std::vector<std::uint32_t> taps(const std::vector<KeysymEvent> &events)
{
    std::vector<std::uint32_t> keysyms;
    EXPECT_EQ(events.size() % 2, 0u);
    for (std::size_t i = 0; i + 1 < events.size(); i += 2) {
        EXPECT_EQ(events[i], (KeysymEvent{events[i].keysym, true, events[i].keycode}));
        EXPECT_EQ(events[i + 1], (KeysymEvent{events[i].keysym, false, events[i].keycode}));
        keysyms.push_back(events[i].keysym);
    }
    return keysyms;
}

TEST(KeysymsTest, TypingGivesOneTapPerCodePoint)
{
    // Characters beyond Latin-1 use the keysyms layouts name their keys with (EuroSign,
    // lstroke, Cyrillic_ya), and their Unicode keysym where layouts have none.
    const std::vector<std::uint32_t> expected{'H',   'i',   ',',        ' ',    0xf6,
                                              0xa0,  0xff,  0xff0d,     0xff09, 0x20ac,
                                              0x1b3, 0x6d1, 0x0101f44b, 'x'};
    EXPECT_EQ(taps(typingKeysyms(QStringLiteral("Hi, ö\u00a0ÿ\n\t€łя👋x"))), expected);
    // Carriage return, other control characters, C1 controls, DEL and lone surrogates cannot
    // be typed and are left out; the rest of the text still is.
    QString awkward = QStringLiteral("a\r\x01\u0085\u007f");
    awkward += QChar(0xd83d);
    awkward += QLatin1Char('b');
    awkward += QChar(0xdc4b);
    EXPECT_EQ(taps(typingKeysyms(awkward)), (std::vector<std::uint32_t>{'a', 'b'}));
    EXPECT_TRUE(typingKeysyms(QString()).empty());
}

TEST(KeysymsTest, BackspaceAndPasteKeys)
{
    EXPECT_EQ(taps(backspaceKeysyms(3)), (std::vector<std::uint32_t>(3, 0xff08)));
    EXPECT_TRUE(backspaceKeysyms(0).empty());

    // The paste keys carry their input codes (Ctrl 29, Shift 42, V 47, Insert 110), so a
    // layout without a "v" keysym still pastes.
    using Keys = TextInserter::PasteKeys;
    EXPECT_EQ(pasteKeysyms(Keys::ctrlV),
              (std::vector<KeysymEvent>{
                  {0xffe3, true, 29}, {0x76, true, 47}, {0x76, false, 47}, {0xffe3, false, 29}}));
    EXPECT_EQ(pasteKeysyms(Keys::ctrlShiftV), (std::vector<KeysymEvent>{{0xffe3, true, 29},
                                                                        {0xffe1, true, 42},
                                                                        {0x76, true, 47},
                                                                        {0x76, false, 47},
                                                                        {0xffe1, false, 42},
                                                                        {0xffe3, false, 29}}));
    EXPECT_EQ(
        pasteKeysyms(Keys::shiftInsert),
        (std::vector<KeysymEvent>{
            {0xffe1, true, 42}, {0xff63, true, 110}, {0xff63, false, 110}, {0xffe1, false, 42}}));
}

TEST(ShortcutTriggerTest, TriggersUseModifierWordsAndUsKeysymNames)
{
    constexpr auto ctrl = Modifier::control, alt = Modifier::alt, shift = Modifier::shift,
                   super = Modifier::super;
    const std::pair<Hotkey, const char *> cases[] = {
        {Hotkey{}, "Alt_R"},
        {{KeyCode::rightCtrl, 0, true}, "Control_R"},
        {{KeyCode::rightSuper, 0, true}, "Super_R"},
        {{KeyCode::leftShift, 0, true}, "Shift_L"},
        {{KeyCode::space, ctrl | alt, false}, "CTRL+ALT+space"},
        {{63, 0, false}, "F5"},
        {{10, super, false}, "LOGO+9"},
        // A fixed order whatever the bits, and bits beyond the four modifiers ignored.
        {{30, super | shift | ctrl | 0x1, false}, "CTRL+SHIFT+LOGO+a"},
        {{189, ctrl | alt | shift | super, false}, "CTRL+ALT+SHIFT+LOGO+F19"},
        {{26, ctrl, false}, "CTRL+bracketleft"},
        {{250, ctrl, false}, ""},
    };
    for (const auto &[hotkey, trigger] : cases)
        EXPECT_EQ(shortcutTrigger(hotkey), QString::fromUtf8(trigger))
            << hotkey.label().toStdString();
}

TEST(ShortcutTriggerTest, EveryKeyTheSettingsOfferHasAKeysymName)
{
    for (const auto &[code, label] : Hotkey::keyNames())
        EXPECT_FALSE(usKeysymName(code).isEmpty()) << label.toStdString();
    for (const auto &[code, label] : Hotkey::modifierNames())
        EXPECT_FALSE(usKeysymName(code).isEmpty()) << label.toStdString();
}

// What the desktop's layout types decides what goes by paste: a US layout has no é, a French
// one has it, and neither has an emoji.
TEST(DesktopKeymapTest, TheLayoutInUseSaysWhichCharactersCanBeTyped)
{
    const auto layoutText = [](const char *layout) {
        xkb_context *context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
        const xkb_rule_names names{"evdev", "pc105", layout, "", ""};
        xkb_keymap *keymap =
            xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
        char *text = xkb_keymap_get_as_string(keymap, XKB_KEYMAP_FORMAT_TEXT_V1);
        std::string copy(text);
        std::free(text);
        xkb_keymap_unref(keymap);
        xkb_context_unref(context);
        return copy;
    };
    const std::uint32_t eacute = keysymForCodePoint(U'é');
    const std::uint32_t wave = keysymForCodePoint(U'👋');
    DesktopKeymap::Layout us;
    ASSERT_TRUE(us.take(layoutText("us").c_str()));
    EXPECT_TRUE(us.has(keysymForCodePoint(U'A')));
    EXPECT_TRUE(us.has(keysymForCodePoint(U'\n')));
    EXPECT_FALSE(us.has(eacute));
    DesktopKeymap::Layout french;
    ASSERT_TRUE(french.take(layoutText("fr").c_str()));
    EXPECT_TRUE(french.has(eacute));
    EXPECT_FALSE(french.has(wave));
    EXPECT_FALSE(french.take("not a keymap"));
    EXPECT_TRUE(french.has(eacute)) << "a layout that does not compile changes nothing";
    // With two layouts, either may be the one in use: only what both have is typed.
    DesktopKeymap::Layout both;
    ASSERT_TRUE(both.take(layoutText("us,ru").c_str()));
    EXPECT_TRUE(both.has(keysymForCodePoint(U'1')));
    EXPECT_FALSE(both.has(keysymForCodePoint(U'q')));
    EXPECT_FALSE(both.has(keysymForCodePoint(U'я')));
}

} // namespace
} // namespace vocari
