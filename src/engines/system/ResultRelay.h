#pragma once

#include "engines/TextAccumulator.h"

#include <QString>
#include <functional>

namespace vocari {

// Turns a recogniser's provisional and final results into the transcriber's callbacks: after
// every result the whole text so far, and for every final result that is not blank the
// phrase itself, trimmed. Results come from one thread; text() may be read from any.
class ResultRelay
{
public:
    using Sink = std::function<void(const QString &)>;

    ResultRelay(Sink onText, Sink onCommit);

    void apply(const QString &words, bool isFinal);
    // Final followed by provisional text, without surrounding white space.
    QString text() const;

private:
    TextAccumulator m_accumulator;
    Sink m_onText;
    Sink m_onCommit;
};

} // namespace vocari
