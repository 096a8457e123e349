#pragma once

#include <QCoro/QCoroTask>
#include <QString>

namespace vocari {

// Tidies a finished dictation before it is inserted: removes hesitation sounds (um, uh, erm,
// euh, hmm in any stretched form), collapses accidentally repeated words and repairs spacing
// and doubled punctuation. Made for one dictation and dropped at its end.
class Polisher
{
public:
    Polisher() = default;

    // Whether an on-device language model rewrites the text after the rules. This system has
    // none yet, so tidy-up runs the rules stage only.
    bool hasLanguageModel() const { return false; }

    // The tidied text. Never fails: whatever cannot be improved is returned as the rules left it.
    QCoro::Task<QString> polish(QString text);

    // The rules stage on its own: fillers, repeated words, spacing before punctuation, runs of
    // white space, a period doubled after a sentence mark, then trimming.
    static QString applyRules(const QString &text);
};

} // namespace vocari
