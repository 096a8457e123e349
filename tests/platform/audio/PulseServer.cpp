#include "PulseServer.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vocari::test {

namespace {

// Clients connect to the socket; the command line beside it takes what pactl cannot do. The
// monitor of a null sink renders in blocks of up to two seconds unless something reads
// it with a short latency; a loopback into a second null sink keeps it at 20 ms, so that
// capture starts at once.
QString scriptFor(const QString &socket)
{
    return QStringLiteral("load-module module-native-protocol-unix socket=%1 auth-anonymous=1\n"
                          "load-module module-cli-protocol-unix socket=%1.cli\n"
                          "load-module module-null-sink sink_name=%2\n"
                          "load-module module-null-sink sink_name=vocari_drain\n"
                          "load-module module-loopback source=%2.monitor sink=vocari_drain "
                          "latency_msec=20 source_dont_move=true sink_dont_move=true\n"
                          "set-default-sink %2\n")
        .arg(socket, QLatin1String(PulseServer::kSpeaker));
}

QString microphoneArguments()
{
    return QStringLiteral("source_name=%1 master=%2.monitor "
                          "source_properties='device.description=\"%3\"'")
        .arg(QLatin1String(PulseServer::kMicrophone), QLatin1String(PulseServer::kSpeaker),
             QLatin1String(PulseServer::kMicrophoneName));
}

} // namespace

std::unique_ptr<PulseServer> PulseServer::start(QString *error)
{
    std::unique_ptr<PulseServer> server(new PulseServer);
    if (!server->m_dir.isValid()) {
        *error = QStringLiteral("no temporary folder");
        return nullptr;
    }
    const QString root = server->m_dir.path();
    const QString socket = root + QStringLiteral("/native");
    QFile script(root + QStringLiteral("/test.pa"));
    if (!script.open(QIODevice::WriteOnly) || script.write(scriptFor(socket).toUtf8()) < 0) {
        *error = QStringLiteral("could not write the server script");
        return nullptr;
    }
    script.close();

    // Nothing of the user's own sound setup is read: home, configuration and runtime folders
    // all point into the private folder.
    ChildProcess::Options options;
    options.environment = {
        {QStringLiteral("HOME"), root},
        {QStringLiteral("XDG_CONFIG_HOME"), root + QStringLiteral("/config")},
        {QStringLiteral("XDG_RUNTIME_DIR"), root},
        {QStringLiteral("PULSE_RUNTIME_PATH"), root + QStringLiteral("/runtime")},
        {QStringLiteral("PULSE_STATE_PATH"), root + QStringLiteral("/state")}};
    options.unsetEnvironment = {QStringLiteral("PULSE_SERVER"),
                                QStringLiteral("DBUS_SESSION_BUS_ADDRESS")};
    options.logFile = root + QStringLiteral("/server.log");
    server->m_server = ChildProcess::start(
        QStringLiteral("pulseaudio"),
        {QStringLiteral("-n"), QStringLiteral("-F"), script.fileName(),
         QStringLiteral("--daemonize=no"), QStringLiteral("--exit-idle-time=-1"),
         QStringLiteral("--use-pid-file=no"), QStringLiteral("--disable-shm=yes"),
         QStringLiteral("--log-target=stderr")},
        options, error);
    if (!server->m_server)
        return nullptr;

    const QDeadlineTimer deadline(10000);
    while (!server->pactl({QStringLiteral("info")})) {
        if (!server->m_server->isRunning() || deadline.hasExpired()) {
            QFile log(options.logFile);
            log.open(QIODevice::ReadOnly);
            *error = QStringLiteral("pulseaudio did not come up: ") +
                     QString::fromUtf8(log.readAll()).trimmed().split(u'\n').last();
            return nullptr;
        }
        QThread::msleep(50);
    }
    // A fresh null sink renders its first block of up to two seconds before the loopback's
    // short latency takes over; wait that out here rather than in the first capture.
    ChildProcess::Options reader = server->clientOptions();
    reader.keepOutput = true;
    const auto monitor = ChildProcess::start(
        QStringLiteral("parec"),
        {QStringLiteral("--raw"), QStringLiteral("--latency-msec=20"),
         QStringLiteral("--device=") + QLatin1String(kSpeaker) + QStringLiteral(".monitor")},
        reader, error);
    if (!monitor)
        return nullptr;
    const QDeadlineTimer warmUp(10000);
    while (monitor->isRunning() && monitor->output().isEmpty() && !warmUp.hasExpired())
        QThread::msleep(20);
    return server;
}

QString PulseServer::address() const
{
    return QStringLiteral("unix:") + m_dir.path() + QStringLiteral("/native");
}

ChildProcess::Options PulseServer::clientOptions() const
{
    ChildProcess::Options options;
    options.environment = {{QStringLiteral("PULSE_SERVER"), address()},
                           {QStringLiteral("HOME"), m_dir.path()}};
    return options;
}

std::optional<QString> PulseServer::pactl(const QStringList &arguments) const
{
    QByteArray output;
    if (ChildProcess::run(QStringLiteral("pactl"), arguments, clientOptions(), &output) != 0)
        return std::nullopt;
    return QString::fromUtf8(output).trimmed();
}

bool PulseServer::addMicrophone()
{
    const auto module = pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"),
                               microphoneArguments()});
    if (!module)
        return false;
    m_microphoneModule = *module;
    return pactl({QStringLiteral("set-default-source"), QLatin1String(kMicrophone)}).has_value();
}

bool PulseServer::removeMicrophone()
{
    return pactl({QStringLiteral("unload-module"), m_microphoneModule}).has_value();
}

bool PulseServer::command(const QString &line) const
{
    // The server's command line speaks plain text over its socket, answering only errors;
    // the end of the input ends the session.
    const QByteArray path = (m_dir.path() + QStringLiteral("/native.cli")).toUtf8();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (size_t(path.size()) >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const QByteArray input = line.toUtf8() + '\n';
    bool ok = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
              ::write(fd, input.constData(), size_t(input.size())) == input.size() &&
              ::shutdown(fd, SHUT_WR) == 0;
    QByteArray reply;
    char chunk[512];
    for (ssize_t n; ok && (n = ::read(fd, chunk, sizeof chunk)) > 0;)
        reply.append(chunk, n);
    ::close(fd);
    return ok && reply.trimmed().isEmpty();
}

std::unique_ptr<ChildProcess> PulseServer::play(const QString &path) const
{
    return ChildProcess::start(QStringLiteral("paplay"),
                               {QStringLiteral("--device=") + QLatin1String(kSpeaker), path},
                               clientOptions());
}

} // namespace vocari::test
