#include "text/TextProcessor.h"

#include "settings/Preferences.h"

#include <QRegularExpression>
#include <QTextBoundaryFinder>

namespace vocari::TextProcessor {

namespace {

bool isLineBreak(QChar c)
{
    const char16_t unit = c.unicode();
    return (unit >= 0x0A && unit <= 0x0D) || unit == 0x85 || unit == 0x2028 || unit == 0x2029;
}

char32_t firstCodePoint(QStringView text)
{
    if (text.isEmpty())
        return 0;
    if (text.size() >= 2 && text[0].isHighSurrogate() && text[1].isLowSurrogate())
        return QChar::surrogateToUcs4(text[0], text[1]);
    return text[0].unicode();
}

char32_t lastCodePoint(QStringView text)
{
    if (text.isEmpty())
        return 0;
    const qsizetype last = text.size() - 1;
    if (last >= 1 && text[last].isLowSurrogate() && text[last - 1].isHighSurrogate())
        return QChar::surrogateToUcs4(text[last - 1], text[last]);
    return text[last].unicode();
}

// Matches `heard` literally, case-insensitively and as whole words: a word boundary is only
// required on a side that ends in a letter or number, so a rule such as "(c)" also matches
// inside other text. Code points are checked so that letters beyond the BMP count as letters.
QRegularExpression wholeWordPattern(const QString &heard)
{
    QString pattern = QRegularExpression::escape(heard);
    if (QChar::isLetterOrNumber(firstCodePoint(heard)))
        pattern.prepend(QLatin1String("\\b"));
    if (QChar::isLetterOrNumber(lastCodePoint(heard)))
        pattern.append(QLatin1String("\\b"));
    // Unicode properties make "\b" and case-insensitive matching treat every letter as a
    // letter; without them PCRE2 counts only ASCII as word characters, so "\b" would find no
    // word end after "café".
    return QRegularExpression(pattern, QRegularExpression::CaseInsensitiveOption |
                                           QRegularExpression::UseUnicodePropertiesOption);
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
        const QRegularExpression pattern = wholeWordPattern(rule.heard);
        if (!pattern.isValid())
            continue;
        result = replaceLiterally(result, pattern, rule.replacement);
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
