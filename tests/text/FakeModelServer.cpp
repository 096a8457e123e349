#include "FakeModelServer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace vocari::test {

namespace {

QByteArray response(int status, const QByteArray &body,
                    const QByteArray &type = QByteArrayLiteral("application/json"))
{
    static const QMap<int, QByteArray> reasons{
        {200, "OK"}, {404, "Not Found"}, {500, "Internal Server Error"}};
    return "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasons.value(status) +
           "\r\nContent-Type: " + type + "\r\nContent-Length: " + QByteArray::number(body.size()) +
           "\r\nConnection: keep-alive\r\n\r\n" + body;
}

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

qsizetype words(const QString &text)
{
    return text.split(u' ', Qt::SkipEmptyParts).size();
}

} // namespace

FakeModelServer::FakeModelServer(Api api) : m_api(api)
{
    m_server.listen(QHostAddress::LocalHost);
    QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection())
            serve(socket);
    });
}

FakeModelServer::~FakeModelServer() = default;

QString FakeModelServer::cleanedCopy(const QString &text)
{
    QString copy = text;
    if (!copy.isEmpty())
        copy[0] = copy[0].toUpper();
    return copy.endsWith(u'.') ? copy : copy + u'.';
}

QStringList FakeModelServer::paths() const
{
    QStringList paths;
    for (const Request &request : m_requests)
        paths << request.method + u' ' + request.path;
    return paths;
}

void FakeModelServer::serve(QTcpSocket *socket)
{
    // Requests on one connection, one after another: the head, then as many bytes of body as
    // Content-Length says.
    auto buffer = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
        buffer->append(socket->readAll());
        for (;;) {
            const qsizetype headEnd = buffer->indexOf("\r\n\r\n");
            if (headEnd < 0)
                return;
            const QList<QByteArray> lines = buffer->left(headEnd).split('\n');
            qsizetype length = 0;
            for (const QByteArray &line : lines)
                if (line.toLower().startsWith("content-length:"))
                    length = line.mid(15).trimmed().toLongLong();
            if (buffer->size() < headEnd + 4 + length)
                return;
            const QList<QByteArray> start = lines.value(0).trimmed().split(' ');
            Request request{QString::fromLatin1(start.value(0)),
                            QString::fromLatin1(start.value(1)),
                            QJsonDocument::fromJson(buffer->mid(headEnd + 4, length)).object()};
            buffer->remove(0, headEnd + 4 + length);
            m_requests << request;
            answer(socket, request);
        }
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
}

void FakeModelServer::answer(QTcpSocket *socket, const Request &request)
{
    const auto send = [socket](const QByteArray &bytes) { socket->write(bytes); };
    const bool ollama = m_api == Api::ollama;
    if (request.method == QLatin1String("GET") && request.path == QLatin1String("/api/tags")) {
        if (!ollama)
            return send(response(404, "404 page not found", "text/plain"));
        QJsonArray models;
        for (const QString &name : m_models)
            models << QJsonObject{{"name", name}, {"model", name}, {"size", 397821319}};
        return send(response(200, json({{"models", models}})));
    }
    if (request.method == QLatin1String("GET") && request.path == QLatin1String("/v1/models")) {
        QJsonArray models;
        for (const QString &name : m_models)
            models << QJsonObject{{"id", name}, {"object", "model"}, {"owned_by", "user"}};
        return send(response(200, json({{"object", "list"}, {"data", models}})));
    }
    if (ollama && request.path == QLatin1String("/api/generate")) {
        return send(response(200, json({{"model", request.body.value("model")},
                                        {"response", ""},
                                        {"done", true},
                                        {"done_reason", "load"}})));
    }
    const QString chatPath =
        ollama ? QStringLiteral("/api/chat") : QStringLiteral("/v1/chat/completions");
    if (request.path != chatPath)
        return send(response(404, "404 page not found", "text/plain"));

    const QString model = request.body.value("model").toString();
    const QString text =
        request.body.value("messages").toArray().last().toObject().value("content").toString();
    QString content = cleanedCopy(text);
    QByteArray reply;
    switch (m_fault) {
    case Fault::silent:
        return;
    case Fault::serverError:
        reply = response(500, json({{"error", "llama runner process has terminated"}}));
        break;
    case Fault::unknownModel:
        reply = response(404, json({{"error", QStringLiteral("model \"%1\" not found, try "
                                                             "pulling it first")
                                                  .arg(model)}}));
        break;
    case Fault::emptyReply:
        content.clear();
        break;
    case Fault::longReply:
        content = content.repeated(3);
        break;
    case Fault::answer:
        content = QStringLiteral("Of course! Here is a short plan for the meeting you describe, "
                                 "with three steps and a note on each of them, so that everyone "
                                 "knows what to bring and when to arrive on the day.");
        break;
    case Fault::streamed:
        // Pieces of the reply, one JSON object (Ollama) or event (OpenAI) each.
        reply =
            ollama
                ? response(200,
                           json({{"message",
                                  QJsonObject{{"role", "assistant"}, {"content", content.left(5)}}},
                                 {"done", false}}) +
                               "\n" +
                               json({{"message", QJsonObject{{"role", "assistant"},
                                                             {"content", content.mid(5)}}},
                                     {"done", true}}) +
                               "\n",
                           "application/x-ndjson")
                : response(
                      200,
                      "data: " +
                          json({{"choices", QJsonArray{QJsonObject{
                                                {"delta", QJsonObject{{"content", content}}}}}}}) +
                          "\n\ndata: [DONE]\n\n",
                      "text/event-stream");
        break;
    case Fault::foreignForm:
        reply = response(200, json({{"model", model}, {"response", content}, {"done", true}}));
        break;
    case Fault::none:
        break;
    }
    if (reply.isEmpty()) {
        const QJsonObject message{{"role", "assistant"}, {"content", content}};
        reply = response(
            200, ollama ? json({{"model", model},
                                {"created_at", "2026-11-25T09:00:00Z"},
                                {"message", message},
                                {"done", true},
                                {"done_reason", "stop"}})
                        : json({{"id", "chatcmpl-1"},
                                {"object", "chat.completion"},
                                {"model", model},
                                {"choices", QJsonArray{QJsonObject{{"index", 0},
                                                                   {"message", message},
                                                                   {"finish_reason", "stop"}}}}}));
    }
    const QPointer<QTcpSocket> target = socket;
    QTimer::singleShot(m_delay(words(text)), socket, [target, reply] {
        if (target)
            target->write(reply);
    });
}

} // namespace vocari::test
