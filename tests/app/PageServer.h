#pragma once

#include <QByteArray>
#include <QString>
#include <QTcpServer>
#include <chrono>

namespace vocari::test {

// A loopback web server of the test's own, serving one page with a text area that has the
// keyboard focus. The page sends the area's whole value back after every change, so the test
// reads exactly what a browser's text field holds.
class PageServer : public QObject
{
public:
    PageServer();

    // Listens on 127.0.0.1; false when no port could be had.
    bool listen();
    QString url() const;

    // The text area's value as last reported, and whether the page has reported at all.
    QString text() const { return m_text; }
    bool pageLoaded() const { return m_loaded; }
    // Waits until the text area holds exactly the text.
    bool waitForText(const QString &expected,
                     std::chrono::milliseconds limit = std::chrono::seconds(15));

private:
    void serve(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const QByteArray &request, const QByteArray &body);

    QTcpServer m_server;
    QString m_text;
    bool m_loaded = false;
};

} // namespace vocari::test
