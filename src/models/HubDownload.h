#pragma once

#include "models/Countdown.h"
#include "models/HubEndpoint.h"
#include "models/HubListing.h"
#include "models/ModelDownload.h"

#include <QPointer>
#include <chrono>
#include <memory>
#include <vector>

class QBuffer;
class QLockFile;
class QNetworkAccessManager;

namespace vocari {

class FileTransfer;
class HubFetch;

// Installs a model from a hub repository into a folder. It reads the repository's file list,
// checks that a complete model layout is there, and fetches that layout's files into a staging
// folder beside the target ("<folder>.partial"), a few at a time, each with a few attempts.
// Only when every file has arrived does the staging folder replace the target; when anything
// fails, or the download is cancelled, the staging folder is deleted and the target is left
// exactly as it was. While the files are fetched, a lock beside the target keeps another
// process from fetching the same model or tidying its staging folder away.
class HubDownload : public ModelDownload
{
    Q_OBJECT
public:
    struct Options
    {
        std::chrono::milliseconds transferTimeout{30000}; // without hearing from the hub
        std::chrono::milliseconds retryDelay{1000};
        int attempts = 3;      // per file
        int parallelFiles = 3; // transfers at once
        // Where the waits above come from; empty: QTimer.
        CountdownFactory countdowns;
    };

    HubDownload(HubEndpoint endpoint, QString repository, QString folder, Options options,
                QObject *parent = nullptr);
    HubDownload(HubEndpoint endpoint, QString repository, QString folder,
                QObject *parent = nullptr);
    ~HubDownload() override;

    void start() override;
    void cancel() override;
    std::optional<DownloadError> error() const override { return m_error; }

    QString stagingFolder() const { return m_staging; }

private:
    // A repository's file list is a few kilobytes to a few megabytes; a hub that sends more
    // is not answering the question.
    static constexpr qint64 kMaxListingBytes = 64 * 1024 * 1024;

    // One file of the plan and its current attempt.
    struct FileJob
    {
        HubItem item;
        int attempt = 0;         // 0-based
        qint64 attemptBytes = 0; // received in the current attempt
        QPointer<FileTransfer> transfer;
        QPointer<Countdown> retryWait;
    };

    void onListing();
    void startFiles(const DownloadPlan &plan);
    bool prepareStaging();
    void startNextFiles();
    void startAttempt(size_t index);
    void onBytes(size_t index, qint64 total);
    void onFileFinished(size_t index);
    void retryLater(size_t index);
    void complete();
    void reportProgress();
    // Stops every transfer and timer without reporting anything.
    void stopAll();
    // Stops, deletes the staging folder and reports the error.
    void fail(DownloadError error);
    void finish(std::optional<DownloadError> error);

    const HubEndpoint m_endpoint;
    const QString m_repository;
    const QString m_folder;
    const QString m_staging;
    const Options m_options;

    std::unique_ptr<QLockFile> m_lock;
    std::unique_ptr<QNetworkAccessManager> m_network;
    std::unique_ptr<QBuffer> m_listingBody;
    std::unique_ptr<HubFetch> m_listing;
    std::vector<FileJob> m_files;
    size_t m_nextFile = 0;
    size_t m_finishedFiles = 0;
    qint64 m_total = 1;
    qint64 m_received = 0; // bytes of all current attempts
    bool m_stagingCreated = false;
    bool m_started = false;
    bool m_ended = false;
    std::optional<DownloadError> m_error;
};

} // namespace vocari
