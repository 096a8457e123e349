#pragma once

#include <QString>
#include <QStringList>
#include <vector>

namespace vocari {

// Writes the user's vocabulary terms as the user spells them. PocketSphinx only ever outputs
// the lower-case words of its dictionary, so a term such as "GitHub" or "New York" comes out
// as "github" or "new york"; this puts the capitals back. Terms are matched as whole words,
// ignoring case, longer terms before the shorter ones they contain.
class VocabularySpelling
{
public:
    explicit VocabularySpelling(const QStringList &terms = {});

    QString apply(const QString &words) const;
    bool isEmpty() const { return m_terms.empty(); }

private:
    struct Term
    {
        QStringList words; // lower case, for matching
        QString spelling;  // as the user wrote it, inner spaces collapsed
    };
    std::vector<Term> m_terms;
};

} // namespace vocari
