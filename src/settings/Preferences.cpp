#include "settings/Preferences.h"

#include "settings/SettingsStore.h"

#include <QStringList>

namespace vocari::Preferences {

namespace {

SettingsStore &store()
{
    return SettingsStore::shared();
}

QString key(const char *name)
{
    return QLatin1String(name);
}

bool flag(const char *name, bool fallback)
{
    return store().boolean(key(name)).value_or(fallback);
}

double number(const char *name, double fallback)
{
    return store().number(key(name)).value_or(fallback);
}

// The case a stored enumeration name stands for, or `fallback` for anything else.
template <typename Enum> Enum choice(const char *name, Enum fallback)
{
    const std::optional<QString> stored = store().string(key(name));
    return stored ? fromRawValue<Enum>(*stored).value_or(fallback) : fallback;
}

} // namespace

const std::vector<Language> &languages()
{
    static const std::vector<Language> list{
        {QStringLiteral("fr-FR"), QStringLiteral("Français")},
        {QStringLiteral("en-US"), QStringLiteral("English (US)")},
        {QStringLiteral("en-GB"), QStringLiteral("English (UK)")},
        {QStringLiteral("es-ES"), QStringLiteral("Español")},
        {QStringLiteral("de-DE"), QStringLiteral("Deutsch")},
        {QStringLiteral("it-IT"), QStringLiteral("Italiano")},
        {QStringLiteral("pt-PT"), QStringLiteral("Português")},
    };
    return list;
}

Hotkey hotkey()
{
    // A key stored in an older or damaged form is replaced by the default until the user
    // records a new one.
    return Hotkey::fromJson(store().value(key(SettingsKey::hotkey))).value_or(Hotkey::defaultKey());
}

void setHotkey(const Hotkey &hotkey)
{
    store().setValue(key(SettingsKey::hotkey), hotkey.toJson());
}

RecordMode recordMode()
{
    return choice(SettingsKey::recordMode, RecordMode::hold);
}

QString language()
{
    QString stored = store().stringValue(key(SettingsKey::language));
    for (const Language &entry : languages()) {
        if (entry.id == stored)
            return stored;
    }
    return defaultLanguage();
}

bool sounds()
{
    return flag(SettingsKey::sounds, true);
}

QString inputDevice()
{
    return store().stringValue(key(SettingsKey::inputDevice));
}

qint64 maxSeconds()
{
    return store().intValue(key(SettingsKey::maxSeconds));
}

bool keepOnClipboard()
{
    return flag(SettingsKey::keepOnClipboard, false);
}

bool autoCapitalize()
{
    return flag(SettingsKey::autoCapitalize, false);
}

bool trailingSpace()
{
    return flag(SettingsKey::trailingSpace, false);
}

QString replacements()
{
    return store().stringValue(key(SettingsKey::replacements));
}

QString vocabularyText()
{
    return store().stringValue(key(SettingsKey::vocabulary));
}

bool readKeyboards()
{
    return flag(SettingsKey::readKeyboards, false);
}

bool liveTyping()
{
    return flag(SettingsKey::liveTyping, false);
}

bool aiTidy()
{
    return flag(SettingsKey::aiTidy, false);
}

QString tidyModelUrl()
{
    const QString stored = store().stringValue(key(SettingsKey::tidyModelUrl)).trimmed();
    return stored.isEmpty() ? QStringLiteral("http://127.0.0.1:11434") : stored;
}

QString tidyModelName()
{
    return store().stringValue(key(SettingsKey::tidyModelName)).trimmed();
}

QString tidyModelConfirmedHost()
{
    return store().stringValue(key(SettingsKey::tidyModelConfirmedHost)).trimmed();
}

QString pasteShortcut()
{
    static const QStringList known{QStringLiteral("auto"), QStringLiteral("ctrlV"),
                                   QStringLiteral("ctrlShiftV"), QStringLiteral("shiftInsert")};
    const QString stored = store().stringValue(key(SettingsKey::pasteShortcut));
    return known.contains(stored) ? stored : known.first();
}

HUDPosition hudPosition()
{
    return choice(SettingsKey::hudPosition, HUDPosition::bottomCenter);
}

double hudMargin()
{
    return number(SettingsKey::hudMargin, 56.0);
}

double hudScale()
{
    return number(SettingsKey::hudScale, 1.0);
}

HUDDisplay hudDisplay()
{
    return choice(SettingsKey::hudDisplay, HUDDisplay::cursor);
}

bool hudShowText()
{
    return flag(SettingsKey::hudShowText, true);
}

bool hudShowEsc()
{
    return flag(SettingsKey::hudShowEsc, true);
}

HUDTextMode hudTextMode()
{
    return choice(SettingsKey::hudTextMode, HUDTextMode::clip);
}

QString engine()
{
    const QString stored = store().stringValue(key(SettingsKey::engine));
    return stored.isEmpty() ? QStringLiteral("system") : stored;
}

QJsonValue customEngines()
{
    return store().value(key(SettingsKey::customEngines));
}

QString defaultLanguage(const QLocale &locale)
{
    if (locale.language() == QLocale::AnyLanguage)
        return defaultLanguage(QStringView());
    return defaultLanguage(QLocale::languageToCode(locale.language()).toLower());
}

QString defaultLanguage(QStringView languageCode)
{
    for (const Language &entry : languages()) {
        if (entry.id.startsWith(languageCode))
            return entry.id;
    }
    return QStringLiteral("en-US");
}

} // namespace vocari::Preferences
