#include "models/ModelFolders.h"

#include "engines/parakeet/ModelLayout.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLocale>
#include <sys/stat.h>

namespace vocari::ModelFolders {

namespace {

qint64 allocatedBytes(const QString &path)
{
    struct stat info
    {
    };
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return static_cast<qint64>(info.st_blocks) * 512;
}

} // namespace

QString root()
{
    QString dataHome = qEnvironmentVariable("XDG_DATA_HOME");
    if (dataHome.isEmpty() || QDir::isRelativePath(dataHome))
        dataHome = QDir::homePath() + QStringLiteral("/.local/share");
    return QDir::cleanPath(dataHome + QStringLiteral("/vocari/models"));
}

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
           !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) &&
           !name.contains(QChar(0));
}

std::optional<QString> folderOf(const Engine &engine, const QString &root)
{
    switch (engine.source.kind()) {
    case Engine::Source::Kind::System:
        return std::nullopt;
    case Engine::Source::Kind::Hub:
        // The id comes from the settings file, which anyone may edit: it must not lead out
        // of the models folder, since a removal deletes the folder it names.
        if (!isPlainName(engine.id))
            return std::nullopt;
        return QDir(root).filePath(engine.id);
    case Engine::Source::Kind::Local:
        if (engine.source.payload().isEmpty())
            return std::nullopt;
        return engine.source.payload();
    }
    return std::nullopt;
}

QString stagingFolderOf(const QString &folder)
{
    return QDir::cleanPath(folder) + QStringLiteral(".partial");
}

QStringList missingFiles(const QString &folder)
{
    return ModelLayout::missingFiles(folder);
}

qint64 allocatedSize(const QString &folder)
{
    if (!QFileInfo(folder).isDir())
        return 0;
    qint64 total = 0;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        total += allocatedBytes(it.next());
    return total;
}

QString formatSize(qint64 bytes)
{
    return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

QString diskSize(const QString &folder)
{
    return formatSize(allocatedSize(folder));
}

} // namespace vocari::ModelFolders
