#include "engines/system/VocabularySpelling.h"

#include <algorithm>

namespace vocari {

VocabularySpelling::VocabularySpelling(const QStringList &terms)
{
    for (const QString &term : terms) {
        const QString spelling = term.simplified();
        if (spelling.isEmpty())
            continue;
        m_terms.push_back({spelling.toLower().split(QLatin1Char(' ')), spelling});
    }
    std::stable_sort(m_terms.begin(), m_terms.end(),
                     [](const Term &a, const Term &b) { return a.words.size() > b.words.size(); });
}

QString VocabularySpelling::apply(const QString &words) const
{
    if (m_terms.empty())
        return words;
    const QStringList input = words.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
    QStringList output;
    qsizetype i = 0;
    while (i < input.size()) {
        const auto matches = [&](const Term &term) {
            if (i + term.words.size() > input.size())
                return false;
            for (qsizetype k = 0; k < term.words.size(); ++k) {
                if (input[i + k].compare(term.words[k], Qt::CaseInsensitive) != 0)
                    return false;
            }
            return true;
        };
        const auto term = std::find_if(m_terms.begin(), m_terms.end(), matches);
        if (term != m_terms.end()) {
            output << term->spelling;
            i += term->words.size();
        } else {
            output << input[i];
            ++i;
        }
    }
    return output.join(QLatin1Char(' '));
}

} // namespace vocari
