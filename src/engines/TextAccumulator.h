#pragma once

#include <QString>

#include <mutex>

namespace vocari {

// Turns a recogniser's stream of provisional and final results into the text so far: final
// results accumulate, each followed by one space; a provisional one replaces the previous.
class TextAccumulator
{
public:
    // Records one result and returns the whole text so far (final followed by volatile).
    QString apply(const QString &text, bool isFinal);

    struct Snapshot
    {
        QString finalText;
        QString volatileText;
    };
    Snapshot snapshot() const;

private:
    mutable std::mutex m_lock;
    QString m_final;
    QString m_volatile;
};

} // namespace vocari
