#pragma once

#include "ChildProcess.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <optional>

namespace vocari::test {

// A private PulseAudio server for one test program, in a folder of its own: a null sink
// "vocari_speaker" to play into and, once added, the default source "vocari_mic", which
// hears that sink (Qt lists no monitor sources, so the monitor is remapped into an ordinary
// source). The server dies with this object, and with the test process even if that crashes.
class PulseServer
{
public:
    static constexpr auto kSpeaker = "vocari_speaker";
    static constexpr auto kMicrophone = "vocari_mic";
    static constexpr auto kMicrophoneName = "Test Microphone";

    // A running server without the microphone yet, or none with the reason in *error.
    static std::unique_ptr<PulseServer> start(QString *error);

    // What clients set PULSE_SERVER to.
    QString address() const;
    QString folder() const { return m_dir.path(); }

    // Runs pactl with the arguments; returns its output, or none when it failed.
    std::optional<QString> pactl(const QStringList &arguments) const;
    // Runs one command of the server's own command language, such as "kill-source-output 3".
    bool command(const QString &line) const;
    // Adds the microphone (again, after a test removed it) and makes it the default source.
    bool addMicrophone();
    // Removes the microphone, as if it were unplugged.
    bool removeMicrophone();
    // Ends the server, as a crash would; every stream and device goes with it.
    void crash() { m_server->terminate(); }
    // Starts playing a sound file into the speaker; the caller waits for it to end.
    std::unique_ptr<ChildProcess> play(const QString &path) const;

private:
    PulseServer() = default;
    ChildProcess::Options clientOptions() const;

    QTemporaryDir m_dir;
    std::unique_ptr<ChildProcess> m_server;
    QString m_microphoneModule;
};

} // namespace vocari::test
