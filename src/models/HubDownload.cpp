#include "models/HubDownload.h"

#include "models/FileTransfer.h"
#include "models/HubFetch.h"
#include "models/ModelFolders.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QLockFile>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QTimer>
#include <algorithm>

namespace vocari {

Q_LOGGING_CATEGORY(lcDownload, "vocari.models.download", QtInfoMsg)

namespace {

HubDownload::Options withTimers(HubDownload::Options options)
{
    if (!options.countdowns)
        options.countdowns = timerCountdowns();
    return options;
}

} // namespace

HubDownload::HubDownload(HubEndpoint endpoint, QString repository, QString folder, Options options,
                         QObject *parent)
    : ModelDownload(parent), m_endpoint(std::move(endpoint)), m_repository(std::move(repository)),
      m_folder(QDir::cleanPath(folder)), m_staging(ModelFolders::stagingFolderOf(m_folder)),
      m_options(withTimers(std::move(options)))
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
            ModelFolders::removeEntry(m_staging);
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
                                   *m_listingBody, m_options.transferTimeout, m_options.countdowns);
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

bool HubDownload::prepareStaging()
{
    const QString parent = QFileInfo(m_folder).absolutePath();
    const auto cannotCreate = [this](const QString &folder) {
        fail(DownloadError::file(QStringLiteral("Couldn't create the folder %1.")
                                     .arg(QDir::toNativeSeparators(folder))));
        return false;
    };
    if (!QDir().mkpath(parent))
        return cannotCreate(parent);
    m_lock = std::make_unique<QLockFile>(ModelFolders::lockFileOf(m_folder));
    m_lock->setStaleLockTime(0); // a download may take hours; only a dead owner frees the lock
    if (!m_lock->tryLock(0)) {
        if (m_lock->error() == QLockFile::LockFailedError) {
            fail(DownloadError::file(
                QStringLiteral("Another program is downloading this model right now.")));
            return false;
        }
        return cannotCreate(parent);
    }
    // A staging folder left by an interrupted download is never reused. Whatever stands in its
    // place, a link included, goes itself; a fresh folder is made so that nothing is written
    // through a link.
    if (!ModelFolders::removeEntry(m_staging) || !QDir().mkdir(m_staging))
        return cannotCreate(m_staging);
    m_stagingCreated = true;
    return true;
}

void HubDownload::startFiles(const DownloadPlan &plan)
{
    if (!prepareStaging())
        return;
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
    auto *transfer =
        new FileTransfer(*m_network, m_endpoint, m_endpoint.fileUrl(m_repository, job.item.path),
                         QDir(m_staging).filePath(job.item.path), job.item.path, job.item.size,
                         m_options.transferTimeout, m_options.countdowns, this);
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
    Countdown *wait = m_options.countdowns(this);
    connect(wait, &Countdown::expired, this, [this, index, wait] {
        wait->deleteLater();
        FileJob &job = m_files[index];
        job.retryWait = nullptr;
        ++job.attempt;
        startAttempt(index);
    });
    m_files[index].retryWait = wait;
    wait->start(m_options.retryDelay);
}

void HubDownload::complete()
{
    // The old model goes only now that the new one is complete, and it is moved aside before
    // the new one moves in, so that one of them is always whole.
    if (!ModelFolders::replaceFolder(m_folder, m_staging)) {
        fail(DownloadError::file(QStringLiteral("Couldn't move the downloaded model into %1.")
                                     .arg(QDir::toNativeSeparators(m_folder))));
        return;
    }
    m_stagingCreated = false;
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
        if (job.retryWait) {
            job.retryWait->stop();
            job.retryWait->deleteLater();
            job.retryWait = nullptr;
        }
    }
}

void HubDownload::fail(DownloadError error)
{
    if (m_ended)
        return;
    stopAll();
    if (m_stagingCreated)
        ModelFolders::removeEntry(m_staging);
    finish(std::move(error));
}

void HubDownload::finish(std::optional<DownloadError> error)
{
    if (m_ended)
        return;
    m_ended = true;
    m_lock.reset(); // unlocks
    m_error = std::move(error);
    if (m_error && !m_error->isCancelled())
        qCInfo(lcDownload) << "download of" << m_repository << "failed:" << m_error->message();
    emit finished();
}

} // namespace vocari
