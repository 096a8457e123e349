#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <optional>

namespace vocari::test {

// Sets an environment variable (or removes it) for the lifetime of this object.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char *name, const std::optional<QString> &value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment &) = delete;
    ScopedEnvironment &operator=(const ScopedEnvironment &) = delete;

private:
    QByteArray m_name;
    std::optional<QByteArray> m_previous;
};

// Points XDG_DATA_HOME at a fresh temporary folder, so that no test touches the real models
// folder, and clears HF_ENDPOINT and HF_TOKEN.
class ScopedDataHome
{
public:
    ScopedDataHome();
    QString path() const { return m_dir.path(); }
    QString modelsRoot() const { return m_dir.filePath(QStringLiteral("vocari/models")); }
    QString modelFolder(const QString &id) const { return modelsRoot() + QLatin1Char('/') + id; }

private:
    QTemporaryDir m_dir;
    ScopedEnvironment m_dataHome;
    ScopedEnvironment m_endpoint;
    ScopedEnvironment m_token;
};

// Runs the event loop until condition holds or a generous limit passes; returns the
// condition. The limit only keeps a broken build from hanging; no test depends on timing.
bool waitUntil(const std::function<bool()> &condition, int limitMs = 30000);

// The required files of the community int8 layout, with small made-up contents.
QStringList communityInt8Files();
// Writes those files into folder (created as needed), each holding its own name.
void writeFakeModel(const QString &folder, const QStringList &files = communityInt8Files());
// Every file below folder, relative to it, sorted.
QStringList filesBelow(const QString &folder);
QByteArray readFile(const QString &path);

} // namespace vocari::test
