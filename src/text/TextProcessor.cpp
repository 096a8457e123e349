#include "text/TextProcessor.h"

#include "settings/Preferences.h"
#include "text/CodePoints.h"

#include <QRegularExpression>
#include <QTextBoundaryFinder>
#include <optional>

namespace vocari::TextProcessor {

namespace {

bool isLineBreak(QChar c)
{
    const char16_t unit = c.unicode();
    return (unit >= 0x0A && unit <= 0x0D) || unit == 0x85 || unit == 0x2028 || unit == 0x2029;
}

// Letters, numbers and the combining marks that belong to them. A side of the heard text that
// ends in one of these must meet the edge of a word.
bool isWordCharacter(char32_t c)
{
    return QChar::isLetterOrNumber(c) || QChar::isMark(c);
}

// What continues a word in the text: besides letters, numbers and underscores, every combining
// mark (an accent typed as a separate code point, an Indic vowel sign or virama) and the
// zero-width joiners that shape Indic conjuncts. None of these may sit just outside a match.
const QLatin1String kWordInText("[\\p{L}\\p{N}\\p{M}\\p{Pc}\\x{200C}\\x{200D}]");

// The heard text as a literal pattern in which every accented letter also matches its
// decomposed spelling (base letter plus combining marks), so that a rule typed one way finds
// words written the other way.
QString literalPattern(const QString &heard)
{
    const QString composed = heard.normalized(QString::NormalizationForm_C);
    QString pattern;
    for (qsizetype i = 0; i < composed.size();) {
        const qsizetype length = codePointLength(composed, i);
        const QString character = composed.sliced(i, length);
        const QString decomposed = character.normalized(QString::NormalizationForm_D);
        if (decomposed == character) {
            pattern += QRegularExpression::escape(character);
        } else {
            pattern += QLatin1String("(?:") + QRegularExpression::escape(character) +
                       QLatin1Char('|') + QRegularExpression::escape(decomposed) + QLatin1Char(')');
        }
        i += length;
    }
    return pattern;
}

// Matches `heard` literally, case-insensitively and as whole words: a word edge is only
// required on a side that ends in a letter, number or mark, so a rule such as "(c)" also
// matches inside other text. Code points are checked so that letters beyond the BMP count.
// None when the heard text is not valid UTF-16 or the pattern does not compile.
std::optional<QRegularExpression> wholeWordPattern(const QString &heard)
{
    if (!QStringView(heard).isValidUtf16())
        return std::nullopt;
    QString pattern = literalPattern(heard);
    if (isWordCharacter(codePointAt(heard, 0)))
        pattern.prepend(QLatin1String("(?<!") + kWordInText + QLatin1Char(')'));
    if (isWordCharacter(codePointAt(heard, heard.size() - 1)))
        pattern.append(QLatin1String("(?!") + kWordInText + QLatin1Char(')'));
    // Unicode properties make case-insensitive matching and the classes above know every
    // letter, not ASCII only.
    QRegularExpression compiled(pattern, QRegularExpression::CaseInsensitiveOption |
                                             QRegularExpression::UseUnicodePropertiesOption);
    if (!compiled.isValid())
        return std::nullopt;
    return compiled;
}

// Replaces every match with `replacement` as plain text. QString::replace() would read "\1"
// in a replacement as a back-reference, but rules insert exactly what the user wrote.
QString replaceLiterally(const QString &text, const QRegularExpression &pattern,
                         const QString &replacement)
{
    QRegularExpressionMatchIterator matches = pattern.globalMatch(text);
    if (!matches.hasNext())
        return text;
    QString result;
    result.reserve(text.size());
    qsizetype copied = 0;
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        result += QStringView(text).sliced(copied, match.capturedStart() - copied);
        result += replacement;
        copied = match.capturedEnd();
    }
    result += QStringView(text).sliced(copied);
    return result;
}

} // namespace

QList<QStringView> lines(QStringView text)
{
    // Empty lines are dropped, so the empty line between the CR and the LF of a pair never
    // shows and the pair acts as a single break.
    QList<QStringView> result;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i < text.size() && !isLineBreak(text[i]))
            continue;
        if (i > start)
            result.append(text.sliced(start, i - start));
        start = i + 1;
    }
    return result;
}

std::vector<Rule> rules(QStringView text)
{
    std::vector<Rule> result;
    for (const QStringView line : lines(text)) {
        const QStringView separator = line.contains(u"=>") ? QStringView(u"=>") : QStringView(u"=");
        const QList<QStringView> pieces = line.split(separator);
        if (pieces.size() < 2)
            continue;
        // A line holds no line breaks, so trimmed() removes exactly the horizontal white space.
        const QString heard = pieces.first().trimmed().toString();
        if (heard.isEmpty())
            continue;
        QString replacement;
        for (qsizetype i = 1; i < pieces.size(); ++i) {
            if (i > 1)
                replacement += u'=';
            replacement += pieces[i];
        }
        result.push_back({heard, replacement.trimmed()});
    }
    return result;
}

QString apply(const QString &text, bool capitalize)
{
    return apply(text, capitalize, Preferences::replacements(), Preferences::autoCapitalize());
}

QString apply(const QString &text, bool capitalize, QStringView ruleText, bool autoCapitalize)
{
    QString result = text.trimmed();
    for (const Rule &rule : rules(ruleText)) {
        if (const auto pattern = wholeWordPattern(rule.heard))
            result = replaceLiterally(result, *pattern, rule.replacement);
    }
    if (capitalize && autoCapitalize)
        result = upperCaseCharacterAt(result, 0);
    return result;
}

QString upperCaseCharacterAt(const QString &text, qsizetype position)
{
    if (position < 0 || position >= text.size())
        return text;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    finder.setPosition(position);
    const qsizetype end = finder.toNextBoundary();
    if (end <= position)
        return text;
    QString result = text;
    result.replace(position, end - position, text.sliced(position, end - position).toUpper());
    return result;
}

} // namespace vocari::TextProcessor
