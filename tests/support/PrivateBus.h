#pragma once

// A message bus of the test's own (dbus-daemon), so that a test neither sees nor disturbs the
// desktop's session bus. It ends with the test program, even one that crashes.

#include <QDir>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>
#include <csignal>
#include <sys/prctl.h>

namespace vocari::test {

// A session bus configuration that activates no service: the desktop's own session files would
// start whatever the machine has installed (xdg-desktop-portal among them) the moment a test
// asks for its name, and the test would meet that instead of what it provides itself.
inline QString privateBusConfig()
{
    static QTemporaryFile config(QDir::tempPath() + QStringLiteral("/vocari-test-bus-XXXXXX.conf"));
    static const bool written = [] {
        if (config.open()) {
            config.write("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                         "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/"
                         "busconfig.dtd\">\n"
                         "<busconfig>\n"
                         "  <type>session</type>\n"
                         "  <listen>unix:tmpdir=/tmp</listen>\n"
                         "  <auth>EXTERNAL</auth>\n"
                         "  <policy context=\"default\">\n"
                         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                         "    <allow eavesdrop=\"true\"/>\n"
                         "    <allow own=\"*\"/>\n"
                         "  </policy>\n"
                         "</busconfig>\n");
            config.flush();
        }
        return true;
    }();
    Q_UNUSED(written);
    return config.fileName();
}

// dbus-daemon's arguments for such a bus in the foreground at that address.
inline QStringList privateBusArguments(const QString &address)
{
    return {QStringLiteral("--config-file=") + privateBusConfig(), QStringLiteral("--nofork"),
            QStringLiteral("--address=") + address};
}

class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--config-file=") + privateBusConfig(),
                        QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
        if (m_daemon.waitForStarted(5000) && m_daemon.waitForReadyRead(5000))
            m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        else
            m_problem = QStringLiteral("dbus-daemon did not start: ") + m_daemon.errorString();
    }
    ~PrivateBus()
    {
        m_daemon.kill();
        m_daemon.waitForFinished(5000);
    }
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    // The bus's address; empty when it did not start, and problem() says why.
    QString address() const { return m_address; }
    QString problem() const { return m_problem; }

private:
    QProcess m_daemon;
    QString m_address;
    QString m_problem;
};

} // namespace vocari::test
