#include "models/FileTransfer.h"

#include "models/HubFetch.h"

#include <QDir>
#include <QFileInfo>
#include <QTimer>

namespace vocari {

FileTransfer::FileTransfer(QNetworkAccessManager &network, const HubEndpoint &endpoint,
                           const QUrl &url, const QString &destination, const QString &label,
                           std::optional<qint64> expectedBytes, std::chrono::milliseconds timeout,
                           const CountdownFactory &countdowns, QObject *parent)
    : QObject(parent), m_network(network), m_endpoint(endpoint), m_url(url),
      m_destination(destination), m_label(label), m_expectedBytes(expectedBytes),
      m_timeout(timeout), m_countdowns(countdowns), m_file(destination)
{
}

FileTransfer::~FileTransfer()
{
    m_fetch.reset();
    m_file.cancelWriting(); // an uncommitted temporary file is removed with the QSaveFile
}

void FileTransfer::start()
{
    const QString folder = QFileInfo(m_destination).absolutePath();
    if (!QDir().mkpath(folder)) {
        fail(
            DownloadError::file(QStringLiteral("Couldn't create the folder for %1.").arg(m_label)));
        return;
    }
    // A file left by an earlier attempt makes way; errors surface when the new one is placed.
    if (QFileInfo(m_destination).isFile())
        QFile::remove(m_destination);
    if (!m_file.open(QIODevice::WriteOnly)) {
        fail(DownloadError::file(DownloadError::sentence(
            QStringLiteral("Couldn't write %1: %2").arg(m_label, m_file.errorString()))));
        return;
    }
    m_fetch =
        std::make_unique<HubFetch>(m_network, m_endpoint, m_url, m_file, m_timeout, m_countdowns);
    // A body longer than the listed size is given up as soon as it gets there.
    if (m_expectedBytes)
        m_fetch->setMaxBytes(*m_expectedBytes);
    connect(m_fetch.get(), &HubFetch::received, this, &FileTransfer::received);
    connect(m_fetch.get(), &HubFetch::finished, this, &FileTransfer::onFetched);
    m_fetch->start();
}

void FileTransfer::abort()
{
    m_done = true;
    m_aborted = true;
    if (m_fetch)
        m_fetch->abort();
    m_file.cancelWriting();
}

void FileTransfer::onFetched()
{
    const HubFetch &fetch = *m_fetch;
    switch (fetch.outcome()) {
    case HubFetch::Outcome::Running:
        return;
    case HubFetch::Outcome::Ok:
        if (m_expectedBytes && fetch.bytesWritten() != *m_expectedBytes) {
            fail(wrongSize());
            return;
        }
        if (!m_file.commit()) {
            fail(DownloadError::file(DownloadError::sentence(
                QStringLiteral("Couldn't save %1: %2").arg(m_label, m_file.errorString()))));
            return;
        }
        m_done = true;
        emit finished();
        return;
    case HubFetch::Outcome::BadStatus:
        fail(DownloadError::network(
            QStringLiteral("The model hub answered %1 for %2.").arg(fetch.status()).arg(m_label)));
        return;
    case HubFetch::Outcome::TimedOut:
        fail(DownloadError::network(QStringLiteral("The download of %1 timed out.").arg(m_label)));
        return;
    case HubFetch::Outcome::Truncated:
        fail(DownloadError::network(
            QStringLiteral("The download of %1 broke off before the end.").arg(m_label)));
        return;
    case HubFetch::Outcome::TooLarge:
        fail(wrongSize());
        return;
    case HubFetch::Outcome::NetworkError:
    case HubFetch::Outcome::BadRedirect:
        fail(DownloadError::network(DownloadError::sentence(
            QStringLiteral("Couldn't download %1: %2").arg(m_label, fetch.detail()))));
        return;
    case HubFetch::Outcome::WriteError:
        fail(DownloadError::file(DownloadError::sentence(
            QStringLiteral("Couldn't write %1: %2").arg(m_label, fetch.detail()))));
        return;
    }
}

DownloadError FileTransfer::wrongSize() const
{
    return DownloadError::network(
        QStringLiteral("The download of %1 isn't the size the model hub lists for it.")
            .arg(m_label));
}

void FileTransfer::fail(DownloadError error)
{
    if (m_done)
        return;
    m_done = true;
    m_file.cancelWriting();
    m_error = std::move(error);
    // Reported from the event loop, so that a failure found in start() reaches the caller
    // after start() has returned, like every other outcome.
    QTimer::singleShot(0, this, [this] {
        if (!m_aborted)
            emit finished();
    });
}

} // namespace vocari
