#include "PageServer.h"

#include "support/EventLoop.h"

#include <QHostAddress>
#include <QTcpSocket>

namespace vocari::test {

namespace {

// The text area takes the focus at once and after every load; each change is sent back whole,
// in order (a queue of requests, one at a time).
const QByteArray kPage = R"(<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>Vocari test page</title></head>
<body>
<textarea id="field" autofocus rows="8" cols="60"></textarea>
<script>
const field = document.getElementById('field');
let sending = Promise.resolve();
function report(kind) {
  const value = field.value;
  sending = sending.then(() => fetch('/' + kind, {method: 'POST', body: value}).catch(() => {}));
}
field.addEventListener('input', () => report('text'));
window.addEventListener('load', () => { field.focus(); report('loaded'); });
</script>
</body></html>
)";

} // namespace

PageServer::PageServer()
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection())
            serve(socket);
    });
}

bool PageServer::listen()
{
    return m_server.listen(QHostAddress::LocalHost);
}

QString PageServer::url() const
{
    return QStringLiteral("http://127.0.0.1:%1/").arg(m_server.serverPort());
}

bool PageServer::waitForText(const QString &expected, std::chrono::milliseconds limit)
{
    return waitUntil([&] { return m_text == expected; }, limit);
}

void PageServer::serve(QTcpSocket *socket)
{
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
        QByteArray buffer = socket->property("buffer").toByteArray() + socket->readAll();
        // One request at a time per connection: its headers, then as many bytes as it says.
        for (;;) {
            const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
            if (headerEnd < 0)
                break;
            const QByteArray head = buffer.left(headerEnd);
            qsizetype length = 0;
            for (const QByteArray &line : head.split('\n')) {
                const QByteArray trimmed = line.trimmed();
                if (trimmed.toLower().startsWith("content-length:"))
                    length = trimmed.mid(15).trimmed().toLongLong();
            }
            if (buffer.size() < headerEnd + 4 + length)
                break;
            const QByteArray body = buffer.mid(headerEnd + 4, length);
            buffer.remove(0, headerEnd + 4 + length);
            answer(socket, head, body);
        }
        socket->setProperty("buffer", buffer);
    });
}

void PageServer::answer(QTcpSocket *socket, const QByteArray &head, const QByteArray &body)
{
    const QList<QByteArray> requestLine = head.left(head.indexOf('\r')).split(' ');
    const QByteArray method = requestLine.value(0);
    const QByteArray path = requestLine.value(1);
    if (method == "POST" && (path == "/text" || path == "/loaded")) {
        m_text = QString::fromUtf8(body);
        m_loaded = true;
        socket->write("HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n");
        return;
    }
    if (method == "GET" && path == "/") {
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"
                      "Cache-Control: no-store\r\nContent-Length: " +
                      QByteArray::number(kPage.size()) + "\r\n\r\n" + kPage);
        return;
    }
    socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
}

} // namespace vocari::test
