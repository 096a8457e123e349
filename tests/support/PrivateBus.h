#pragma once

// A message bus of the test's own (dbus-daemon), so that a test neither sees nor disturbs the
// desktop's session bus. It ends with the test program, even one that crashes.

#include <QProcess>
#include <QString>
#include <csignal>
#include <sys/prctl.h>

namespace vocari::test {

class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"),
                        QStringLiteral("--print-address=1")});
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
