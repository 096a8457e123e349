#pragma once

// A language-model server on loopback for the tidy-up tests, speaking either Ollama's native
// API or the OpenAI-compatible one as their published documents describe them: the model list
// (GET /api/tags, GET /v1/models), the load without generating (POST /api/generate with an
// empty prompt) and the chat request (POST /api/chat, POST /v1/chat/completions). It can be
// told to misbehave in each way a real server does, and to answer after a set time.

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <functional>

namespace vocari::test {

class FakeModelServer
{
public:
    enum class Api
    {
        ollama,
        openAi
    };
    enum class Fault
    {
        none,
        silent,       // accepts the chat request and never answers
        serverError,  // HTTP 500
        unknownModel, // HTTP 404, as for a model not pulled
        emptyReply,
        longReply,  // far longer than the text
        answer,     // answers the dictation instead of cleaning it
        streamed,   // the reply in pieces, as with streaming on
        foreignForm // a JSON object the API does not define for the request
    };
    struct Request
    {
        QString method;
        QString path;
        QJsonObject body;
    };

    explicit FakeModelServer(Api api);
    ~FakeModelServer();

    quint16 port() const { return m_server.serverPort(); }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(port()); }

    void setFault(Fault fault) { m_fault = fault; }
    void setModels(const QStringList &models) { m_models = models; }
    // How long the chat answer takes, by the number of words the text has.
    void setReplyDelay(std::function<int(qsizetype words)> milliseconds)
    {
        m_delay = std::move(milliseconds);
    }
    // The cleaned copy the model gives of a text: by default the text with its first letter
    // capitalised and a full stop at its end.
    static QString cleanedCopy(const QString &text);

    const QList<Request> &requests() const { return m_requests; }
    QStringList paths() const;

private:
    void serve(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const Request &request);

    QTcpServer m_server;
    Api m_api;
    Fault m_fault = Fault::none;
    QStringList m_models{QStringLiteral("qwen2.5:0.5b-instruct")};
    std::function<int(qsizetype)> m_delay = [](qsizetype) { return 0; };
    QList<Request> m_requests;
};

} // namespace vocari::test
