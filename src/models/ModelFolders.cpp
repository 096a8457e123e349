#include "models/ModelFolders.h"

#include "engines/parakeet/ModelLayout.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLocale>
#include <QLockFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace vocari::ModelFolders {

namespace {

const QLatin1String kAsideMark(".old-");

bool linkStatus(const QString &path, struct stat &info)
{
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

bool renameEntry(const QString &from, const QString &to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

// A name beside folder that nothing uses yet, for the old model while a new one moves in.
QString newAsideOf(const QString &folder)
{
    struct stat info
    {
    };
    QString aside;
    do {
        aside = folder + kAsideMark +
                QString::number(QRandomGenerator::global()->generate(), 16).rightJustified(8, '0');
    } while (linkStatus(aside, info));
    return aside;
}

// The old models set aside for folder by replaceFolder(), sorted by name.
QStringList asidesOf(const QString &folder)
{
    const QFileInfo info(folder);
    static const QRegularExpression suffix(QStringLiteral("^\\.old-[0-9a-f]{8}$"));
    QStringList asides;
    const QStringList entries = info.dir().entryList(
        {info.fileName() + kAsideMark + QLatin1Char('*')},
        QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &name : entries) {
        if (suffix.match(name.mid(info.fileName().size())).hasMatch())
            asides << info.dir().filePath(name);
    }
    return asides;
}

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

bool removeEntry(const QString &path)
{
    struct stat info
    {
    };
    if (!linkStatus(path, info))
        return errno == ENOENT;
    // QDir::removeRecursively() unlinks the links it meets inside a folder, but called on a
    // link to a folder it would empty the folder the link points to.
    if (S_ISDIR(info.st_mode))
        return QDir(path).removeRecursively();
    return ::unlink(QFile::encodeName(path).constData()) == 0;
}

bool isRealFolder(const QString &path)
{
    struct stat info
    {
    };
    return linkStatus(path, info) && S_ISDIR(info.st_mode);
}

bool replaceFolder(const QString &folder, const QString &replacement)
{
    struct stat info
    {
    };
    QString aside;
    if (linkStatus(folder, info)) {
        aside = newAsideOf(folder);
        if (!renameEntry(folder, aside))
            return false;
    }
    if (!renameEntry(replacement, folder)) {
        if (!aside.isEmpty())
            renameEntry(aside, folder);
        return false;
    }
    // What cannot be deleted now, recover() deletes at the next start.
    if (!aside.isEmpty())
        removeEntry(aside);
    return true;
}

void recover(const QString &folder)
{
    const QString staging = stagingFolderOf(folder);
    QStringList asides = asidesOf(folder);
    struct stat info
    {
    };
    if (asides.isEmpty() && !linkStatus(staging, info))
        return;
    QLockFile lock(lockFileOf(folder));
    lock.setStaleLockTime(0); // a download may take hours; only a dead owner frees the lock
    if (!lock.tryLock(0))
        return;
    // Killed between moving the old model aside and moving the new one in: the old one is
    // complete, while the staging folder cannot be told from one that was still filling.
    if (!linkStatus(folder, info) && !asides.isEmpty() && renameEntry(asides.front(), folder))
        asides.removeFirst();
    for (const QString &aside : asides)
        removeEntry(aside);
    removeEntry(staging);
}

QString lockFileOf(const QString &folder)
{
    return QDir::cleanPath(folder) + QStringLiteral(".lock");
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
