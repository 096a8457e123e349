#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace vocari {

// The three files a PocketSphinx decoder needs for one language.
struct SphinxModel
{
    QString acousticModel; // folder with mdef, means, variances, …
    QString languageModel; // n-gram model (.lm.bin, .lm.dmp or ARPA .lm)
    QString dictionary;    // pronunciation dictionary (.dict or .dic)

    bool operator==(const SphinxModel &) const = default;
};

// Finds the PocketSphinx model for a recognition language. A model lives in a folder named
// after a language code ("de-de", "de", "en-us") under one of the search roots; a user's own
// folder comes before the system's, and a model for the whole locale before one for its
// language only. Any English locale falls back to Debian's "en-us" model.
namespace SphinxModelFinder {

// The user's folder ($XDG_DATA_HOME/vocari/pocketsphinx), then Debian's model folder.
QStringList defaultRoots();

// The folder names to try for a locale such as "en-GB", "de_DE" or "fr", best first:
// "en-gb", "en", "en-us"; "de-de", "de"; "fr". Empty for an empty or malformed locale.
QStringList candidateCodes(const QString &locale);

// The model files inside one folder, or none when one of the three is missing.
std::optional<SphinxModel> modelIn(const QString &folder, const QString &code);

// The first complete model for the locale under the roots, or none.
std::optional<SphinxModel> find(const QString &locale, const QStringList &roots = defaultRoots());

} // namespace SphinxModelFinder
} // namespace vocari
