#pragma once

#include "models/Countdown.h"
#include "models/DownloadError.h"
#include "models/HubEndpoint.h"

#include <QObject>
#include <QSaveFile>
#include <QString>
#include <QUrl>
#include <chrono>
#include <memory>
#include <optional>

class QNetworkAccessManager;

namespace vocari {

class HubFetch;

// One attempt at one file: its body streams into a temporary file beside the destination,
// which takes the destination's place only once the whole body has arrived and, when the
// listing gives the file's size, has exactly that size (a hub that answers 200 with an error
// page must not leave that page in the model). The destination's folders are created as
// needed. Whatever fails, no partial file is left at the destination.
class FileTransfer : public QObject
{
    Q_OBJECT
public:
    FileTransfer(QNetworkAccessManager &network, const HubEndpoint &endpoint, const QUrl &url,
                 const QString &destination, const QString &label,
                 std::optional<qint64> expectedBytes, std::chrono::milliseconds timeout,
                 const CountdownFactory &countdowns, QObject *parent = nullptr);
    ~FileTransfer() override;

    void start();
    // Stops at once; finished() is not emitted afterwards.
    void abort();

    // After finished(): none when the file is in place.
    const std::optional<DownloadError> &error() const { return m_error; }

signals:
    // The running total of bytes received in this attempt.
    void received(qint64 total);
    void finished();

private:
    void onFetched();
    void fail(DownloadError error);
    DownloadError wrongSize() const;

    QNetworkAccessManager &m_network;
    const HubEndpoint m_endpoint;
    const QUrl m_url;
    const QString m_destination;
    const QString m_label; // the path inside the repository, for messages
    const std::optional<qint64> m_expectedBytes;
    const std::chrono::milliseconds m_timeout;
    const CountdownFactory m_countdowns;

    QSaveFile m_file;
    std::unique_ptr<HubFetch> m_fetch;
    std::optional<DownloadError> m_error;
    bool m_done = false;
    bool m_aborted = false;
};

} // namespace vocari
