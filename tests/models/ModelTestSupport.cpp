#include "ModelTestSupport.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace vocari::test {

ScopedEnvironment::ScopedEnvironment(const char *name, const std::optional<QString> &value)
    : m_name(name)
{
    if (qEnvironmentVariableIsSet(name))
        m_previous = qgetenv(name);
    if (value)
        qputenv(name, value->toUtf8());
    else
        qunsetenv(name);
}

ScopedEnvironment::~ScopedEnvironment()
{
    if (m_previous)
        qputenv(m_name.constData(), *m_previous);
    else
        qunsetenv(m_name.constData());
}

ScopedDataHome::ScopedDataHome()
    : m_dataHome("XDG_DATA_HOME", m_dir.path()), m_endpoint("HF_ENDPOINT", std::nullopt),
      m_token("HF_TOKEN", std::nullopt)
{
}

bool waitUntil(const std::function<bool()> &condition, int limitMs)
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

QStringList communityInt8Files()
{
    return {QStringLiteral("nemo128.onnx"), QStringLiteral("encoder-model.int8.onnx"),
            QStringLiteral("decoder_joint-model.int8.onnx"), QStringLiteral("vocab.txt")};
}

void writeFakeModel(const QString &folder, const QStringList &files)
{
    QDir().mkpath(folder);
    for (const QString &name : files) {
        QFile file(QDir(folder).filePath(name));
        QDir().mkpath(QFileInfo(file).absolutePath());
        if (file.open(QIODevice::WriteOnly))
            file.write(name.toUtf8());
    }
}

QStringList filesBelow(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace vocari::test
