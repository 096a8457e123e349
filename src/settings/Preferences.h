#pragma once

#include "hotkey/Hotkey.h"
#include "settings/SettingsTypes.h"

#include <QJsonValue>
#include <QLocale>
#include <QString>
#include <vector>

namespace vocari {

// The names under which settings are stored.
namespace SettingsKey {
inline constexpr auto hotkey = "hotkey.v2";
inline constexpr auto recordMode = "recordMode";
inline constexpr auto language = "language";
inline constexpr auto sounds = "sounds";
inline constexpr auto inputDevice = "inputDevice";
inline constexpr auto maxSeconds = "maxSeconds";
inline constexpr auto keepOnClipboard = "keepOnClipboard";
inline constexpr auto autoCapitalize = "autoCapitalize";
inline constexpr auto trailingSpace = "trailingSpace";
inline constexpr auto replacements = "replacements";
inline constexpr auto vocabulary = "vocabulary";
inline constexpr auto liveTyping = "liveTyping";
inline constexpr auto readKeyboards = "keys.readKeyboards";
inline constexpr auto aiTidy = "aiTidy";
inline constexpr auto tidyModelUrl = "tidyModel.url";
inline constexpr auto tidyModelName = "tidyModel.name";
inline constexpr auto tidyModelConfirmedHost = "tidyModel.confirmedHost";
inline constexpr auto pasteShortcut = "pasteShortcut";
inline constexpr auto hudPosition = "hud.position";
inline constexpr auto hudMargin = "hud.margin";
inline constexpr auto hudScale = "hud.scale";
inline constexpr auto hudDisplay = "hud.display";
inline constexpr auto hudShowText = "hud.showText";
inline constexpr auto hudShowEsc = "hud.showEsc";
inline constexpr auto hudTextMode = "hud.textMode";
inline constexpr auto engine = "engine";
inline constexpr auto customEngines = "customEngines";
} // namespace SettingsKey

// Typed access to every setting, each read anew from the shared settings store on every call
// with its default applied: a missing value, a value of the wrong JSON type or an unknown
// enumeration name reads as the default. Nothing is cached, so a change takes effect at the
// next use.
namespace Preferences {

struct Language
{
    QString id;
    QString name;
};
// The recognition languages, in the order the pickers list them.
const std::vector<Language> &languages();

Hotkey hotkey();
void setHotkey(const Hotkey &hotkey);

RecordMode recordMode();
QString language(); // defaults to defaultLanguage()
bool sounds();
QString inputDevice(); // empty: the system's default input
qint64 maxSeconds();   // below 1: no limit
bool keepOnClipboard();
bool autoCapitalize();
bool trailingSpace();
QString replacements();   // the raw rule text, one rule per line
QString vocabularyText(); // the raw vocabulary setting, one term per line
bool liveTyping();
// Whether the dictation key is read from the keyboards' devices on Wayland; off by default.
bool readKeyboards();
bool aiTidy();
// The language-model server the tidy-up's model stage uses, and its model (empty: the first it
// lists); a host other than this computer that the user agreed to send text to.
QString tidyModelUrl();
QString tidyModelName();
QString tidyModelConfirmedHost();
QString pasteShortcut(); // "auto", "ctrlV", "ctrlShiftV" or "shiftInsert"
HUDPosition hudPosition();
double hudMargin();
double hudScale();
HUDDisplay hudDisplay();
bool hudShowText();
bool hudShowEsc();
HUDTextMode hudTextMode();
QString engine();           // the selected engine id, "system" by default
QJsonValue customEngines(); // undefined when none were added

// The recognition language for a locale: the first language whose id begins with the
// locale's language code, or "en-US" when none does.
QString defaultLanguage(const QLocale &locale = QLocale());
// The same rule for a bare language code such as "de"; an empty code gives the first entry.
QString defaultLanguage(QStringView languageCode);

} // namespace Preferences
} // namespace vocari
