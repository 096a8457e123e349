#include "settings/Preferences.h"

#include "settings/SettingsStore.h"
#include "support/ScopedSettings.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace vocari {
namespace {

void store(const char *key, const QJsonValue &value)
{
    SettingsStore::shared().setValue(QLatin1String(key), value);
}

// One setting as the application reads it: its default, a stored value of the right type
// and what reads back, and a value of the wrong JSON type, which reads as the default.
struct SettingCase
{
    const char *key;
    std::function<QVariant()> read;
    QVariant fallback;
    QJsonValue stored;
    QVariant expected;
    QJsonValue wrongType;
};

template <typename T> QVariant raw(T value)
{
    return rawValue(value);
}

const std::vector<SettingCase> &settingCases()
{
    using P = QVariant;
    static const std::vector<SettingCase> cases = {
        {"recordMode", [] { return raw(Preferences::recordMode()); }, "hold", "toggle", "toggle",
         1},
        {"sounds", [] { return P(Preferences::sounds()); }, true, false, false, "false"},
        {"inputDevice", [] { return P(Preferences::inputDevice()); }, "", "alsa_input.usb",
         "alsa_input.usb", 5},
        {"maxSeconds", [] { return P(Preferences::maxSeconds()); }, 0, 12.9, 12, "30"},
        {"keepOnClipboard", [] { return P(Preferences::keepOnClipboard()); }, false, true, true,
         "true"},
        {"autoCapitalize", [] { return P(Preferences::autoCapitalize()); }, false, true, true, 1},
        {"trailingSpace", [] { return P(Preferences::trailingSpace()); }, false, true, true, "yes"},
        {"replacements", [] { return P(Preferences::replacements()); }, "", "a = b", "a = b",
         QJsonArray{"a = b"}},
        {"vocabulary", [] { return P(Preferences::vocabularyText()); }, "", "Vocari", "Vocari", 3},
        {"liveTyping", [] { return P(Preferences::liveTyping()); }, false, true, true, 1},
        {"aiTidy", [] { return P(Preferences::aiTidy()); }, false, true, true, "on"},
        {"pasteShortcut", [] { return P(Preferences::pasteShortcut()); }, "auto", "shiftInsert",
         "shiftInsert", false},
        {"hud.position", [] { return raw(Preferences::hudPosition()); }, "bottomCenter", "topRight",
         "topRight", QJsonObject{{"bottomLeft", true}}},
        {"hud.margin", [] { return P(Preferences::hudMargin()); }, 56.0, 12.5, 12.5, true},
        {"hud.scale", [] { return P(Preferences::hudScale()); }, 1.0, 1.3, 1.3, "1.3"},
        {"hud.display", [] { return raw(Preferences::hudDisplay()); }, "cursor", "main", "main", 0},
        {"hud.showText", [] { return P(Preferences::hudShowText()); }, true, false, false, 0},
        {"hud.showEsc", [] { return P(Preferences::hudShowEsc()); }, true, false, false,
         QJsonValue::Null},
        {"hud.textMode", [] { return raw(Preferences::hudTextMode()); }, "clip", "full", "full", 2},
        {"engine", [] { return P(Preferences::engine()); }, "system", "parakeetUltra",
         "parakeetUltra", 3},
    };
    return cases;
}

TEST(PreferencesTest, EverySettingReadsItsDefaultItsValueOrItsDefaultAgain)
{
    test::ScopedSettings settings;
    for (const SettingCase &c : settingCases())
        EXPECT_EQ(c.read(), c.fallback) << c.key << " default";
    EXPECT_EQ(Preferences::hotkey(), (Hotkey{100, 0, true}));
    EXPECT_EQ(Preferences::language(), Preferences::defaultLanguage());
    EXPECT_TRUE(Preferences::customEngines().isUndefined());
    // Reading writes nothing back.
    EXPECT_FALSE(QFileInfo::exists(settings.store().filePath()));

    // Read anew on every call, so a change shows at once; a wrong JSON type (a string
    // "false" is not a boolean) reads as the default.
    for (const SettingCase &c : settingCases()) {
        store(c.key, c.stored);
        EXPECT_EQ(c.read(), c.expected) << c.key << " stored";
        store(c.key, c.wrongType);
        EXPECT_EQ(c.read(), c.fallback) << c.key << " of the wrong type";
    }
    store("maxSeconds", -5);
    EXPECT_EQ(Preferences::maxSeconds(), -5); // below 1 means no limit to the reader
    for (HUDPosition position : kHUDPositions) {
        store("hud.position", rawValue(position));
        EXPECT_EQ(Preferences::hudPosition(), position) << rawValue(position).toStdString();
    }
}

TEST(PreferencesTest, UnknownNamesReadAsTheDefault)
{
    test::ScopedSettings settings;

    store("recordMode", "Toggle");
    store("hud.position", "center");
    store("hud.display", "Main");
    store("hud.textMode", "FULL");
    store("pasteShortcut", "ctrlv");
    store("language", "de");
    store("engine", "");

    EXPECT_EQ(Preferences::recordMode(), RecordMode::hold);
    EXPECT_EQ(Preferences::hudPosition(), HUDPosition::bottomCenter);
    EXPECT_EQ(Preferences::hudDisplay(), HUDDisplay::cursor);
    EXPECT_EQ(Preferences::hudTextMode(), HUDTextMode::clip);
    EXPECT_EQ(Preferences::pasteShortcut(), "auto");
    EXPECT_EQ(Preferences::language(), Preferences::defaultLanguage());
    EXPECT_EQ(Preferences::engine(), "system");

    // Nothing writes the default back.
    EXPECT_EQ(settings.store().string("recordMode"), "Toggle");
    EXPECT_EQ(settings.store().string("language"), "de");
}

TEST(PreferencesTest, DefaultLanguageFollowsTheLocale)
{
    using Preferences::defaultLanguage;
    EXPECT_EQ(defaultLanguage(QLocale::c()), "en-US");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::German, QLocale::Germany)), "de-DE");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::German, QLocale::Switzerland)), "de-DE");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::Japanese)), "en-US");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::Portuguese, QLocale::Brazil)), "pt-PT");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::English, QLocale::UnitedKingdom)), "en-US");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::French, QLocale::Canada)), "fr-FR");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::Italian)), "it-IT");
    EXPECT_EQ(defaultLanguage(QLocale(QLocale::Spanish, QLocale::Mexico)), "es-ES");

    EXPECT_EQ(defaultLanguage(u"en"), "en-US");
    EXPECT_EQ(defaultLanguage(u"pt"), "pt-PT");
    EXPECT_EQ(defaultLanguage(u""), "fr-FR"); // an empty code matches the first entry
    EXPECT_EQ(defaultLanguage(u"nl"), "en-US");

    // The language setting falls back to the current locale's default.
    test::ScopedSettings settings;
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Austria));
    EXPECT_EQ(Preferences::language(), "de-DE");
    store("language", "fr-FR");
    EXPECT_EQ(Preferences::language(), "fr-FR");
    store("language", "xx-XX");
    EXPECT_EQ(Preferences::language(), "de-DE");
    QLocale::setDefault(previous);

    QStringList ids;
    for (const Preferences::Language &language : Preferences::languages())
        ids.append(language.id);
    EXPECT_EQ(ids, (QStringList{"fr-FR", "en-US", "en-GB", "es-ES", "de-DE", "it-IT", "pt-PT"}));
    EXPECT_EQ(Preferences::languages().front().name, "Français");
    EXPECT_EQ(Preferences::languages().back().name, "Português");
}

TEST(PreferencesTest, HotkeyIsStoredAsItsJsonObject)
{
    test::ScopedSettings settings;
    const Hotkey combination{57, Modifier::control | Modifier::alt, false};

    Preferences::setHotkey(combination);
    EXPECT_EQ(Preferences::hotkey(), combination);
    const QJsonValue stored = settings.store().value("hotkey.v2");
    ASSERT_TRUE(stored.isObject());
    EXPECT_EQ(stored.toObject(), combination.toJson());
    // And it survives a restart.
    EXPECT_EQ(Hotkey::fromJson(SettingsStore(settings.store().filePath()).value("hotkey.v2")),
              combination);

    // Anything that does not decode gives the default key, and is left for the next
    // recording to overwrite.
    const QJsonValue undecodable[] = {
        QJsonValue("eyJrZXlDb2RlIjo2MX0="), // a data blob of an older format
        QJsonObject{{"keyCode", 57}, {"modifiers", 0}},
        QJsonObject{{"keyCode", 57.5}, {"modifiers", 0}, {"modifierOnly", false}},
        QJsonArray{57, 0, false},
        QJsonValue(true),
    };
    for (const QJsonValue &value : undecodable) {
        store("hotkey.v2", value);
        EXPECT_EQ(Preferences::hotkey(), Hotkey::defaultKey());
        EXPECT_EQ(settings.store().value("hotkey.v2"), value);
    }
    Preferences::setHotkey(Hotkey{126, 0, true});
    EXPECT_EQ(Preferences::hotkey().label(), "Right Super");
}

TEST(PreferencesTest, SettingsTypesRoundTripTheirCaseNamesExactly)
{
    for (RecordMode mode : kRecordModes)
        EXPECT_EQ(fromRawValue<RecordMode>(rawValue(mode)), mode);
    for (HUDPosition position : kHUDPositions)
        EXPECT_EQ(fromRawValue<HUDPosition>(rawValue(position)), position);
    EXPECT_EQ(column(HUDPosition::topRight), 2);
    EXPECT_EQ(row(HUDPosition::topRight), 0);
    EXPECT_EQ(row(HUDPosition::middleLeft), 1);
    EXPECT_EQ(fromRawValue<HUDSize>(u"large"), HUDSize::large);
    EXPECT_EQ(scale(HUDSize::small), 0.85);
    EXPECT_EQ(fromRawValue<RecordMode>(u"Hold"), std::nullopt);
    EXPECT_EQ(fromRawValue<HUDTextMode>(u""), std::nullopt);
    EXPECT_EQ(fromRawValue<HUDPosition>(u"bottomCenter "), std::nullopt);
}

} // namespace
} // namespace vocari
