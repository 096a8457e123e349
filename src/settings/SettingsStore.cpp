#include "settings/SettingsStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QThread>
#include <atomic>
#include <cmath>
#include <limits>
#include <sys/stat.h>

namespace vocari {

Q_LOGGING_CATEGORY(lcSettings, "vocari.settings")

namespace {

std::atomic<SettingsStore *> g_sharedOverride{nullptr};

QStringList differingKeys(const QJsonObject &before, const QJsonObject &after)
{
    QStringList keys;
    for (auto it = before.begin(); it != before.end(); ++it) {
        if (after.value(it.key()) != it.value())
            keys.append(it.key());
    }
    for (auto it = after.begin(); it != after.end(); ++it) {
        if (!before.contains(it.key()))
            keys.append(it.key());
    }
    return keys;
}

} // namespace

SettingsStore::SettingsStore(const QString &filePath, QObject *parent)
    : QObject(parent), m_filePath(QFileInfo(filePath).absoluteFilePath())
{
    {
        std::lock_guard lock(m_lock);
        m_values = loadLocked();
    }
    // A thread without an event loop yet (a worker that asked first, or start-up before the
    // application object exists) cannot host the watcher; it starts when the loop runs.
    if (thread()->eventDispatcher())
        watch();
    else
        QMetaObject::invokeMethod(this, &SettingsStore::watch, Qt::QueuedConnection);
}

SettingsStore::~SettingsStore() = default;

QString SettingsStore::defaultFilePath()
{
    // A relative XDG_CONFIG_HOME is invalid and ignored, as the XDG base directory rules say.
    QString configHome = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (configHome.isEmpty() || QDir::isRelativePath(configHome))
        configHome = QDir::homePath() + QStringLiteral("/.config");
    return configHome + QStringLiteral("/vocari/settings.json");
}

SettingsStore &SettingsStore::shared()
{
    if (SettingsStore *store = g_sharedOverride.load(std::memory_order_acquire))
        return *store;
    // Created once and kept for the life of the process. It belongs to the application's
    // thread even when a worker asks first, so that its file watcher has an event loop.
    static SettingsStore *const standard = [] {
        auto *store = new SettingsStore(defaultFilePath());
        if (auto *app = QCoreApplication::instance())
            store->moveToThread(app->thread());
        return store;
    }();
    return *standard;
}

SettingsStore *SettingsStore::setShared(SettingsStore *store)
{
    return g_sharedOverride.exchange(store, std::memory_order_acq_rel);
}

QJsonValue SettingsStore::value(const QString &key) const
{
    std::unique_lock lock(m_lock);
    const QStringList changed = refreshLocked();
    QJsonValue result = m_values.value(key);
    lock.unlock();
    announceLater(changed);
    return result;
}

bool SettingsStore::contains(const QString &key) const
{
    return !value(key).isUndefined();
}

std::optional<bool> SettingsStore::boolean(const QString &key) const
{
    const QJsonValue stored = value(key);
    return stored.isBool() ? std::optional(stored.toBool()) : std::nullopt;
}

std::optional<double> SettingsStore::number(const QString &key) const
{
    const QJsonValue stored = value(key);
    return stored.isDouble() ? std::optional(stored.toDouble()) : std::nullopt;
}

std::optional<QString> SettingsStore::string(const QString &key) const
{
    const QJsonValue stored = value(key);
    return stored.isString() ? std::optional(stored.toString()) : std::nullopt;
}

qint64 SettingsStore::intValue(const QString &key) const
{
    const std::optional<double> stored = number(key);
    if (!stored || std::isnan(*stored))
        return 0;
    // Fractions are cut off; numbers beyond the 64-bit range are clamped rather than
    // converted, which would be undefined.
    const double whole = std::trunc(*stored);
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (whole >= limit)
        return std::numeric_limits<qint64>::max();
    if (whole < -limit)
        return std::numeric_limits<qint64>::min();
    return qint64(whole);
}

void SettingsStore::setValue(const QString &key, const QJsonValue &value)
{
    QStringList changed;
    {
        std::lock_guard lock(m_lock);
        // Take in an edit of the file first, so that writing does not undo it.
        changed = refreshLocked();
        if (m_values.value(key) != value) {
            if (value.isUndefined())
                m_values.remove(key);
            else
                m_values.insert(key, value);
            // A failed write keeps the value for this session; the warning says why.
            writeLocked();
            if (!changed.contains(key))
                changed.append(key);
        }
    }
    watch(); // the first write may have created the folder and the file
    announce(changed);
}

void SettingsStore::remove(const QString &key)
{
    setValue(key, QJsonValue(QJsonValue::Undefined));
}

void SettingsStore::reload()
{
    QStringList changed;
    {
        std::lock_guard lock(m_lock);
        changed = refreshLocked();
    }
    announce(changed);
}

SettingsStore::FileStamp SettingsStore::stampOf(const QString &path)
{
    struct stat info; // filled in by stat()
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    return {true, quint64(info.st_dev), quint64(info.st_ino), qint64(info.st_size),
            qint64(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

QStringList SettingsStore::refreshLocked() const
{
    if (stampOf(m_filePath) == m_fileStamp)
        return {};
    QJsonObject fresh = loadLocked();
    QStringList changed = differingKeys(m_values, fresh);
    m_values = std::move(fresh);
    return changed;
}

QJsonObject SettingsStore::loadLocked() const
{
    // The stamp is taken before reading: a write that lands in between makes the next
    // comparison differ and the file is read once more, instead of a change going unseen.
    m_fileStamp = stampOf(m_filePath);
    if (!m_fileStamp.exists)
        return {};

    QFile file(m_filePath);
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lcSettings, "Cannot read the settings in %s (%s); using the defaults",
                  qUtf8Printable(m_filePath), qUtf8Printable(file.errorString()));
        return {};
    }
    const QByteArray data = file.readAll();
    file.close();
    // An empty file is an empty set of settings, and also what an editor that saves in place
    // leaves for a moment; setting it aside would lose that editor's save.
    if (data.trimmed().isEmpty())
        return {};

    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error == QJsonParseError::NoError && document.isObject())
        return document.object();

    const QString reason = error.error != QJsonParseError::NoError
                               ? error.errorString()
                               : QStringLiteral("not a JSON object");
    const QString badPath = m_filePath + QStringLiteral(".bad");
    QFile::remove(badPath);
    if (QFile::rename(m_filePath, badPath)) {
        qCWarning(lcSettings,
                  "The settings file %s is unreadable (%s); kept it as %s and using "
                  "the defaults",
                  qUtf8Printable(m_filePath), qUtf8Printable(reason), qUtf8Printable(badPath));
    } else {
        qCWarning(lcSettings,
                  "The settings file %s is unreadable (%s) and could not be set "
                  "aside; using the defaults",
                  qUtf8Printable(m_filePath), qUtf8Printable(reason));
    }
    m_fileStamp = stampOf(m_filePath);
    return {};
}

bool SettingsStore::writeLocked()
{
    const QString folder = QFileInfo(m_filePath).absolutePath();
    if (!QDir().mkpath(folder)) {
        qCWarning(lcSettings, "Cannot create the settings folder %s", qUtf8Printable(folder));
        return false;
    }
    QSaveFile file(m_filePath);
    const bool saved = file.open(QIODevice::WriteOnly) &&
                       file.write(QJsonDocument(m_values).toJson(QJsonDocument::Indented)) >= 0 &&
                       file.commit();
    if (!saved) {
        qCWarning(lcSettings, "Cannot save the settings to %s: %s", qUtf8Printable(m_filePath),
                  qUtf8Printable(file.errorString()));
        return false;
    }
    m_fileStamp = stampOf(m_filePath);
    return true;
}

void SettingsStore::checkFile()
{
    // After an atomic replacement the watch still points at the old inode, or is gone:
    // watch whatever the path names now.
    m_watcher->removePath(m_filePath);
    watch();
    reload();
}

void SettingsStore::watch()
{
    // The watcher belongs to the store's thread.
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &SettingsStore::watch, Qt::QueuedConnection);
        return;
    }
    if (!m_watcher) {
        m_watcher = new QFileSystemWatcher(this);
        connect(m_watcher, &QFileSystemWatcher::fileChanged, this, &SettingsStore::checkFile);
        connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, &SettingsStore::checkFile);
    }
    // The folder is watched as well: replacing the file atomically gives it a new inode,
    // which a watch on the old file would not follow.
    const QString folder = QFileInfo(m_filePath).absolutePath();
    if (!m_watcher->directories().contains(folder) && QFileInfo(folder).isDir())
        m_watcher->addPath(folder);
    if (!m_watcher->files().contains(m_filePath) && QFileInfo::exists(m_filePath))
        m_watcher->addPath(m_filePath);
}

void SettingsStore::announce(const QStringList &keys)
{
    if (keys.isEmpty())
        return;
    if (QThread::currentThread() != thread()) {
        announceLater(keys);
        return;
    }
    for (const QString &key : keys)
        emit valueChanged(key);
}

void SettingsStore::announceLater(const QStringList &keys) const
{
    if (keys.isEmpty())
        return;
    // Reads are const and may run on any thread; the signal goes out from the store's thread
    // once its event loop runs. Posting does not change the store's state.
    auto *self = const_cast<SettingsStore *>(this);
    QMetaObject::invokeMethod(
        self,
        [self, keys] {
            for (const QString &key : keys)
                emit self->valueChanged(key);
        },
        Qt::QueuedConnection);
}

} // namespace vocari
