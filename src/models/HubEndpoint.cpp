#include "models/HubEndpoint.h"

#include <QStringList>

namespace vocari {

HubEndpoint::HubEndpoint(const QString &address, const QString &token)
    : m_address(address), m_base(QUrl(address.trimmed(), QUrl::StrictMode)),
      m_token(token.trimmed())
{
}

HubEndpoint HubEndpoint::fromEnvironment()
{
    QString address = qEnvironmentVariable("HF_ENDPOINT").trimmed();
    if (address.isEmpty())
        address = defaultAddress;
    return HubEndpoint(address, qEnvironmentVariable("HF_TOKEN"));
}

bool HubEndpoint::isUsable() const
{
    const QString scheme = m_base.scheme();
    return m_base.isValid() && !m_base.host().isEmpty() &&
           (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

QUrl HubEndpoint::listingUrl(const QString &repository) const
{
    return urlFor("/api/models/" + encodePath(repository) + "/tree/main", "recursive=true");
}

QUrl HubEndpoint::fileUrl(const QString &repository, const QString &path) const
{
    return urlFor("/" + encodePath(repository) + "/resolve/main/" + encodePath(path));
}

QNetworkRequest HubEndpoint::request(const QUrl &url) const
{
    QNetworkRequest request(url);
    // Redirects are followed by the caller, which decides where the token may go.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    // The body must arrive as stored: byte counts are compared with the announced length.
    request.setRawHeader("Accept-Encoding", "identity");
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Vocari"));
    if (!m_token.isEmpty() && isHubOrigin(url))
        request.setRawHeader("Authorization", "Bearer " + m_token.toUtf8());
    return request;
}

bool HubEndpoint::isHubOrigin(const QUrl &url) const
{
    return url.scheme() == m_base.scheme() && url.host() == m_base.host() &&
           url.port(url.scheme() == QLatin1String("https") ? 443 : 80) ==
               m_base.port(m_base.scheme() == QLatin1String("https") ? 443 : 80);
}

QByteArray HubEndpoint::encodePath(const QString &path)
{
    QByteArrayList segments;
    for (const QString &segment : path.split(QLatin1Char('/'))) {
        if (segment == QLatin1String(".") || segment == QLatin1String(".."))
            segments << QByteArray("%2E").repeated(segment.size());
        else
            segments << QUrl::toPercentEncoding(segment);
    }
    return segments.join('/');
}

QUrl HubEndpoint::urlFor(const QByteArray &encodedPath, const QByteArray &encodedQuery) const
{
    QByteArray text =
        m_base.toEncoded(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::StripTrailingSlash);
    text += encodedPath;
    if (!encodedQuery.isEmpty())
        text += '?' + encodedQuery;
    return QUrl::fromEncoded(text, QUrl::StrictMode);
}

} // namespace vocari
