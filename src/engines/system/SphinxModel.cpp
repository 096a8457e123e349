#include "engines/system/SphinxModel.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <algorithm>

namespace vocari::SphinxModelFinder {

namespace {

const QString kSystemRoot = QStringLiteral("/usr/share/pocketsphinx/model");
const QString kEnglishFallback = QStringLiteral("en-us");

// Rank of a file name among the accepted suffixes (lower is better), or -1 when none fits.
int suffixRank(const QString &name, const QStringList &suffixes)
{
    for (int i = 0; i < suffixes.size(); ++i) {
        if (name.endsWith(suffixes[i], Qt::CaseInsensitive))
            return i;
    }
    return -1;
}

// The best file of the folder with one of the suffixes: names that mention the language code
// first, then by suffix, then by name, so the choice does not depend on directory order.
QString bestFile(const QDir &dir, const QString &code, const QStringList &suffixes)
{
    struct Candidate
    {
        bool mentionsCode;
        int rank;
        QString name;
    };
    std::vector<Candidate> candidates;
    const auto names = dir.entryList(QDir::Files | QDir::Readable, QDir::Name);
    for (const QString &name : names) {
        // Phone-loop language models sit beside the word model and only recognise phones.
        if (name.contains(QLatin1String("phone"), Qt::CaseInsensitive))
            continue;
        const int rank = suffixRank(name, suffixes);
        if (rank >= 0)
            candidates.push_back({name.contains(code, Qt::CaseInsensitive), rank, name});
    }
    if (candidates.empty())
        return {};
    const auto best = std::min_element(candidates.begin(), candidates.end(),
                                       [](const Candidate &a, const Candidate &b) {
                                           if (a.mentionsCode != b.mentionsCode)
                                               return a.mentionsCode;
                                           if (a.rank != b.rank)
                                               return a.rank < b.rank;
                                           return a.name < b.name;
                                       });
    return dir.absoluteFilePath(best->name);
}

bool startsWithAny(const QString &path, std::initializer_list<QByteArrayView> prefixes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray head = file.read(8);
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](QByteArrayView prefix) { return head.startsWith(prefix); });
}

// An acoustic model folder whose main files carry their format's signature. The decoder ends
// the whole process when it meets a damaged acoustic model, so a folder that fails this check
// is never handed to it.
bool isAcousticModel(const QDir &dir)
{
    const auto path = [&](const char *name) { return dir.filePath(QLatin1String(name)); };
    return startsWithAny(path("mdef"), {"BMDF", "0.3"}) && startsWithAny(path("means"), {"s3\n"}) &&
           startsWithAny(path("variances"), {"s3\n"}) &&
           startsWithAny(path("transition_matrices"), {"s3\n"});
}

// The acoustic model: the folder itself, or the subfolder named after the code, or the first
// other subfolder that holds one.
QString acousticModelIn(const QDir &dir, const QString &code)
{
    if (isAcousticModel(dir))
        return dir.absolutePath();
    QStringList subfolders = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    if (subfolders.removeAll(code) > 0)
        subfolders.prepend(code);
    for (const QString &name : std::as_const(subfolders)) {
        const QDir sub(dir.filePath(name));
        if (isAcousticModel(sub))
            return sub.absolutePath();
    }
    return {};
}

} // namespace

QStringList defaultRoots()
{
    QStringList roots;
    const QString userData = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (!userData.isEmpty())
        roots << QDir(userData).filePath(QStringLiteral("vocari/pocketsphinx"));
    roots << kSystemRoot;
    return roots;
}

QStringList candidateCodes(const QString &locale)
{
    // "en_US.UTF-8@euro" → "en-us"; anything else than letters, digits and separators is not a
    // locale name, so it cannot name a folder either.
    QString name = locale.section(QLatin1Char('.'), 0, 0).section(QLatin1Char('@'), 0, 0);
    name = name.trimmed().toLower().replace(QLatin1Char('_'), QLatin1Char('-'));
    static const QRegularExpression kLocaleName(QStringLiteral("^[a-z]{2,3}(-[a-z0-9]{2,8})*$"));
    if (!kLocaleName.match(name).hasMatch())
        return {};

    const QString language = name.section(QLatin1Char('-'), 0, 0);
    QStringList codes{name};
    if (language != name)
        codes << language;
    if (language == QLatin1String("en") && !codes.contains(kEnglishFallback))
        codes << kEnglishFallback;
    return codes;
}

std::optional<SphinxModel> modelIn(const QString &folder, const QString &code)
{
    const QDir dir(folder);
    if (!dir.exists())
        return std::nullopt;
    SphinxModel model;
    model.acousticModel = acousticModelIn(dir, code);
    model.languageModel = bestFile(
        dir, code, {QStringLiteral(".lm.bin"), QStringLiteral(".lm.dmp"), QStringLiteral(".lm")});
    model.dictionary = bestFile(dir, code, {QStringLiteral(".dict"), QStringLiteral(".dic")});
    if (model.acousticModel.isEmpty() || model.languageModel.isEmpty() ||
        model.dictionary.isEmpty())
        return std::nullopt;
    return model;
}

std::optional<SphinxModel> find(const QString &locale, const QStringList &roots)
{
    for (const QString &code : candidateCodes(locale)) {
        for (const QString &root : roots) {
            if (auto model = modelIn(QDir(root).filePath(code), code))
                return model;
        }
    }
    return std::nullopt;
}

} // namespace vocari::SphinxModelFinder
