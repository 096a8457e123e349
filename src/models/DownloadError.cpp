#include "models/DownloadError.h"

namespace vocari {

DownloadError DownloadError::notFound(const QString &repository)
{
    return {Kind::NotFound,
            QStringLiteral("Couldn't find \u201c%1\u201d on Hugging Face (or it needs a login).")
                .arg(repository)};
}

DownloadError DownloadError::incompatible(const QStringList &missing)
{
    return {Kind::Incompatible,
            QStringLiteral("That repository isn't a compatible Parakeet ONNX export. Missing: ") +
                missing.join(QStringLiteral(", ")) + QLatin1Char('.')};
}

DownloadError DownloadError::unsafePath()
{
    return {Kind::UnsafePath, QStringLiteral("That repository lists an unsafe file path.")};
}

DownloadError DownloadError::badListing(const QString &reason)
{
    return {Kind::BadListing,
            QStringLiteral("The repository's file list couldn't be read: %1.").arg(reason)};
}

DownloadError DownloadError::badAddress(const QString &address)
{
    return {Kind::BadAddress,
            QStringLiteral("HF_ENDPOINT isn't a usable web address: \u201c%1\u201d.").arg(address)};
}

DownloadError DownloadError::network(const QString &message)
{
    return {Kind::Network, message};
}

DownloadError DownloadError::file(const QString &message)
{
    return {Kind::File, message};
}

DownloadError DownloadError::cancelled()
{
    return {Kind::Cancelled, QStringLiteral("The download was cancelled.")};
}

QString DownloadError::sentence(const QString &text)
{
    if (text.endsWith(QLatin1Char('.')) || text.endsWith(QLatin1Char('!')) ||
        text.endsWith(QLatin1Char('?')))
        return text;
    return text + QLatin1Char('.');
}

} // namespace vocari
