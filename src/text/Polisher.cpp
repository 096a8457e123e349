#include "text/Polisher.h"

#include "text/TextProcessor.h"

#include <QList>
#include <QRegularExpression>
#include <QSet>

namespace vocari {

namespace {

// Every pattern here needs Unicode properties: without them PCRE2's \s and \b know ASCII only,
// so a run of no-break spaces would stay and "Été été" would not count as a stutter.
constexpr auto kUnicode = QRegularExpression::UseUnicodePropertiesOption;
constexpr auto kUnicodeCaseless = kUnicode | QRegularExpression::CaseInsensitiveOption;

// Spaces and tabs, not line breaks.
bool isHorizontalSpace(QChar c)
{
    return c == u'\t' || c.category() == QChar::Separator_Space;
}

QStringView trimmedHorizontally(QStringView text)
{
    while (!text.isEmpty() && isHorizontalSpace(text.front()))
        text = text.sliced(1);
    while (!text.isEmpty() && isHorizontalSpace(text.back()))
        text.chop(1);
    return text;
}

// Whether a word that follows `before` begins a sentence: at the very start, or after a
// sentence mark, though not after an ellipsis, which trails off mid-sentence.
bool startsSentenceAfter(QStringView before)
{
    before = trimmedHorizontally(before);
    if (before.isEmpty())
        return true;
    const QChar last = before.back();
    const bool sentenceMark = last == u'.' || last == u'!' || last == u'?';
    return sentenceMark && !before.endsWith(u"...");
}

// A hesitation sound as a whole word, with an optional comma and white space before it and
// any run of "...", "," or "…" right after it.
QString removeFillers(QString text)
{
    static const QRegularExpression filler(
        QStringLiteral(R"(,?\s*\b(?:u+m+|u+h+|e+r+m+|e+u+h+|h+m+)\b(?:\.\.\.|[,…])*)"),
        kUnicodeCaseless);

    QList<QRegularExpressionMatch> matches;
    for (QRegularExpressionMatchIterator it = filler.globalMatch(text); it.hasNext();)
        matches.append(it.next());

    // From the last match to the first, so that earlier positions stay valid.
    for (qsizetype i = matches.size() - 1; i >= 0; --i) {
        const qsizetype start = matches[i].capturedStart();
        const bool capitalizeNext = startsSentenceAfter(QStringView(text).first(start));
        text.remove(start, matches[i].capturedLength());
        if (!capitalizeNext)
            continue;
        qsizetype next = start;
        while (next < text.size() && text[next].isSpace())
            ++next;
        text = TextProcessor::upperCaseCharacterAt(text, next);
    }
    return text;
}

// Words whose doubling is meant ("so so", "bye bye", "nous nous") and is kept.
bool isLegitimateDouble(const QString &word)
{
    static const QSet<QString> doubles{
        QStringLiteral("nous"), QStringLiteral("vous"), QStringLiteral("had"),
        QStringLiteral("that"), QStringLiteral("is"),   QStringLiteral("very"),
        QStringLiteral("so"),   QStringLiteral("no"),   QStringLiteral("yes"),
        QStringLiteral("oui"),  QStringLiteral("non"),  QStringLiteral("ha"),
        QStringLiteral("bye")};
    return doubles.contains(word.toLower());
}

// A word said twice in a row, whatever the case, becomes one, spelled as the first.
QString collapseRepeatedWords(QString text)
{
    static const QRegularExpression repeated(QStringLiteral(R"(\b(\p{L}+)\s+\1\b)"),
                                             kUnicodeCaseless);

    QList<QRegularExpressionMatch> matches;
    for (QRegularExpressionMatchIterator it = repeated.globalMatch(text); it.hasNext();)
        matches.append(it.next());

    for (qsizetype i = matches.size() - 1; i >= 0; --i) {
        const QString word = matches[i].captured(1);
        if (!isLegitimateDouble(word))
            text.replace(matches[i].capturedStart(), matches[i].capturedLength(), word);
    }
    return text;
}

QString repairSpacingAndPunctuation(QString text)
{
    static const QRegularExpression spaceBeforePunctuation(QStringLiteral(R"(\s+([,.!?;:]))"),
                                                           kUnicode);
    static const QRegularExpression whiteSpaceRun(QStringLiteral(R"(\s{2,})"), kUnicode);
    // "?." and ".." lose the period; an ellipsis "..." is left alone.
    static const QRegularExpression doubledPeriod(QStringLiteral(R"((?<!\.)([.!?])\.(?!\.))"),
                                                  kUnicode);

    text.replace(spaceBeforePunctuation, QStringLiteral("\\1"));
    text.replace(whiteSpaceRun, QStringLiteral(" "));
    text.replace(doubledPeriod, QStringLiteral("\\1"));
    return text;
}

} // namespace

QString Polisher::applyRules(const QString &text)
{
    return repairSpacingAndPunctuation(collapseRepeatedWords(removeFillers(text))).trimmed();
}

QCoro::Task<QString> Polisher::polish(QString text)
{
    // Without a language model the rules stage is the whole tidy-up.
    co_return applyRules(text);
}

} // namespace vocari
