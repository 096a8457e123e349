#pragma once

#include <QStringView>

namespace vocari {

// The code point that the UTF-16 unit at `at` belongs to: both halves of a surrogate pair give
// the pair's code point; 0 past either end.
inline char32_t codePointAt(QStringView text, qsizetype at)
{
    if (at < 0 || at >= text.size())
        return 0;
    const QChar unit = text[at];
    if (unit.isHighSurrogate() && at + 1 < text.size() && text[at + 1].isLowSurrogate())
        return QChar::surrogateToUcs4(unit, text[at + 1]);
    if (unit.isLowSurrogate() && at > 0 && text[at - 1].isHighSurrogate())
        return QChar::surrogateToUcs4(text[at - 1], unit);
    return unit.unicode();
}

// How many UTF-16 units the code point starting at `at` takes.
inline qsizetype codePointLength(QStringView text, qsizetype at)
{
    return QChar::requiresSurrogates(codePointAt(text, at)) ? 2 : 1;
}

} // namespace vocari
