#include "models/HubDownload.h"

#include "models/FileTransfer.h"
#include "models/HubFetch.h"
#include "models/ModelFolders.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QTimer>
#include <algorithm>

namespace vocari {

Q_LOGGING_CATEGORY(lcDownload, "vocari.models.download", QtInfoMsg)

HubDownload::HubDownload(HubEndpoint endpoint, QString repository, QString folder, Options options,
                         QObject *parent)
    : ModelDownload(parent), m_endpoint(std::move(endpoint)), m_repository(std::move(repository)),
      m_folder(QDir::cleanPath(folder)), m_staging(ModelFolders::stagingFolderOf(m_folder)),
      m_options(options)
{
}

HubDownload::HubDownload(HubEndpoint endpoint, QString repository, QString folder, QObject *parent)
    : HubDownload(std::move(endpoint), std::move(repository), std::move(folder), Options(), parent)
{
}

HubDownload::~HubDownload()
{
    // Destroyed while running (its owner went away): the same clean-up as a cancel.
    if (m_started && !m_ended) {
        stopAll();
        if (m_stagingCreated)
            QDir(m_staging).removeRecursively();
    }
}

void HubDownload::start()
{
    if (m_started)
        return;
    m_started = true;
    if (!m_endpoint.isUsable()) {
        QTimer::singleShot(0, this,
                           [this] { fail(DownloadError::badAddress(m_endpoint.address())); });
        return;
    }
    m_network = std::make_unique<QNetworkAccessManager>();
    m_listingBody = std::make_unique<QBuffer>();
    m_listingBody->open(QIODevice::WriteOnly);
    m_listing =
        std::make_unique<HubFetch>(*m_network, m_endpoint, m_endpoint.listingUrl(m_repository),
                                   *m_listingBody, m_options.transferTimeout);
    m_listing->setMaxBytes(kMaxListingBytes);
    connect(m_listing.get(), &HubFetch::finished, this, &HubDownload::onListing);
    qCInfo(lcDownload) << "listing" << m_repository << "at" << m_endpoint.address();
    m_listing->start();
}

void HubDownload::cancel()
{
    if (!m_started || m_ended)
        return;
    fail(DownloadError::cancelled());
}

void HubDownload::onListing()
{
    switch (m_listing->outcome()) {
    case HubFetch::Outcome::Running:
        return;
    case HubFetch::Outcome::Ok:
        break;
    case HubFetch::Outcome::BadStatus:
        fail(DownloadError::notFound(m_repository));
        return;
    case HubFetch::Outcome::TimedOut:
        fail(DownloadError::network(QStringLiteral("The model hub didn't answer in time.")));
        return;
    case HubFetch::Outcome::Truncated:
        fail(DownloadError::network(
            QStringLiteral("The repository's file list broke off before the end.")));
        return;
    case HubFetch::Outcome::TooLarge:
        fail(DownloadError::badListing(QStringLiteral("it is far larger than any file list")));
        return;
    case HubFetch::Outcome::NetworkError:
    case HubFetch::Outcome::BadRedirect:
    case HubFetch::Outcome::WriteError:
        fail(DownloadError::network(DownloadError::sentence(
            QStringLiteral("Couldn't reach the model hub: %1").arg(m_listing->detail()))));
        return;
    }

    const auto items = HubListing::parse(m_listingBody->data());
    if (const auto *error = std::get_if<DownloadError>(&items)) {
        fail(*error);
        return;
    }
    const auto plan = HubListing::plan(std::get<std::vector<HubItem>>(items));
    if (const auto *error = std::get_if<DownloadError>(&plan)) {
        fail(*error);
        return;
    }
    startFiles(std::get<DownloadPlan>(plan));
}

void HubDownload::startFiles(const DownloadPlan &plan)
{
    // A staging folder left by an interrupted download is never reused.
    QDir(m_staging).removeRecursively();
    if (!QDir().mkpath(m_staging)) {
        fail(DownloadError::file(QStringLiteral("Couldn't create the folder %1.")
                                     .arg(QDir::toNativeSeparators(m_staging))));
        return;
    }
    m_stagingCreated = true;
    m_total = std::max<qint64>(plan.totalBytes, 1);
    for (const HubItem &item : plan.files) {
        FileJob job;
        job.item = item;
        m_files.push_back(std::move(job));
    }
    qCInfo(lcDownload) << "fetching" << m_files.size() << "files of the" << plan.layout << "layout,"
                       << plan.totalBytes << "bytes";
    if (m_files.empty()) {
        complete();
        return;
    }
    startNextFiles();
}

void HubDownload::startNextFiles()
{
    // A file holds its place in the window until it has arrived or failed for good, retry
    // waits included.
    const size_t window = static_cast<size_t>(std::max(1, m_options.parallelFiles));
    while (m_nextFile < m_files.size() && m_nextFile - m_finishedFiles < window)
        startAttempt(m_nextFile++);
}

void HubDownload::startAttempt(size_t index)
{
    FileJob &job = m_files[index];
    job.attemptBytes = 0;
    auto *transfer = new FileTransfer(
        *m_network, m_endpoint, m_endpoint.fileUrl(m_repository, job.item.path),
        QDir(m_staging).filePath(job.item.path), job.item.path, m_options.transferTimeout, this);
    job.transfer = transfer;
    connect(transfer, &FileTransfer::received, this,
            [this, index](qint64 total) { onBytes(index, total); });
    connect(transfer, &FileTransfer::finished, this, [this, index] { onFileFinished(index); });
    transfer->start();
}

void HubDownload::onBytes(size_t index, qint64 total)
{
    FileJob &job = m_files[index];
    m_received += total - job.attemptBytes;
    job.attemptBytes = total;
    reportProgress();
}

void HubDownload::onFileFinished(size_t index)
{
    FileJob &job = m_files[index];
    FileTransfer *transfer = job.transfer;
    job.transfer = nullptr;
    if (!transfer)
        return;
    transfer->deleteLater();
    const std::optional<DownloadError> error = transfer->error();
    if (!error) {
        ++m_finishedFiles;
        if (m_finishedFiles == m_files.size())
            complete();
        else
            startNextFiles();
        return;
    }
    qCInfo(lcDownload) << "attempt" << job.attempt + 1 << "of" << job.item.path
                       << "failed:" << error->message();
    if (job.attempt + 1 >= m_options.attempts) {
        fail(*error);
        return;
    }
    // Start that file over: what it received so far no longer counts.
    m_received -= job.attemptBytes;
    job.attemptBytes = 0;
    reportProgress();
    retryLater(index);
}

void HubDownload::retryLater(size_t index)
{
    auto *timer = new QTimer(this);
    timer->setSingleShot(true);
    timer->setInterval(m_options.retryDelay);
    connect(timer, &QTimer::timeout, this, [this, index, timer] {
        timer->deleteLater();
        FileJob &job = m_files[index];
        job.retryTimer = nullptr;
        ++job.attempt;
        startAttempt(index);
    });
    m_files[index].retryTimer = timer;
    timer->start();
}

void HubDownload::complete()
{
    // The old model goes only now that the new one is complete.
    if (QFileInfo::exists(m_folder) && !QDir(m_folder).removeRecursively())
        qCWarning(lcDownload) << "could not delete all of" << m_folder;
    if (!QDir().rename(m_staging, m_folder)) {
        // The staging folder stays; the next download of this engine starts by deleting it.
        finish(DownloadError::file(QStringLiteral("Couldn't move the downloaded model into %1.")
                                       .arg(QDir::toNativeSeparators(m_folder))));
        return;
    }
    qCInfo(lcDownload) << "installed" << m_repository << "into" << m_folder;
    finish(std::nullopt);
}

void HubDownload::reportProgress()
{
    const double fraction =
        std::clamp(static_cast<double>(m_received) / static_cast<double>(m_total), 0.0, 1.0);
    emit progressed(fraction);
}

void HubDownload::stopAll()
{
    if (m_listing)
        m_listing->abort();
    for (FileJob &job : m_files) {
        if (job.transfer) {
            job.transfer->abort();
            job.transfer->deleteLater();
            job.transfer = nullptr;
        }
        if (job.retryTimer) {
            job.retryTimer->stop();
            job.retryTimer->deleteLater();
            job.retryTimer = nullptr;
        }
    }
}

void HubDownload::fail(DownloadError error)
{
    if (m_ended)
        return;
    stopAll();
    if (m_stagingCreated)
        QDir(m_staging).removeRecursively();
    finish(std::move(error));
}

void HubDownload::finish(std::optional<DownloadError> error)
{
    if (m_ended)
        return;
    m_ended = true;
    m_error = std::move(error);
    if (m_error && !m_error->isCancelled())
        qCInfo(lcDownload) << "download of" << m_repository << "failed:" << m_error->message();
    emit finished();
}

} // namespace vocari
