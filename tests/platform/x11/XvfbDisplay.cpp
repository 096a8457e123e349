#include "XvfbDisplay.h"

#include <QDeadlineTimer>
#include <QStandardPaths>

namespace vocari::test {

namespace {

constexpr int startTimeoutMs = 15000;

} // namespace

XvfbDisplay::~XvfbDisplay()
{
    stop();
}

bool XvfbDisplay::start(const QStringList &screens)
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    if (program.isEmpty()) {
        m_error = QStringLiteral("Xvfb is not installed");
        return false;
    }
    // -displayfd 1: the server picks a free display and writes its number to standard output
    // once it accepts connections.
    m_server.setProcessChannelMode(QProcess::SeparateChannels);
    m_server.setStandardErrorFile(QProcess::nullDevice());
    QStringList arguments{QStringLiteral("-displayfd"), QStringLiteral("1"),
                          QStringLiteral("-nolisten"), QStringLiteral("tcp")};
    arguments += screens.isEmpty() ? QStringList{QStringLiteral("-screen"), QStringLiteral("0"),
                                                 QStringLiteral("1024x768x24")}
                                   : screens;
    m_server.start(program, arguments);
    if (!m_server.waitForStarted(startTimeoutMs)) {
        m_error = QStringLiteral("Xvfb did not start: %1").arg(m_server.errorString());
        return false;
    }
    QByteArray output;
    const QDeadlineTimer deadline(startTimeoutMs);
    while (!output.contains('\n') && !deadline.hasExpired() &&
           m_server.state() == QProcess::Running) {
        if (m_server.waitForReadyRead(int(deadline.remainingTime())))
            output += m_server.readAllStandardOutput();
    }
    bool ok = false;
    const int number = output.trimmed().toInt(&ok);
    if (!ok) {
        m_error = QStringLiteral("Xvfb did not report a display");
        stop();
        return false;
    }
    m_name = QStringLiteral(":%1").arg(number);
    return true;
}

void XvfbDisplay::stop()
{
    if (m_server.state() == QProcess::NotRunning)
        return;
    m_server.terminate();
    if (!m_server.waitForFinished(5000)) {
        m_server.kill();
        m_server.waitForFinished(5000);
    }
}

} // namespace vocari::test
