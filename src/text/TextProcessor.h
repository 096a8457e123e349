#pragma once

#include <QList>
#include <QString>
#include <QStringView>
#include <vector>

namespace vocari {

// Turns recognised text into the text that is inserted: the user's whole-word replacement
// rules, then optionally a capital first letter. Stateless; the settings-reading overload
// looks at the settings anew on every call, so an edit counts from the next phrase on.
namespace TextProcessor {

// One replacement rule: every whole-word, case-insensitive occurrence of `heard` becomes
// `replacement`, inserted exactly as written. An empty replacement deletes what it matches.
struct Rule
{
    QString heard;
    QString replacement;
};

// The non-empty lines of a text. Every line-break character ends a line (LF, VT, FF, CR,
// NEL, LINE SEPARATOR, PARAGRAPH SEPARATOR); a CR LF pair counts as one break.
QList<QStringView> lines(QStringView text);

// Parses rule text, one rule per line, in line order. A line is "heard => replacement" when
// it contains "=>", else "heard = replacement"; the replacement keeps any further separators
// as "=". Lines without a separator or with an empty heard text are skipped.
std::vector<Rule> rules(QStringView text);

// The whole clean-up of one recognised text, with the rules and the autoCapitalize flag read
// from the settings. `capitalize` asks for a capital first letter, which autoCapitalize must
// also allow.
QString apply(const QString &text, bool capitalize);

// The same clean-up with the rule text and the autoCapitalize flag given by the caller:
// trims the text, applies every rule in order to the result of the one before, then upper-
// cases the first character when both flags are set. The result is not trimmed again.
QString apply(const QString &text, bool capitalize, QStringView ruleText, bool autoCapitalize);

// The text with the character (grapheme cluster) that starts at `position` replaced by its
// upper-case form, which may be longer ("ß" becomes "SS"). Other characters keep their case.
QString upperCaseCharacterAt(const QString &text, qsizetype position = 0);

} // namespace TextProcessor
} // namespace vocari
