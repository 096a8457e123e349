#pragma once

// The real vocari program started as a user would, in a home of its own: fresh settings, its
// own config and data folders, and everything it logs kept in a file the test reads. What the
// desktop session offers (display, bus, sound server) comes from the test.

#include "platform/audio/ChildProcess.h"
#include "support/EventLoop.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace vocari::test {

class VocariHome
{
public:
    // `session`: the variables that place vocari in the test's desktop session.
    VocariHome(const QJsonObject &settings, ChildProcess::Options session)
        : m_session(std::move(session))
    {
        QDir().mkpath(configPath());
        QFile file(configPath() + QStringLiteral("/settings.json"));
        file.open(QIODevice::WriteOnly);
        file.write(QJsonDocument(settings).toJson());
    }

    QString configPath() const { return m_home.filePath(QStringLiteral("config/vocari")); }
    QString modelsPath() const { return m_home.filePath(QStringLiteral("data/vocari/models")); }

    // How vocari is run here: the session's variables, this home's folders, every log line.
    ChildProcess::Options options(bool keepOutput = false) const
    {
        ChildProcess::Options options = m_session;
        options.environment.insert(QStringLiteral("XDG_CONFIG_HOME"),
                                   m_home.filePath(QStringLiteral("config")));
        options.environment.insert(QStringLiteral("XDG_DATA_HOME"),
                                   m_home.filePath(QStringLiteral("data")));
        options.environment.insert(QStringLiteral("QT_LOGGING_RULES"),
                                   QStringLiteral("vocari.*=true"));
        if (keepOutput)
            options.keepOutput = true;
        else
            options.logFile = m_home.filePath(QStringLiteral("vocari.log"));
        return options;
    }

    // Starts vocari and waits until it says it is ready.
    bool start()
    {
        QString error;
        m_process = ChildProcess::start(QStringLiteral(VOCARI_BINARY), {}, options(), &error);
        if (!m_process) {
            ADD_FAILURE() << qPrintable(error);
            return false;
        }
        return waitForLog(QStringLiteral("ready in"), std::chrono::seconds(20));
    }

    // Runs "vocari <words>" as another start would; its exit code, output in *output.
    int command(const QStringList &words, QByteArray *output = nullptr) const
    {
        return ChildProcess::run(QStringLiteral(VOCARI_BINARY), words, options(true), output);
    }

    QString log() const
    {
        QFile file(m_home.filePath(QStringLiteral("vocari.log")));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    bool waitForLog(const QString &text,
                    std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        return waitUntil([&] { return log().contains(text); }, limit);
    }

    bool isRunning() { return m_process && m_process->isRunning(); }
    void stop()
    {
        if (m_process)
            m_process->terminate();
        m_process.reset();
    }

    // The settings of a test dictation: the feedback sounds, which play into the test
    // microphone, off unless the test hears them on purpose, and sentences capitalised.
    static QJsonObject dictationSettings(QJsonObject settings)
    {
        if (!settings.contains(QStringLiteral("sounds")))
            settings.insert(QStringLiteral("sounds"), false);
        settings.insert(QStringLiteral("autoCapitalize"), true);
        return settings;
    }
    // The same with the Parakeet test model selected, which installToneModel() provides.
    static QJsonObject toneModelSettings(QJsonObject settings)
    {
        settings = dictationSettings(settings);
        settings.insert(QStringLiteral("engine"), QStringLiteral("parakeetRedux"));
        return settings;
    }

#ifdef VOCARI_PARAKEET_FIXTURES
    // The Parakeet test model, installed as a downloaded model.
    void installToneModel() const
    {
        const QString target = modelsPath() + QStringLiteral("/parakeetRedux");
        QDir().mkpath(target);
        const QDir source(QStringLiteral(VOCARI_PARAKEET_FIXTURES "/split"));
        for (const QString &name : source.entryList(QDir::Files))
            QFile::copy(source.filePath(name), target + u'/' + name);
    }
#endif
    ChildProcess *process()
    {
        return m_process.get();
    }

private:
    QTemporaryDir m_home;
    ChildProcess::Options m_session;
    std::unique_ptr<ChildProcess> m_process;
};

} // namespace vocari::test
