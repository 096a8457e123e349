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

TEST(HotkeyTest, LabelsNameModifierOnlyKeysAndCombinations)
{
    EXPECT_EQ(Hotkey{}.label(), "Right Alt");
    EXPECT_EQ(Hotkey::defaultKey(), (Hotkey{100, 0, true}));

    EXPECT_EQ((Hotkey{29, 0, true}).label(), "Left Ctrl");
    EXPECT_EQ((Hotkey{97, 0, true}).label(), "Right Ctrl");
    EXPECT_EQ((Hotkey{42, 0, true}).label(), "Left Shift");
    EXPECT_EQ((Hotkey{54, 0, true}).label(), "Right Shift");
    EXPECT_EQ((Hotkey{56, 0, true}).label(), "Left Alt");
    EXPECT_EQ((Hotkey{125, 0, true}).label(), "Left Super");
    EXPECT_EQ((Hotkey{126, 0, true}).label(), "Right Super");
    // A modifier-only key that is not a modifier (Caps Lock), and one whose stray modifier
    // bits must not show.
    EXPECT_EQ((Hotkey{58, 0, true}).label(), "Key 58");
    EXPECT_EQ((Hotkey{100, Modifier::control, true}).label(), "Right Alt");

    EXPECT_EQ((Hotkey{57, ctrlAlt, false}).label(), "Ctrl+Alt+Space");
    // The order is fixed whatever bits are set.
    EXPECT_EQ((Hotkey{57, Modifier::super | Modifier::control, false}).label(), "Ctrl+Super+Space");
    EXPECT_EQ((Hotkey{30, Modifier::mask, false}).label(), "Ctrl+Alt+Shift+Super+A");
    EXPECT_EQ((Hotkey{2, Modifier::shift | Modifier::alt, false}).label(), "Alt+Shift+1");
    // Codes without a name, Escape among them.
    EXPECT_EQ((Hotkey{102, Modifier::super, false}).label(), "Super+Key 102");
    EXPECT_EQ((Hotkey{KeyCode::escape, Modifier::control, false}).label(), "Ctrl+Key 1");
    // Function keys alone, from each of the three runs of codes.
    EXPECT_EQ((Hotkey{63, 0, false}).label(), "F5");
    EXPECT_EQ((Hotkey{59, 0, false}).label(), "F1");
    EXPECT_EQ((Hotkey{68, 0, false}).label(), "F10");
    EXPECT_EQ((Hotkey{87, 0, false}).label(), "F11");
    EXPECT_EQ((Hotkey{88, 0, false}).label(), "F12");
    EXPECT_EQ((Hotkey{183, 0, false}).label(), "F13");
    EXPECT_EQ((Hotkey{189, 0, false}).label(), "F19");
    // Bits outside the four modifiers are not shown.
    EXPECT_EQ((Hotkey{63, 0x800000 | 0x1, false}).label(), "F5");
}

TEST(HotkeyTest, KeyNamesFollowTheLinuxCodes)
{
    const auto &names = Hotkey::keyNames();
    EXPECT_EQ(names.size(), 74u);

    // Letters by their legend at the physical position.
    const std::map<std::uint16_t, QString> letters{
        {16, "Q"}, {17, "W"}, {18, "E"}, {19, "R"}, {20, "T"}, {21, "Y"}, {22, "U"},
        {23, "I"}, {24, "O"}, {25, "P"}, {30, "A"}, {31, "S"}, {32, "D"}, {33, "F"},
        {34, "G"}, {35, "H"}, {36, "J"}, {37, "K"}, {38, "L"}, {44, "Z"}, {45, "X"},
        {46, "C"}, {47, "V"}, {48, "B"}, {49, "N"}, {50, "M"}};
    for (const auto &[code, name] : letters)
        EXPECT_EQ(names.at(code), name) << "code " << code;
    EXPECT_EQ(names.at(2), "1");
    EXPECT_EQ(names.at(10), "9");
    EXPECT_EQ(names.at(11), "0");

    const std::map<std::uint16_t, QString> others{
        {28, "Return"}, {15, "Tab"}, {57, "Space"}, {14, "Backspace"}, {105, "←"},
        {106, "→"},     {108, "↓"},  {103, "↑"},    {12, "-"},         {13, "="},
        {26, "["},      {27, "]"},   {39, ";"},     {40, "'"},         {51, ","},
        {52, "."},      {53, "/"},   {43, "\\"},    {41, "`"}};
    for (const auto &[code, name] : others)
        EXPECT_EQ(names.at(code), name) << "code " << code;

    // Escape is reserved for cancelling, and no modifier key is an ordinary key.
    EXPECT_FALSE(names.contains(KeyCode::escape));
    for (const auto &[code, name] : Hotkey::modifierNames())
        EXPECT_FALSE(names.contains(code)) << name.toStdString();
    EXPECT_EQ(Hotkey::modifierNames().size(), 8u);
}

TEST(HotkeyTest, OnlyFunctionKeysAreStandalone)
{
    const std::uint16_t functionKeys[] = {59, 60, 61,  62,  63,  64,  65,  66,  67, 68,
                                          87, 88, 183, 184, 185, 186, 187, 188, 189};
    for (std::uint16_t code : functionKeys) {
        EXPECT_TRUE((Hotkey{code, 0, false}).isStandalone()) << code;
        // Only the code counts.
        EXPECT_TRUE((Hotkey{code, Modifier::control, true}).isStandalone()) << code;
        EXPECT_TRUE(Hotkey::keyNames().at(code).startsWith('F')) << code;
    }
    EXPECT_EQ(Hotkey::standaloneCodes().size(), 19u);

    EXPECT_FALSE(Hotkey{}.isStandalone());
    EXPECT_FALSE((Hotkey{57, 0, false}).isStandalone());
    EXPECT_FALSE((Hotkey{30, 0, false}).isStandalone());
    EXPECT_FALSE((Hotkey{KeyCode::escape, 0, false}).isStandalone());
    EXPECT_FALSE((Hotkey{58, 0, false}).isStandalone());
    EXPECT_FALSE((Hotkey{69, 0, false}).isStandalone()); // Num Lock, right after F10
}

TEST(HotkeyTest, ModifierKeysMapToTheirSharedFlag)
{
    EXPECT_EQ(Hotkey::flag(29), Modifier::control);
    EXPECT_EQ(Hotkey::flag(97), Modifier::control);
    EXPECT_EQ(Hotkey::flag(42), Modifier::shift);
    EXPECT_EQ(Hotkey::flag(54), Modifier::shift);
    EXPECT_EQ(Hotkey::flag(56), Modifier::alt);
    EXPECT_EQ(Hotkey::flag(100), Modifier::alt);
    EXPECT_EQ(Hotkey::flag(125), Modifier::super);
    EXPECT_EQ(Hotkey::flag(126), Modifier::super);

    EXPECT_EQ(Hotkey::flag(KeyCode::capsLock), std::nullopt);
    EXPECT_EQ(Hotkey::flag(KeyCode::escape), std::nullopt);
    EXPECT_EQ(Hotkey::flag(KeyCode::space), std::nullopt);
    EXPECT_EQ(Hotkey::flag(0), std::nullopt);
    EXPECT_EQ(Hotkey::flag(65535), std::nullopt);

    // Every named modifier-only key has a flag, and every flag is one of the four bits.
    for (const auto &[code, name] : Hotkey::modifierNames()) {
        const auto bit = Hotkey::flag(code);
        ASSERT_TRUE(bit.has_value()) << name.toStdString();
        EXPECT_EQ(*bit & Modifier::mask, *bit);
    }
    EXPECT_EQ(Modifier::mask, 0x1E0000u);
}

TEST(HotkeyTest, PresetsInOrder)
{
    const auto &presets = Hotkey::presets();
    ASSERT_EQ(presets.size(), 4u);
    EXPECT_EQ(presets[0], Hotkey::defaultKey());
    EXPECT_EQ(presets[1], (Hotkey{97, 0, true}));
    EXPECT_EQ(presets[2], (Hotkey{126, 0, true}));
    EXPECT_EQ(presets[3], (Hotkey{57, 0x40000 | 0x80000, false}));

    QStringList labels;
    for (const Hotkey &preset : presets)
        labels.append(preset.label());
    EXPECT_EQ(labels, (QStringList{"Right Alt", "Right Ctrl", "Right Super", "Ctrl+Alt+Space"}));
}

TEST(HotkeyTest, JsonRoundTrip)
{
    const Hotkey samples[] = {Hotkey{}, Hotkey{57, ctrlAlt, false}, Hotkey{0, 0, false},
                              Hotkey{65535, Modifier::mask, false},
                              Hotkey{189, 0x7FFFFFFFFFFFFFFF, true}};
    for (const Hotkey &sample : samples) {
        const QJsonObject json = sample.toJson();
        EXPECT_EQ(json.keys(), (QStringList{"keyCode", "modifierOnly", "modifiers"}));
        EXPECT_TRUE(json.value("keyCode").isDouble());
        EXPECT_TRUE(json.value("modifiers").isDouble());
        EXPECT_TRUE(json.value("modifierOnly").isBool());
        EXPECT_EQ(Hotkey::fromJson(json), sample) << sample.label().toStdString();

        // Through text as well, as the settings file holds it.
        const QByteArray text = QJsonDocument(json).toJson();
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
    const auto decode = [](const QByteArray &text) {
        const QJsonDocument document = QJsonDocument::fromJson(text);
        return Hotkey::fromJson(document.isObject() ? QJsonValue(document.object())
                                                    : QJsonValue(document.array()));
    };
    EXPECT_TRUE(decode(R"({"keyCode": 57, "modifiers": 0, "modifierOnly": false})"));

    // Not an object at all.
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue()));
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue(QJsonValue::Null)));
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue("Right Alt")));
    EXPECT_FALSE(Hotkey::fromJson(QJsonValue(100)));
    EXPECT_FALSE(decode(R"([100, 0, true])"));

    // A missing key.
    EXPECT_FALSE(decode(R"({"keyCode": 100, "modifiers": 0})"));
    EXPECT_FALSE(decode(R"({"keyCode": 100, "modifierOnly": true})"));
    EXPECT_FALSE(decode(R"({"modifiers": 0, "modifierOnly": true})"));
    EXPECT_FALSE(decode(R"({})"));

    // Wrong types.
    EXPECT_FALSE(decode(R"({"keyCode": "100", "modifiers": 0, "modifierOnly": true})"));
    EXPECT_FALSE(decode(R"({"keyCode": 100, "modifiers": "0", "modifierOnly": true})"));
    EXPECT_FALSE(decode(R"({"keyCode": 100, "modifiers": 0, "modifierOnly": 1})"));
    EXPECT_FALSE(decode(R"({"keyCode": 100, "modifiers": 0, "modifierOnly": "true"})"));
    EXPECT_FALSE(decode(R"({"keyCode": null, "modifiers": 0, "modifierOnly": true})"));
    EXPECT_FALSE(decode(R"({"keyCode": 100, "modifiers": false, "modifierOnly": true})"));

    // Fractions and numbers out of range.
    EXPECT_FALSE(decode(R"({"keyCode": 57.5, "modifiers": 0, "modifierOnly": false})"));
    EXPECT_FALSE(decode(R"({"keyCode": 57, "modifiers": 0.25, "modifierOnly": false})"));
    EXPECT_FALSE(decode(R"({"keyCode": -1, "modifiers": 0, "modifierOnly": false})"));
    EXPECT_FALSE(decode(R"({"keyCode": 65536, "modifiers": 0, "modifierOnly": false})"));
    EXPECT_FALSE(decode(R"({"keyCode": 57, "modifiers": -262144, "modifierOnly": false})"));
    EXPECT_FALSE(decode(R"({"keyCode": 57, "modifiers": 1e20, "modifierOnly": false})"));
    EXPECT_FALSE(decode(R"({"keyCode": 1e300, "modifiers": 0, "modifierOnly": false})"));

    // The limits themselves are fine.
    EXPECT_EQ(decode(R"({"keyCode": 65535, "modifiers": 0, "modifierOnly": false})"),
              (Hotkey{65535, 0, false}));
    EXPECT_EQ(decode(R"({"keyCode": 0, "modifiers": 0, "modifierOnly": true})"),
              (Hotkey{0, 0, true}));
}

TEST(HotkeyTest, EqualityAndHashingCoverEveryField)
{
    const Hotkey combination{57, ctrlAlt, false};
    const Hotkey sameCodeModifierOnly{57, ctrlAlt, true};
    EXPECT_NE(combination, sameCodeModifierOnly);
    EXPECT_NE(combination, (Hotkey{57, Modifier::control, false}));
    EXPECT_NE(combination, (Hotkey{58, ctrlAlt, false}));
    EXPECT_EQ(combination, (Hotkey{57, ctrlAlt, false}));

    QSet<Hotkey> qtSet{combination, sameCodeModifierOnly, Hotkey{57, ctrlAlt, false}};
    EXPECT_EQ(qtSet.size(), 2);
    EXPECT_EQ(qHash(combination), qHash(Hotkey{57, ctrlAlt, false}));

    std::unordered_set<Hotkey> stdSet(Hotkey::presets().begin(), Hotkey::presets().end());
    stdSet.insert(Hotkey{});
    EXPECT_EQ(stdSet.size(), 4u);
    EXPECT_TRUE(stdSet.contains(Hotkey{126, 0, true}));
    EXPECT_FALSE(stdSet.contains(Hotkey{126, 0, false}));
}

} // namespace
} // namespace vocari
