#include "engines/system/ResultRelay.h"

namespace vocari {

ResultRelay::ResultRelay(Sink onText, Sink onCommit)
    : m_onText(std::move(onText)), m_onCommit(std::move(onCommit))
{
}

void ResultRelay::apply(const QString &words, bool isFinal)
{
    const QString full = m_accumulator.apply(words, isFinal);
    if (m_onText)
        m_onText(full);
    if (!isFinal || !m_onCommit)
        return;
    const QString phrase = words.trimmed();
    if (!phrase.isEmpty())
        m_onCommit(phrase);
}

QString ResultRelay::text() const
{
    const auto snapshot = m_accumulator.snapshot();
    return (snapshot.finalText + snapshot.volatileText).trimmed();
}

} // namespace vocari
