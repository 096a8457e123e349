#include "text/TidyServer.h"

#include <QCoro/QCoroNetworkReply>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <memory>

namespace vocari {

namespace {

// How long a model the server loaded for a dictation stays loaded after it.
const QString keepAlive = QStringLiteral("5m");

QNetworkRequest jsonRequest(const QUrl &url)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    // A server of the user's own: no redirect leads the text elsewhere.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    return request;
}

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// The non-empty values of `field` in an array of objects: the names in a model list.
QStringList namesIn(const QJsonValue &list, const QString &field)
{
    QStringList names;
    for (const QJsonValue &entry : list.toArray())
        if (const QString name = entry.toObject().value(field).toString(); !name.isEmpty())
            names << name;
    return names;
}

} // namespace

TidyServer::TidyServer(QUrl address, QString confirmedHost)
    : m_address(std::move(address)), m_confirmedHost(std::move(confirmedHost))
{
    m_network.setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
}

bool TidyServer::isLoopback(const QUrl &address)
{
    const QString host = address.host();
    if (host.compare(QStringLiteral("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    const QHostAddress ip(host);
    return !ip.isNull() && ip.isLoopback();
}

bool TidyServer::mayReceiveText() const
{
    if (!m_address.isValid() || (m_address.scheme() != QLatin1String("http") &&
                                 m_address.scheme() != QLatin1String("https")))
        return false;
    return isLoopback(m_address) ||
           (!m_confirmedHost.isEmpty() &&
            m_address.host().compare(m_confirmedHost, Qt::CaseInsensitive) == 0);
}

QUrl TidyServer::endpoint(const QString &path) const
{
    QUrl url = m_address;
    QString base = url.path();
    while (base.endsWith(u'/'))
        base.chop(1);
    url.setPath(base + path);
    return url;
}

QCoro::Task<std::optional<QJsonObject>> TidyServer::exchange(QNetworkReply *reply,
                                                             std::chrono::milliseconds limit)
{
    const std::unique_ptr<QNetworkReply, void (*)(QNetworkReply *)> owned(
        reply, [](QNetworkReply *done) { done->deleteLater(); });
    const bool finished = co_await qCoro(reply).waitForFinished(limit);
    if (!finished) {
        reply->abort();
        m_problem = QStringLiteral("did not answer in time");
        co_return std::nullopt;
    }
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || status != 200) {
        m_problem = status != 0
                        ? QStringLiteral("answered HTTP %1").arg(status)
                        : QStringLiteral("could not be reached (%1)").arg(reply->errorString());
        co_return std::nullopt;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(reply->readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        m_problem = QStringLiteral("answered something other than one JSON object");
        co_return std::nullopt;
    }
    co_return document.object();
}

QCoro::Task<std::optional<TidyServer::Listing>>
TidyServer::listModels(std::chrono::milliseconds limit)
{
    const auto started = std::chrono::steady_clock::now();
    const auto left = [&] {
        return std::max(std::chrono::milliseconds(1),
                        limit - std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - started));
    };
    // Ollama lists its models under /api/tags, as {"models": [{"name": …}]}.
    if (const std::optional<QJsonObject> tags = co_await exchange(
            m_network.get(jsonRequest(endpoint(QStringLiteral("/api/tags")))), left());
        tags && tags->value(QStringLiteral("models")).isArray()) {
        co_return Listing{Api::ollama, namesIn(tags->value(QStringLiteral("models")),
                                               QStringLiteral("name"))};
    }
    if (std::chrono::steady_clock::now() - started >= limit)
        co_return std::nullopt;
    // The OpenAI-compatible servers under /v1/models, as {"data": [{"id": …}]}.
    const std::optional<QJsonObject> models = co_await exchange(
        m_network.get(jsonRequest(endpoint(QStringLiteral("/v1/models")))), left());
    if (!models)
        co_return std::nullopt;
    if (!models->value(QStringLiteral("data")).isArray()) {
        m_problem = QStringLiteral("lists its models in a form neither API defines");
        co_return std::nullopt;
    }
    co_return Listing{Api::openAi,
                      namesIn(models->value(QStringLiteral("data")), QStringLiteral("id"))};
}

void TidyServer::prewarm(const Listing &server, const QString &model)
{
    // Only Ollama loads a model on request without generating: an empty prompt. The
    // OpenAI-compatible servers load theirs at start.
    if (server.api != Api::ollama || !mayReceiveText())
        return;
    QNetworkReply *reply = m_network.post(jsonRequest(endpoint(QStringLiteral("/api/generate"))),
                                          json({{QStringLiteral("model"), model},
                                                {QStringLiteral("prompt"), QString()},
                                                {QStringLiteral("keep_alive"), keepAlive},
                                                {QStringLiteral("stream"), false}}));
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}

QCoro::Task<std::optional<QString>> TidyServer::respond(Api api, QString model, QString instruction,
                                                        QString text,
                                                        std::chrono::milliseconds limit)
{
    if (!mayReceiveText()) {
        m_problem = QStringLiteral("is on another computer, which was not confirmed");
        co_return std::nullopt;
    }
    const QJsonArray messages{QJsonObject{{QStringLiteral("role"), QStringLiteral("system")},
                                          {QStringLiteral("content"), instruction}},
                              QJsonObject{{QStringLiteral("role"), QStringLiteral("user")},
                                          {QStringLiteral("content"), text}}};
    QJsonObject body{{QStringLiteral("model"), model},
                     {QStringLiteral("messages"), messages},
                     {QStringLiteral("stream"), false}};
    QString path;
    if (api == Api::ollama) {
        body.insert(QStringLiteral("options"), QJsonObject{{QStringLiteral("temperature"), 0}});
        body.insert(QStringLiteral("keep_alive"), keepAlive);
        path = QStringLiteral("/api/chat");
    } else {
        body.insert(QStringLiteral("temperature"), 0);
        path = QStringLiteral("/v1/chat/completions");
    }
    const std::optional<QJsonObject> reply =
        co_await exchange(m_network.post(jsonRequest(endpoint(path)), json(body)), limit);
    if (!reply)
        co_return std::nullopt;
    // Ollama: {"message": {"role": "assistant", "content": …}, "done": true}.
    // OpenAI: {"choices": [{"message": {"role": "assistant", "content": …}}]}.
    const QJsonValue message = api == Api::ollama ? reply->value(QStringLiteral("message"))
                                                  : reply->value(QStringLiteral("choices"))
                                                        .toArray()
                                                        .at(0)
                                                        .toObject()
                                                        .value(QStringLiteral("message"));
    const QJsonValue content = message.toObject().value(QStringLiteral("content"));
    const bool complete = api != Api::ollama || reply->value(QStringLiteral("done")).toBool(true);
    if (!content.isString() || !complete) {
        m_problem = QStringLiteral("answered in a form its API does not define");
        co_return std::nullopt;
    }
    co_return content.toString();
}

} // namespace vocari
