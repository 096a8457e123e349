#include "text/Vocabulary.h"

#include "settings/Preferences.h"
#include "text/TextProcessor.h"

#include <QSet>

namespace vocari::Preferences {

QStringList vocabulary()
{
    return vocabulary(vocabularyText(), replacements());
}

QStringList vocabulary(QStringView vocabularyText, QStringView ruleText)
{
    QStringList candidates;
    for (const QStringView line : TextProcessor::lines(vocabularyText))
        candidates.append(line.trimmed().toString());
    for (const TextProcessor::Rule &rule : TextProcessor::rules(ruleText))
        candidates.append(rule.replacement);

    QStringList terms;
    QSet<QString> seen;
    for (const QString &term : std::as_const(candidates)) {
        if (term.isEmpty())
            continue;
        const QString key = term.toLower();
        if (seen.contains(key))
            continue;
        seen.insert(key);
        terms.append(term);
    }
    return terms;
}

} // namespace vocari::Preferences
