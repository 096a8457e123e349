#pragma once

#include <QString>
#include <QStringList>

namespace vocari {

// Why a model download ended without a model, with the one-line text the user sees.
class DownloadError
{
public:
    enum class Kind
    {
        NotFound,     // the listing was refused: unknown or private repository
        Incompatible, // the repository lacks required files
        UnsafePath,   // the listing names a path that would leave the staging folder
        BadListing,   // the listing is not what the hub sends
        BadAddress,   // HF_ENDPOINT is not a usable web address
        Network,      // the connection failed, timed out or ended early, or a bad answer
        File,         // a file or folder could not be written, created or moved
        Cancelled,    // the user cancelled or removed the engine: no message is shown
    };

    static DownloadError notFound(const QString &repository);
    static DownloadError incompatible(const QStringList &missing);
    static DownloadError unsafePath();
    static DownloadError badListing(const QString &reason);
    static DownloadError badAddress(const QString &address);
    static DownloadError network(const QString &message);
    static DownloadError file(const QString &message);
    static DownloadError cancelled();

    // The text with a full stop at its end unless it already ends a sentence.
    static QString sentence(const QString &text);

    Kind kind() const { return m_kind; }
    bool isCancelled() const { return m_kind == Kind::Cancelled; }
    const QString &message() const { return m_message; }

    bool operator==(const DownloadError &) const = default;

private:
    DownloadError(Kind kind, QString message) : m_kind(kind), m_message(std::move(message)) {}
    Kind m_kind;
    QString m_message;
};

} // namespace vocari
