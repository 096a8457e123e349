#include "HubTestServer.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

namespace vocari::test {

// A socket's request head is collected in a property until it is complete; a file answer in
// progress is marked by another, so that it ends exactly once however the connection goes.
static const char *const kHead = "hubHead";
static const char *const kAnswered = "hubAnswered";
static const char *const kFileInProgress = "hubFileInProgress";

HubTestServer::HubTestServer(QObject *parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                fileEnded(socket);
                socket->deleteLater();
            });
        }
    });
}

HubTestServer::~HubTestServer()
{
    // Sockets are the listening server's children; they must not call back while it goes.
    m_server.close();
    for (QTcpSocket *socket : m_server.findChildren<QTcpSocket *>()) {
        socket->disconnect(this);
        socket->abort();
    }
}

void HubTestServer::addFile(const QString &repo, const QString &path, const File &file)
{
    Repository &repository = m_repositories[repo];
    repository.entries.emplace_back(QStringLiteral("file"), path);
    repository.files.insert(path, file);
}

void HubTestServer::addFolder(const QString &repo, const QString &folder)
{
    const QDir root(QFileInfo(folder).absoluteFilePath());
    QStringList paths;
    QDirIterator it(root.path(), QDir::AllEntries | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << root.relativeFilePath(it.next());
    paths.sort();
    for (const QString &path : paths) {
        QFile source(root.filePath(path));
        if (QFileInfo(source).isDir()) {
            addDirectory(repo, path);
        } else if (source.open(QIODevice::ReadOnly)) {
            File file;
            file.body = source.readAll();
            file.redirect = true;
            addFile(repo, path, file);
        }
    }
}

int HubTestServer::requestCount(const QString &decodedPath) const
{
    return static_cast<int>(std::count_if(m_requests.begin(), m_requests.end(),
                                          [&](const Request &r) { return r.path == decodedPath; }));
}

void HubTestServer::onReadyRead(QTcpSocket *socket)
{
    QByteArray head = socket->property(kHead).toByteArray() + socket->readAll();
    socket->setProperty(kHead, head);
    const qsizetype end = head.indexOf("\r\n\r\n");
    if (end < 0 || socket->property(kAnswered).toBool())
        return;
    socket->setProperty(kAnswered, true);
    handle(socket, head.left(end));
}

void HubTestServer::handle(QTcpSocket *socket, const QByteArray &head)
{
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    Request request;
    request.target = requestLine.value(1);
    for (const QByteArray &line : lines.mid(1)) {
        if (line.toLower().startsWith("authorization:"))
            request.authorization = line.mid(int(qstrlen("authorization:"))).trimmed();
    }
    request.path = QUrl::fromPercentEncoding(request.target.split('?').front());
    m_requests.append(request);

    if (requestLine.value(0) != "GET")
        return respond(socket, 405, {});
    if (m_redirectTargets.contains(request.path)) {
        File file;
        file.body = m_redirectTargets.value(request.path);
        return sendBody(socket, file);
    }
    for (auto repo = m_repositories.begin(); repo != m_repositories.end(); ++repo) {
        if (request.path == QStringLiteral("/api/models/%1/tree/main").arg(repo.key())) {
            if (repo->listingStatus != 200)
                return respond(socket, repo->listingStatus, R"({"error":"Repository not found"})");
            return respond(socket, 200, repo->rawListing.value_or(listingOf(*repo)),
                           "Content-Type: application/json\r\n");
        }
        const QString filePrefix = QStringLiteral("/%1/resolve/main/").arg(repo.key());
        const auto file = repo->files.constFind(request.path.mid(filePrefix.size()));
        if (request.path.startsWith(filePrefix) && file != repo->files.constEnd())
            return serveFile(socket, request.path, *file);
    }
    respond(socket, 404, "Entry not found");
}

QByteArray HubTestServer::listingOf(const Repository &repo)
{
    QJsonArray listing;
    for (const auto &[type, path] : repo.entries) {
        QJsonObject object{{QStringLiteral("type"), type}, {QStringLiteral("path"), path}};
        const auto file = repo.files.constFind(path);
        if (type == QLatin1String("file") && file != repo.files.constEnd()) {
            if (file->useBodySize)
                object.insert(QStringLiteral("size"), file->body.size());
            else if (file->listedSize)
                object.insert(QStringLiteral("size"), *file->listedSize);
        }
        listing.append(object);
    }
    return QJsonDocument(listing).toJson(QJsonDocument::Compact);
}

void HubTestServer::serveFile(QTcpSocket *socket, const QString &key, const File &file)
{
    socket->setProperty(kFileInProgress, true);
    m_maxConcurrent = std::max(m_maxConcurrent, ++m_inProgress);

    int &failuresGiven = m_failuresGiven[key];
    if (file.status != 200)
        return respond(socket, file.status, "Entry not found");
    if (failuresGiven < file.failuresBeforeSuccess) {
        ++failuresGiven;
        return respond(socket, 500, "Try again later");
    }
    if (failuresGiven < file.failuresBeforeSuccess + file.truncationsBeforeSuccess) {
        ++failuresGiven;
        File broken = file;
        broken.truncate = true;
        return sendBody(socket, broken);
    }
    if (file.redirect || !file.redirectTo.isEmpty()) {
        QString target = file.redirectTo;
        if (target.isEmpty()) {
            target = QStringLiteral("/cdn/%1").arg(m_redirectTargets.size());
            m_redirectTargets.insert(target, file.body);
        }
        return respond(socket, 302, {}, "Location: " + target.toUtf8() + "\r\n");
    }
    if (file.gate && m_gateSize > 0) {
        m_held.append({socket, file});
        if (m_held.size() >= m_gateSize)
            releaseGate();
        else if (m_held.size() == 1 && m_gateDelayMs > 0)
            QTimer::singleShot(m_gateDelayMs, this, &HubTestServer::releaseGate);
        return;
    }
    sendBody(socket, file);
}

void HubTestServer::releaseGate()
{
    m_gateSize = 0; // later requests are answered at once
    for (const auto &[socket, file] : std::exchange(m_held, {})) {
        if (socket)
            sendBody(socket, file);
    }
}

void HubTestServer::sendBody(QTcpSocket *socket, const File &file)
{
    const QByteArray &body = file.body;
    const bool whole = !file.stall && !file.truncate;
    socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) +
                  "\r\nConnection: close\r\n\r\n" + (whole ? body : body.left(body.size() / 2)));
    if (file.stall)
        return; // silence until the client leaves
    fileEnded(socket);
    socket->disconnectFromHost();
}

void HubTestServer::respond(QTcpSocket *socket, int status, const QByteArray &body,
                            const QByteArray &extraHeaders)
{
    socket->write("HTTP/1.1 " + QByteArray::number(status) +
                  " Status\r\nContent-Length: " + QByteArray::number(body.size()) +
                  "\r\nConnection: close\r\n" + extraHeaders + "\r\n" + body);
    fileEnded(socket);
    socket->disconnectFromHost();
}

void HubTestServer::fileEnded(QTcpSocket *socket)
{
    if (socket->property(kFileInProgress).toBool()) {
        socket->setProperty(kFileInProgress, false);
        --m_inProgress;
    }
}

} // namespace vocari::test
