#pragma once

#include <QFileSystemWatcher>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QString>
#include <QStringList>
#include <mutex>
#include <optional>

namespace vocari {

// The per-user settings: one JSON object in a file, each value keeping its JSON type (so a
// string "false" is not a boolean). Every change is written at once, atomically; an edit made
// to the file by someone else is picked up; a file that does not parse is kept aside as
// "<name>.bad" and the defaults are used. Reads are safe from any thread.
class SettingsStore : public QObject
{
    Q_OBJECT
public:
    // A store backed by the given file (created with its folder on the first write).
    explicit SettingsStore(const QString &filePath, QObject *parent = nullptr);
    ~SettingsStore() override;

    // $XDG_CONFIG_HOME/vocari/settings.json (XDG_CONFIG_HOME defaults to ~/.config).
    static QString defaultFilePath();

    // The store every reader of the program uses, created on first use at defaultFilePath().
    static SettingsStore &shared();
    // Replaces the shared store (tests point it at a temporary file); returns the previous
    // one. The caller keeps ownership of the store it passes; nullptr restores the default.
    static SettingsStore *setShared(SettingsStore *store);

    QString filePath() const { return m_filePath; }

    // The stored value, or an undefined value when the key is absent.
    QJsonValue value(const QString &key) const;
    bool contains(const QString &key) const;

    // Typed reads: none when the key is absent or holds another JSON type.
    std::optional<bool> boolean(const QString &key) const;
    std::optional<double> number(const QString &key) const;
    std::optional<QString> string(const QString &key) const;

    // Plain reads with the usual fallbacks: false, 0 and the empty text.
    bool boolValue(const QString &key) const { return boolean(key).value_or(false); }
    qint64 intValue(const QString &key) const;
    QString stringValue(const QString &key) const { return string(key).value_or(QString()); }

    // Stores a value and writes the file; setting an undefined value removes the key.
    void setValue(const QString &key, const QJsonValue &value);
    void remove(const QString &key);

    // Looks at the file again now instead of waiting for the change notification.
    void reload();

signals:
    // A key's value changed, through this store or through an edit of the file.
    void valueChanged(const QString &key);

private:
    // What identifies the file's content without reading it: an atomic replacement changes
    // the inode, an edit in place the size or the modification time.
    struct FileStamp
    {
        bool exists = false;
        quint64 device = 0;
        quint64 inode = 0;
        qint64 size = 0;
        qint64 modifiedNs = 0;
        bool operator==(const FileStamp &) const = default;
    };
    static FileStamp stampOf(const QString &path);

    // Re-reads the file when its stamp changed; returns the keys whose values differ.
    QStringList refreshLocked() const;
    // Reads and parses the file, setting a file that does not parse aside.
    QJsonObject loadLocked() const;
    bool writeLocked();

    // Called when the watcher reports a change of the file or its folder.
    void checkFile();
    void watch();
    // Emits valueChanged for each key: at once on the store's thread, else through its queue.
    void announce(const QStringList &keys);
    void announceLater(const QStringList &keys) const;

    QString m_filePath;
    // Made on the store's own thread, which needs an event loop for it (see the constructor).
    QFileSystemWatcher *m_watcher = nullptr;
    mutable std::mutex m_lock; // guards m_values and m_fileStamp; never held while emitting
    mutable QJsonObject m_values;
    mutable FileStamp m_fileStamp; // the file as last read or written
};

} // namespace vocari
