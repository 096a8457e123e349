#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

namespace vocari {

// The model hub that downloads come from, and how its addresses are built: the host in
// $HF_ENDPOINT when set (the hub's own convention), else https://huggingface.co, and
// $HF_TOKEN when set sent as a bearer token.
class HubEndpoint
{
public:
    static inline const QString defaultAddress = QStringLiteral("https://huggingface.co");

    HubEndpoint(const QString &address, const QString &token = {});
    static HubEndpoint fromEnvironment();

    // The address as given, for messages.
    const QString &address() const { return m_address; }
    // Whether the address is an http or https URL with a host.
    bool isUsable() const;

    // GET /api/models/<repository>/tree/main?recursive=true
    QUrl listingUrl(const QString &repository) const;
    // GET /<repository>/resolve/main/<path>
    QUrl fileUrl(const QString &repository, const QString &path) const;

    // A request for url. The token goes only to the hub's own origin, never to a host that a
    // redirect leads to (the hub sends large files to a content-delivery network).
    QNetworkRequest request(const QUrl &url) const;
    bool isHubOrigin(const QUrl &url) const;

    // Percent-encodes a "/"-separated path for a URL: every character that may not stand in a
    // path is encoded, the separators stay, and "." and ".." segments are encoded so that they
    // reach the hub as the names they are instead of moving up the path.
    static QByteArray encodePath(const QString &path);

private:
    QUrl urlFor(const QByteArray &encodedPath, const QByteArray &encodedQuery = {}) const;

    QString m_address;
    QUrl m_base;
    QString m_token;
};

} // namespace vocari
