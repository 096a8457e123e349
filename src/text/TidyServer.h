#pragma once

#include <QCoro/QCoroTask>
#include <QNetworkAccessManager>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <chrono>
#include <optional>

namespace vocari {

// A language-model server of the user's own, for the tidy-up's model stage: Ollama's native
// API, or any server with the OpenAI-compatible chat API (llama.cpp's server, LM Studio,
// LocalAI). Which one the address serves is found by asking for its model list. The text goes
// to this computer only, unless the user confirmed another host; a reply is only ever text.
// One object serves every dictation, so its HTTP connection is kept.
class TidyServer
{
public:
    enum class Api
    {
        ollama,
        openAi
    };
    struct Listing
    {
        Api api = Api::ollama;
        QStringList models;
    };

    // `confirmedHost`: a host other than this computer that the user agreed to send text to.
    TidyServer(QUrl address, QString confirmedHost = {});

    // Whether the address is this computer (a loopback address or "localhost").
    static bool isLoopback(const QUrl &address);
    // Whether text may go to the address: this computer, or the host the user confirmed.
    bool mayReceiveText() const;
    QUrl address() const { return m_address; }

    // The models the server has, if it answers within the limit.
    QCoro::Task<std::optional<Listing>> listModels(std::chrono::milliseconds limit);
    // Has the server load the model now, without generating anything; not waited for.
    void prewarm(const Listing &server, const QString &model);
    // One chat request: the instruction as the system message, the text as the user's, at
    // temperature 0. The reply's text, or none when the server failed, answered in a form its
    // API does not define, or not within the limit.
    QCoro::Task<std::optional<QString>> respond(Api api, QString model, QString instruction,
                                                QString text, std::chrono::milliseconds limit);
    // Why the last request came to nothing, in a few words, for the log.
    QString lastProblem() const { return m_problem; }

private:
    QUrl endpoint(const QString &path) const;
    // The reply's JSON object, or none with m_problem set.
    QCoro::Task<std::optional<QJsonObject>> exchange(QNetworkReply *reply,
                                                     std::chrono::milliseconds limit);

    QUrl m_address;
    QString m_confirmedHost;
    QNetworkAccessManager m_network;
    QString m_problem;
};

} // namespace vocari
