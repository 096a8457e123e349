#include "models/HubFetch.h"

#include <QNetworkAccessManager>

namespace vocari {

namespace {

bool isRedirect(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

int statusOf(const QNetworkReply &reply)
{
    return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

} // namespace

HubFetch::HubFetch(QNetworkAccessManager &network, const HubEndpoint &endpoint, const QUrl &url,
                   QIODevice &sink, std::chrono::milliseconds timeout,
                   const CountdownFactory &countdowns, QObject *parent)
    : QObject(parent), m_network(network), m_endpoint(endpoint), m_url(url), m_sink(sink),
      m_timeout(timeout), m_silence(countdowns(this))
{
    connect(m_silence, &Countdown::expired, this, [this] { finish(Outcome::TimedOut); });
}

HubFetch::~HubFetch()
{
    dropReply();
}

void HubFetch::start()
{
    send(m_url);
}

void HubFetch::abort()
{
    if (m_outcome == Outcome::Running)
        m_outcome = Outcome::NetworkError;
    dropReply();
}

void HubFetch::send(const QUrl &url)
{
    m_status = 0;
    m_reply = m_network.get(m_endpoint.request(url));
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &HubFetch::heardFromHub);
    connect(m_reply, &QNetworkReply::readyRead, this, &HubFetch::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &HubFetch::onFinished);
    m_silence->start(m_timeout);
}

void HubFetch::heardFromHub()
{
    m_silence->start(m_timeout);
}

bool HubFetch::bodyIsWanted() const
{
    return m_reply && statusOf(*m_reply) == 200;
}

void HubFetch::onReadyRead()
{
    heardFromHub();
    // The body of a redirect or an error answer is left unread; onFinished() judges it.
    if (!bodyIsWanted())
        return;
    writeAvailable();
}

bool HubFetch::writeAvailable()
{
    const QByteArray chunk = m_reply->readAll();
    if (chunk.isEmpty())
        return true;
    if (m_maxBytes >= 0 && m_written + chunk.size() > m_maxBytes) {
        finish(Outcome::TooLarge);
        return false;
    }
    if (m_sink.write(chunk) != chunk.size()) {
        finish(Outcome::WriteError, m_sink.errorString());
        return false;
    }
    m_written += chunk.size();
    emit received(m_written);
    return true;
}

void HubFetch::onFinished()
{
    if (!m_reply || m_outcome != Outcome::Running)
        return;
    QNetworkReply &reply = *m_reply;
    m_status = statusOf(reply);

    if (m_status == 0) {
        // No answer at all. Qt's own time-outs report the reply as cancelled or timed out;
        // this object never aborts a reply it still listens to.
        const auto error = reply.error();
        if (error == QNetworkReply::OperationCanceledError || error == QNetworkReply::TimeoutError)
            finish(Outcome::TimedOut);
        else
            finish(Outcome::NetworkError, reply.errorString());
        return;
    }
    if (isRedirect(m_status)) {
        followRedirect(reply);
        return;
    }
    if (m_status != 200) {
        finish(Outcome::BadStatus);
        return;
    }
    if (!writeAvailable())
        return;
    const QVariant announced = reply.header(QNetworkRequest::ContentLengthHeader);
    const bool shortBody = announced.isValid() && announced.toLongLong() != m_written;
    switch (reply.error()) {
    case QNetworkReply::NoError:
        if (shortBody)
            finish(Outcome::Truncated);
        else
            finish(Outcome::Ok);
        return;
    case QNetworkReply::OperationCanceledError:
    case QNetworkReply::TimeoutError:
        finish(Outcome::TimedOut);
        return;
    case QNetworkReply::RemoteHostClosedError:
        finish(Outcome::Truncated);
        return;
    default:
        finish(shortBody ? Outcome::Truncated : Outcome::NetworkError, reply.errorString());
    }
}

void HubFetch::followRedirect(QNetworkReply &reply)
{
    const QUrl current = reply.url();
    const QUrl target =
        current.resolved(reply.attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl());
    const QString scheme = target.scheme();
    if (++m_redirects > kMaxRedirects) {
        finish(Outcome::BadRedirect, QStringLiteral("too many redirects"));
        return;
    }
    if (!target.isValid() || target.host().isEmpty() ||
        (scheme != QLatin1String("http") && scheme != QLatin1String("https"))) {
        finish(Outcome::BadRedirect, QStringLiteral("a redirect to an unusable address"));
        return;
    }
    if (current.scheme() == QLatin1String("https") && scheme != QLatin1String("https")) {
        finish(Outcome::BadRedirect, QStringLiteral("a redirect to an unencrypted address"));
        return;
    }
    dropReply();
    send(target);
}

void HubFetch::finish(Outcome outcome, QString detail)
{
    if (m_outcome != Outcome::Running)
        return;
    dropReply();
    m_outcome = outcome;
    m_detail = std::move(detail);
    emit finished();
}

void HubFetch::dropReply()
{
    m_silence->stop();
    if (!m_reply)
        return;
    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->disconnect(this);
    if (reply->isRunning())
        reply->abort();
    reply->deleteLater();
}

} // namespace vocari
