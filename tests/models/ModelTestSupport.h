#pragma once

#include "models/ModelDownload.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QList>
#include <QPointer>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <optional>
#include <utility>

namespace vocari::test {

// The largest built-in engine and the hub repository it is downloaded from.
inline const QString kUltra = QStringLiteral("parakeetUltra");
inline const QString kUltraRepo = QStringLiteral("istupakov/parakeet-tdt-0.6b-v3-onnx");

// Sets an environment variable (or removes it) for the lifetime of this object.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char *name, const std::optional<QString> &value) : m_name(name)
    {
        if (qEnvironmentVariableIsSet(name))
            m_previous = qgetenv(name);
        value ? qputenv(name, value->toUtf8()) : qunsetenv(name);
    }
    ~ScopedEnvironment() { m_previous ? qputenv(m_name, *m_previous) : qunsetenv(m_name); }
    ScopedEnvironment(const ScopedEnvironment &) = delete;
    ScopedEnvironment &operator=(const ScopedEnvironment &) = delete;

private:
    const char *m_name;
    std::optional<QByteArray> m_previous;
};

// Points XDG_DATA_HOME at a fresh temporary folder, so that no test touches the real models
// folder, and clears HF_ENDPOINT and HF_TOKEN.
class ScopedDataHome
{
public:
    QString path() const { return m_dir.path(); }
    QString modelsRoot() const { return m_dir.filePath(QStringLiteral("vocari/models")); }
    QString modelFolder(const QString &id) const { return modelsRoot() + QLatin1Char('/') + id; }

private:
    QTemporaryDir m_dir;
    ScopedEnvironment m_dataHome{"XDG_DATA_HOME", m_dir.path()};
    ScopedEnvironment m_endpoint{"HF_ENDPOINT", std::nullopt};
    ScopedEnvironment m_token{"HF_TOKEN", std::nullopt};
};

// Runs the event loop until condition holds or a generous limit passes; returns the
// condition. The limit only keeps a broken build from hanging; no test depends on timing.
// Deferred deletions run too, as they would in the application's event loop.
inline bool waitUntil(const std::function<bool()> &condition, int limitMs = 30000)
{
    const QDeadlineTimer deadline(limitMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

// The required files of the community int8 layout.
inline QStringList communityInt8Files()
{
    return {QStringLiteral("nemo128.onnx"), QStringLiteral("encoder-model.int8.onnx"),
            QStringLiteral("decoder_joint-model.int8.onnx"), QStringLiteral("vocab.txt")};
}

// Writes those files into folder (created as needed), each holding its own name.
inline void writeFakeModel(const QString &folder, const QStringList &files = communityInt8Files())
{
    for (const QString &name : files) {
        QFile file(QDir(folder).filePath(name));
        QDir().mkpath(QFileInfo(file).absolutePath());
        if (file.open(QIODevice::WriteOnly))
            file.write(name.toUtf8());
    }
}

// A download that does nothing by itself: the test ends it, with a model in its folder, with an
// error, or cancelled.
class FakeDownload : public ModelDownload
{
public:
    FakeDownload(QString repository, QString folder)
        : repository(std::move(repository)), folder(std::move(folder))
    {
    }
    void start() override { started = true; }
    void cancel() override { end(DownloadError::cancelled()); }
    std::optional<DownloadError> error() const override { return m_error; }

    void report(double fraction) { emit progressed(fraction); }
    void succeed()
    {
        writeFakeModel(folder);
        end(std::nullopt);
    }
    void end(std::optional<DownloadError> error)
    {
        if (m_ended)
            return;
        m_ended = true;
        m_error = std::move(error);
        emit finished();
    }

    const QString repository, folder;
    bool started = false;

private:
    bool m_ended = false;
    std::optional<DownloadError> m_error;
};

// Every fake download a store asked for.
struct FakeDownloads
{
    QList<QPointer<FakeDownload>> made;

    ModelDownloadFactory factory()
    {
        return [this](const QString &repository, const QString &folder) {
            return made.emplace_back(new FakeDownload(repository, folder)).data();
        };
    }
};

// Every file below folder, relative to it, sorted.
inline QStringList filesBelow(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace vocari::test
