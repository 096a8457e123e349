#include "hotkey/Hotkey.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <gtest/gtest.h>
#include <ostream>
#include <unordered_set>

namespace vocari {

static void PrintTo(const Hotkey &hotkey, std::ostream *out)
{
    *out << "Hotkey{" << hotkey.keyCode << ", 0x" << std::hex << hotkey.modifiers << std::dec
         << ", " << (hotkey.modifierOnly ? "modifierOnly" : "combination") << "}";
}

namespace {

constexpr std::uint64_t ctrlAlt = Modifier::control | Modifier::alt;

TEST(HotkeyTest, LabelsNameTheKeyAfterItsModifiersInAFixedOrder)
{
    const std::pair<Hotkey, const char *> cases[] = {
        {Hotkey{}, "Right Alt"},
        {{29, 0, true}, "Left Ctrl"},
        {{54, 0, true}, "Right Shift"},
        {{126, 0, true}, "Right Super"},
        {{KeyCode::capsLock, 0, true}, "Key 58"},      // not a modifier key
        {{100, Modifier::control, true}, "Right Alt"}, // stray bits do not show
        {{57, ctrlAlt, false}, "Ctrl+Alt+Space"},
        {{57, Modifier::super | Modifier::control, false}, "Ctrl+Super+Space"},
        {{30, Modifier::mask, false}, "Ctrl+Alt+Shift+Super+A"},
        {{2, Modifier::shift | Modifier::alt, false}, "Alt+Shift+1"},
        {{16, Modifier::control, false}, "Ctrl+Q"},
        {{14, Modifier::alt, false}, "Alt+Backspace"},
        {{105, Modifier::super, false}, "Super+←"},
        {{43, Modifier::shift, false}, "Shift+\\"},
        {{102, Modifier::super, false}, "Super+Key 102"},
        {{KeyCode::escape, Modifier::control, false}, "Ctrl+Key 1"}, // Escape has no name
        {{59, 0, false}, "F1"},
        {{68, 0, false}, "F10"},
        {{87, 0, false}, "F11"},
        {{88, 0, false}, "F12"},
        {{183, 0, false}, "F13"},
        {{189, 0, false}, "F19"},
        {{63, 0x800000 | 0x1, false}, "F5"}, // bits beyond the four modifiers
    };
    for (const auto &[hotkey, label] : cases)
        EXPECT_EQ(hotkey.label(), QString::fromUtf8(label)) << ::testing::PrintToString(hotkey);

    EXPECT_EQ(Hotkey::keyNames().size(), 74u);
    EXPECT_FALSE(Hotkey::keyNames().contains(KeyCode::escape));
    EXPECT_EQ(Hotkey::modifierNames().size(), 8u);
    for (const auto &[code, name] : Hotkey::modifierNames()) {
        EXPECT_FALSE(Hotkey::keyNames().contains(code)) << name.toStdString();
        const auto bit = Hotkey::flag(code);
        ASSERT_TRUE(bit.has_value()) << name.toStdString();
        EXPECT_EQ(*bit & Modifier::mask, *bit);
    }
}

TEST(HotkeyTest, ModifierFlagsStandaloneKeysAndPresets)
{
    EXPECT_EQ(Hotkey::flag(KeyCode::leftCtrl), Modifier::control);
    EXPECT_EQ(Hotkey::flag(KeyCode::rightShift), Modifier::shift);
    EXPECT_EQ(Hotkey::flag(KeyCode::rightAlt), Modifier::alt);
    EXPECT_EQ(Hotkey::flag(KeyCode::leftSuper), Modifier::super);
    for (std::uint16_t code : {58, 1, 57, 0, 65535}) // Caps Lock, Escape, Space
        EXPECT_EQ(Hotkey::flag(code), std::nullopt) << code;

    // F1 to F19 only, in three runs of codes; only the code counts.
    EXPECT_EQ(Hotkey::standaloneCodes().size(), 19u);
    for (std::uint16_t code : {59, 68, 87, 88, 183, 189})
        EXPECT_TRUE((Hotkey{code, Modifier::control, true}).isStandalone()) << code;
    for (std::uint16_t code : {57, 30, 58, 69, 1, 100}) // 69 Num Lock, right after F10
        EXPECT_FALSE((Hotkey{code, 0, false}).isStandalone()) << code;

    EXPECT_EQ(Hotkey::presets(),
              (std::vector<Hotkey>{Hotkey::defaultKey(), Hotkey{97, 0, true}, Hotkey{126, 0, true},
                                   Hotkey{57, 0x40000 | 0x80000, false}}));
}

TEST(HotkeyTest, JsonRoundTripsEveryValueThroughTheSettingsText)
{
    const Hotkey samples[] = {Hotkey{}, Hotkey{57, ctrlAlt, false}, Hotkey{0, 0, false},
                              Hotkey{65535, Modifier::mask, false},
                              Hotkey{189, 0x7FFFFFFFFFFFFFFF, true}};
    for (const Hotkey &sample : samples) {
        const QByteArray text = QJsonDocument(sample.toJson()).toJson();
        EXPECT_EQ(Hotkey::fromJson(QJsonDocument::fromJson(text).object()), sample) << text.data();
    }
    EXPECT_EQ(Hotkey{}.toJson(),
              (QJsonObject{{"keyCode", 100}, {"modifiers", 0}, {"modifierOnly", true}}));
    // Whole numbers written as decimals are still whole numbers.
    EXPECT_EQ(
        Hotkey::fromJson(QJsonDocument::fromJson(
                             R"({"keyCode": 57.0, "modifiers": 786432, "modifierOnly": false})")
                             .object()),
        (Hotkey{57, ctrlAlt, false}));
}

TEST(HotkeyTest, DecodingRejectsMalformedValues)
{
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue()));
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue("Right Alt")));
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue(100)));
    EXPECT_FALSE(Hotkey::fromJson(QJsonDocument::fromJson("[100, 0, true]").array()));

    const char *malformed[] = {
        // A missing key.
        R"({"keyCode": 100, "modifiers": 0})",
        R"({"keyCode": 100, "modifierOnly": true})",
        R"({"modifiers": 0, "modifierOnly": true})",
        // Wrong types.
        R"({"keyCode": "100", "modifiers": 0, "modifierOnly": true})",
        R"({"keyCode": 100, "modifiers": "0", "modifierOnly": true})",
        R"({"keyCode": 100, "modifiers": 0, "modifierOnly": 1})",
        R"({"keyCode": null, "modifiers": 0, "modifierOnly": true})",
        // Fractions and numbers out of range.
        R"({"keyCode": 57.5, "modifiers": 0, "modifierOnly": false})",
        R"({"keyCode": 57, "modifiers": 0.25, "modifierOnly": false})",
        R"({"keyCode": -1, "modifiers": 0, "modifierOnly": false})",
        R"({"keyCode": 65536, "modifiers": 0, "modifierOnly": false})",
        R"({"keyCode": 57, "modifiers": -262144, "modifierOnly": false})",
        R"({"keyCode": 57, "modifiers": 1e20, "modifierOnly": false})",
        R"({"keyCode": 1e300, "modifiers": 0, "modifierOnly": false})",
    };
    for (const char *text : malformed)
        EXPECT_FALSE(Hotkey::fromJson(QJsonDocument::fromJson(text).object())) << text;
}

TEST(HotkeyTest, EqualityAndHashingCoverEveryField)
{
    const Hotkey combination{57, ctrlAlt, false};
    const Hotkey sameCodeModifierOnly{57, ctrlAlt, true};
    EXPECT_NE(combination, sameCodeModifierOnly);
    EXPECT_NE(combination, (Hotkey{57, Modifier::control, false}));
    EXPECT_NE(combination, (Hotkey{58, ctrlAlt, false}));

    QSet<Hotkey> qtSet{combination, sameCodeModifierOnly, Hotkey{57, ctrlAlt, false}};
    EXPECT_EQ(qtSet.size(), 2);
    std::unordered_set<Hotkey> stdSet(Hotkey::presets().begin(), Hotkey::presets().end());
    stdSet.insert(Hotkey{});
    EXPECT_EQ(stdSet.size(), 4u);
    EXPECT_FALSE(stdSet.contains(Hotkey{126, 0, false}));
}

} // namespace
} // namespace vocari
