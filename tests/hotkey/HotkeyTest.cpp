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

TEST(HotkeyTest, LabelsAndKeyClasses)
{
    const std::pair<Hotkey, const char *> cases[] = {
        {Hotkey{}, "Right Alt"},
        {{126, 0, true}, "Right Super"},
        {{KeyCode::capsLock, 0, true}, "Key 58"},      // not a modifier key
        {{100, Modifier::control, true}, "Right Alt"}, // stray bits do not show
        {{30, Modifier::mask, false}, "Ctrl+Alt+Shift+Super+A"},
        {{105, Modifier::super, false}, "Super+←"},
        {{102, Modifier::super, false}, "Super+Key 102"},
        {{KeyCode::escape, Modifier::control, false}, "Ctrl+Key 1"}, // Escape has no name
        {{68, 0, false}, "F10"},
        {{87, 0, false}, "F11"},
        {{183, 0, false}, "F13"},
        {{63, 0x800000 | 0x1, false}, "F5"}, // bits beyond the four modifiers
    };
    for (const auto &[hotkey, label] : cases)
        EXPECT_EQ(hotkey.label(), QString::fromUtf8(label)) << ::testing::PrintToString(hotkey);

    for (const auto &[code, name] : Hotkey::modifierNames()) {
        EXPECT_FALSE(Hotkey::keyNames().contains(code)) << name.toStdString();
        const auto bit = Hotkey::flag(code);
        ASSERT_TRUE(bit.has_value()) << name.toStdString();
        EXPECT_EQ(*bit & Modifier::mask, *bit);
    }
    for (std::uint16_t code : {58, 1, 57, 0, 65535}) // Caps Lock, Escape, Space
        EXPECT_EQ(Hotkey::flag(code), std::nullopt) << code;

    // F1 to F19 only, in three runs of codes; only the code counts.
    for (std::uint16_t code : {59, 68, 87, 88, 183, 189})
        EXPECT_TRUE((Hotkey{code, Modifier::control, true}).isStandalone()) << code;
    for (std::uint16_t code : {57, 58, 69, 1, 100}) // 69 Num Lock, right after F10
        EXPECT_FALSE((Hotkey{code, 0, false}).isStandalone()) << code;
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
    for (const QJsonValue &notAnObject : {QJsonValue(), QJsonValue("Right Alt"), QJsonValue(100),
                                          QJsonValue(QJsonArray{100, 0, true})})
        EXPECT_FALSE(Hotkey::fromJson(notAnObject));

    // Missing keys, wrong types, fractions and numbers out of range.
    const char *malformed[] = {
        R"({"keyCode": 100, "modifiers": 0})",
        R"({"keyCode": 100, "modifierOnly": true})",
        R"({"modifiers": 0, "modifierOnly": true})",
        R"({"keyCode": "100", "modifiers": 0, "modifierOnly": true})",
        R"({"keyCode": 100, "modifiers": "0", "modifierOnly": true})",
        R"({"keyCode": 100, "modifiers": 0, "modifierOnly": 1})",
        R"({"keyCode": null, "modifiers": 0, "modifierOnly": true})",
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
    const Hotkey others[] = {
        {57, ctrlAlt, true}, {57, Modifier::control, false}, {58, ctrlAlt, false}};
    QSet<Hotkey> qtSet{combination, combination};
    std::unordered_set<Hotkey> stdSet{combination, combination};
    for (const Hotkey &other : others) {
        EXPECT_NE(combination, other);
        qtSet.insert(other);
        stdSet.insert(other);
    }
    EXPECT_EQ(qtSet.size(), 4);
    EXPECT_EQ(stdSet.size(), 4u);
}

} // namespace
} // namespace vocari
