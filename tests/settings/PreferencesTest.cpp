#include "settings/Preferences.h"

#include "settings/SettingsStore.h"
#include "support/ScopedSettings.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <gtest/gtest.h>

namespace vocari {
namespace {

void store(const char *key, const QJsonValue &value)
{
    SettingsStore::shared().setValue(QLatin1String(key), value);
}

TEST(PreferencesTest, FreshUserDefaults)
{
    test::ScopedSettings settings;

    EXPECT_EQ(Preferences::hotkey(), (Hotkey{100, 0, true}));
    EXPECT_EQ(Preferences::hotkey().label(), "Right Alt");
    EXPECT_EQ(Preferences::recordMode(), RecordMode::hold);
    EXPECT_EQ(Preferences::language(), Preferences::defaultLanguage());
    EXPECT_TRUE(Preferences::sounds());
    EXPECT_EQ(Preferences::inputDevice(), QString());
    EXPECT_EQ(Preferences::maxSeconds(), 0);
    EXPECT_FALSE(Preferences::keepOnClipboard());
    EXPECT_FALSE(Preferences::autoCapitalize());
    EXPECT_FALSE(Preferences::trailingSpace());
    EXPECT_EQ(Preferences::replacements(), QString());
    EXPECT_EQ(Preferences::vocabularyText(), QString());
    EXPECT_FALSE(Preferences::liveTyping());
    EXPECT_FALSE(Preferences::aiTidy());
    EXPECT_EQ(Preferences::pasteShortcut(), "auto");
    EXPECT_EQ(Preferences::hudPosition(), HUDPosition::bottomCenter);
    EXPECT_EQ(Preferences::hudMargin(), 56.0);
    EXPECT_EQ(Preferences::hudScale(), 1.0);
    EXPECT_EQ(Preferences::hudDisplay(), HUDDisplay::cursor);
    EXPECT_TRUE(Preferences::hudShowText());
    EXPECT_TRUE(Preferences::hudShowEsc());
    EXPECT_EQ(Preferences::hudTextMode(), HUDTextMode::clip);
    EXPECT_EQ(Preferences::engine(), "system");
    EXPECT_TRUE(Preferences::customEngines().isUndefined());

    // Reading writes nothing back.
    EXPECT_FALSE(QFileInfo::exists(settings.store().filePath()));
}

TEST(PreferencesTest, StoredValuesAreReadAnewOnEveryCall)
{
    test::ScopedSettings settings;

    store("recordMode", "toggle");
    store("sounds", false);
    store("inputDevice", "alsa_input.usb-mic");
    store("maxSeconds", 90);
    store("keepOnClipboard", true);
    store("autoCapitalize", true);
    store("trailingSpace", true);
    store("replacements", "gonna = going to");
    store("vocabulary", "Vocari\nPipeWire");
    store("liveTyping", true);
    store("aiTidy", true);
    store("pasteShortcut", "shiftInsert");
    store("hud.position", "topRight");
    store("hud.margin", 12.5);
    store("hud.scale", 1.3);
    store("hud.display", "main");
    store("hud.showText", false);
    store("hud.showEsc", false);
    store("hud.textMode", "full");
    store("engine", "parakeetUltra");
    store("customEngines", QJsonArray{QJsonObject{{"id", "mine"}}});
    store("language", "es-ES");

    EXPECT_EQ(Preferences::recordMode(), RecordMode::toggle);
    EXPECT_FALSE(Preferences::sounds());
    EXPECT_EQ(Preferences::inputDevice(), "alsa_input.usb-mic");
    EXPECT_EQ(Preferences::maxSeconds(), 90);
    EXPECT_TRUE(Preferences::keepOnClipboard());
    EXPECT_TRUE(Preferences::autoCapitalize());
    EXPECT_TRUE(Preferences::trailingSpace());
    EXPECT_EQ(Preferences::replacements(), "gonna = going to");
    EXPECT_EQ(Preferences::vocabularyText(), "Vocari\nPipeWire");
    EXPECT_TRUE(Preferences::liveTyping());
    EXPECT_TRUE(Preferences::aiTidy());
    EXPECT_EQ(Preferences::pasteShortcut(), "shiftInsert");
    EXPECT_EQ(Preferences::hudPosition(), HUDPosition::topRight);
    EXPECT_EQ(Preferences::hudMargin(), 12.5);
    EXPECT_EQ(Preferences::hudScale(), 1.3);
    EXPECT_EQ(Preferences::hudDisplay(), HUDDisplay::main);
    EXPECT_FALSE(Preferences::hudShowText());
    EXPECT_FALSE(Preferences::hudShowEsc());
    EXPECT_EQ(Preferences::hudTextMode(), HUDTextMode::full);
    EXPECT_EQ(Preferences::engine(), "parakeetUltra");
    EXPECT_EQ(Preferences::customEngines().toArray().first().toObject().value("id"), "mine");
    EXPECT_EQ(Preferences::language(), "es-ES");

    // Every position and paste shortcut is understood, and a change shows at the next call.
    for (HUDPosition position : kHUDPositions) {
        store("hud.position", rawValue(position));
        EXPECT_EQ(Preferences::hudPosition(), position) << rawValue(position).toStdString();
    }
    for (const char *shortcut : {"auto", "ctrlV", "ctrlShiftV", "shiftInsert"}) {
        store("pasteShortcut", shortcut);
        EXPECT_EQ(Preferences::pasteShortcut(), shortcut);
    }
    store("maxSeconds", 12.9);
    EXPECT_EQ(Preferences::maxSeconds(), 12); // fractions are cut off
    store("maxSeconds", -5);
    EXPECT_EQ(Preferences::maxSeconds(), -5); // below 1 means no limit to the reader
}

TEST(PreferencesTest, WrongTypesReadAsTheDefault)
{
    test::ScopedSettings settings;

    store("sounds", "false");
    store("hud.scale", "1.3");
    store("hud.margin", true);
    store("hud.showText", 0);
    store("hud.showEsc", QJsonValue::Null);
    store("keepOnClipboard", "true");
    store("liveTyping", 1);
    store("recordMode", 1);
    store("hud.position", QJsonObject{{"bottomLeft", true}});
    store("maxSeconds", "30");
    store("inputDevice", 5);
    store("replacements", QJsonArray{"a = b"});
    store("engine", 3);
    store("language", 7);
    store("pasteShortcut", false);

    EXPECT_TRUE(Preferences::sounds());
    EXPECT_EQ(Preferences::hudScale(), 1.0);
    EXPECT_EQ(Preferences::hudMargin(), 56.0);
    EXPECT_TRUE(Preferences::hudShowText());
    EXPECT_TRUE(Preferences::hudShowEsc());
    EXPECT_FALSE(Preferences::keepOnClipboard());
    EXPECT_FALSE(Preferences::liveTyping());
    EXPECT_EQ(Preferences::recordMode(), RecordMode::hold);
    EXPECT_EQ(Preferences::hudPosition(), HUDPosition::bottomCenter);
    EXPECT_EQ(Preferences::maxSeconds(), 0);
    EXPECT_EQ(Preferences::inputDevice(), QString());
    EXPECT_EQ(Preferences::replacements(), QString());
    EXPECT_EQ(Preferences::engine(), "system");
    EXPECT_EQ(Preferences::language(), Preferences::defaultLanguage());
    EXPECT_EQ(Preferences::pasteShortcut(), "auto");
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

TEST(PreferencesTest, SettingsTypeNamesLabelsAndScales)
{
    for (RecordMode mode : kRecordModes)
        EXPECT_EQ(fromRawValue<RecordMode>(rawValue(mode)), mode);
    EXPECT_EQ(rawValue(RecordMode::toggle), "toggle");

    QStringList positions;
    for (HUDPosition position : kHUDPositions) {
        positions.append(rawValue(position));
        EXPECT_EQ(fromRawValue<HUDPosition>(rawValue(position)), position);
    }
    EXPECT_EQ(positions,
              (QStringList{"topLeft", "topCenter", "topRight", "middleLeft", "middleCenter",
                           "middleRight", "bottomLeft", "bottomCenter", "bottomRight"}));
    EXPECT_EQ(column(HUDPosition::topRight), 2);
    EXPECT_EQ(row(HUDPosition::topRight), 0);
    EXPECT_EQ(column(HUDPosition::bottomCenter), 1);
    EXPECT_EQ(row(HUDPosition::bottomCenter), 2);
    EXPECT_EQ(row(HUDPosition::middleLeft), 1);

    EXPECT_EQ(fromRawValue<HUDDisplay>(u"main"), HUDDisplay::main);
    EXPECT_EQ(fromRawValue<HUDDisplay>(u"cursor"), HUDDisplay::cursor);
    EXPECT_EQ(fromRawValue<HUDTextMode>(u"full"), HUDTextMode::full);
    EXPECT_EQ(fromRawValue<HUDSize>(u"large"), HUDSize::large);
    EXPECT_EQ(fromRawValue<RecordMode>(u"Hold"), std::nullopt);
    EXPECT_EQ(fromRawValue<HUDTextMode>(u""), std::nullopt);
    EXPECT_EQ(fromRawValue<HUDPosition>(u"bottomCenter "), std::nullopt);

    EXPECT_EQ(label(HUDSize::small), "Small");
    EXPECT_EQ(label(HUDSize::medium), "Medium");
    EXPECT_EQ(label(HUDSize::large), "Large");
    EXPECT_EQ(scale(HUDSize::small), 0.85);
    EXPECT_EQ(scale(HUDSize::medium), 1.0);
    EXPECT_EQ(scale(HUDSize::large), 1.3);
    EXPECT_EQ(label(HUDDisplay::cursor), "Screen with the cursor");
    EXPECT_EQ(label(HUDDisplay::main), "Main display");
}

} // namespace
} // namespace vocari
