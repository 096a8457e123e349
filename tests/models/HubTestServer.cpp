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

HubTestServer::HubTestServer(QObject *parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &HubTestServer::onNewConnection);
}

HubTestServer::~HubTestServer()
{
    stop();
}

bool HubTestServer::start()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

void HubTestServer::stop()
{
    m_server.close();
    for (auto &[socket, connection] : m_connections) {
        if (connection.socket) {
            connection.socket->disconnect(this);
            connection.socket->abort();
            connection.socket->deleteLater();
        }
    }
    m_connections.clear();
    m_held.clear();
}

quint16 HubTestServer::port() const
{
    return m_server.serverPort();
}

QString HubTestServer::address() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(port());
}

void HubTestServer::addFile(const QString &repo, const QString &path, const File &file)
{
    Repository &repository = m_repositories[repo];
    repository.entries.push_back({QStringLiteral("file"), path});
    repository.files.insert(path, file);
}

void HubTestServer::addDirectory(const QString &repo, const QString &path)
{
    m_repositories[repo].entries.push_back({QStringLiteral("directory"), path});
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
        const QString full = root.filePath(path);
        if (QFileInfo(full).isDir()) {
            addDirectory(repo, path);
            continue;
        }
        QFile source(full);
        if (!source.open(QIODevice::ReadOnly))
            continue;
        File file;
        file.body = source.readAll();
        file.redirect = true;
        addFile(repo, path, file);
    }
}

int HubTestServer::requestCount(const QString &decodedPath) const
{
    return static_cast<int>(std::count_if(m_requests.begin(), m_requests.end(),
                                          [&](const Request &r) { return r.path == decodedPath; }));
}

void HubTestServer::onNewConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        m_connections[socket] = Connection{socket, {}, false};
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            for (qsizetype i = 0; i < m_held.size(); ++i) {
                if (m_held[i].socket == socket) {
                    fileEnded(m_held[i].path);
                    m_held.removeAt(i);
                    break;
                }
            }
            const QString stalled = socket->property("stalledPath").toString();
            if (!stalled.isEmpty())
                fileEnded(stalled);
            m_connections.erase(socket);
            socket->deleteLater();
        });
    }
}

void HubTestServer::onReadyRead(QTcpSocket *socket)
{
    auto it = m_connections.find(socket);
    if (it == m_connections.end() || it->second.answered)
        return;
    Connection &connection = it->second;
    connection.buffer += socket->readAll();
    const qsizetype end = connection.buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return;
    connection.answered = true;
    handle(socket, connection.buffer.left(end));
}

void HubTestServer::handle(QTcpSocket *socket, const QByteArray &head)
{
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    Request request;
    request.target = requestLine.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        if (line.toLower().startsWith("authorization:"))
            request.authorization = line.mid(int(qstrlen("authorization:"))).trimmed();
    }
    const QByteArray rawPath = request.target.left(
        request.target.indexOf('?') < 0 ? request.target.size() : request.target.indexOf('?'));
    request.path = QUrl::fromPercentEncoding(rawPath);
    m_requests.append(request);

    if (requestLine.value(0) != "GET") {
        respond(socket, 405, {});
        return;
    }
    if (m_redirectTargets.contains(request.path)) {
        File file;
        file.body = m_redirectTargets.value(request.path);
        sendBody(socket, {}, file);
        return;
    }
    for (auto repo = m_repositories.begin(); repo != m_repositories.end(); ++repo) {
        if (request.path == QStringLiteral("/api/models/%1/tree/main").arg(repo.key())) {
            serveListing(socket, repo.value());
            return;
        }
        const QString filePrefix = QStringLiteral("/%1/resolve/main/").arg(repo.key());
        if (request.path.startsWith(filePrefix)) {
            const QString path = request.path.mid(filePrefix.size());
            auto file = repo->files.find(path);
            if (file != repo->files.end()) {
                serveFile(socket, repo.key(), path, *file);
                return;
            }
        }
    }
    respond(socket, 404, "Entry not found");
}

void HubTestServer::serveListing(QTcpSocket *socket, const Repository &repo)
{
    if (repo.listingStatus != 200) {
        respond(socket, repo.listingStatus, R"({"error":"Repository not found"})");
        return;
    }
    respond(socket, 200, repo.rawListing.value_or(listingOf(repo)),
            "Content-Type: application/json\r\n");
}

QByteArray HubTestServer::listingOf(const Repository &repo) const
{
    QJsonArray listing;
    for (const Repository::Entry &entry : repo.entries) {
        QJsonObject object{{QStringLiteral("type"), entry.type},
                           {QStringLiteral("oid"), QStringLiteral("0123abcd")},
                           {QStringLiteral("path"), entry.path}};
        const auto file = repo.files.constFind(entry.path);
        if (entry.type == QLatin1String("file") && file != repo.files.constEnd()) {
            if (file->useBodySize)
                object.insert(QStringLiteral("size"), file->body.size());
            else if (file->listedSize)
                object.insert(QStringLiteral("size"), *file->listedSize);
        }
        listing.append(object);
    }
    return QJsonDocument(listing).toJson(QJsonDocument::Compact);
}

void HubTestServer::serveFile(QTcpSocket *socket, const QString &repo, const QString &path,
                              File &file)
{
    m_maxConcurrent = std::max(m_maxConcurrent, ++m_inProgress);

    const QString key = repo + QLatin1Char('/') + path;
    if (file.status != 200) {
        respond(socket, file.status, "Entry not found");
        fileEnded(path);
        return;
    }
    if (m_failuresGiven.value(key) < file.failuresBeforeSuccess) {
        m_failuresGiven[key] += 1;
        respond(socket, 500, "Try again later");
        fileEnded(path);
        return;
    }
    if (m_failuresGiven.value(key) < file.failuresBeforeSuccess + file.truncationsBeforeSuccess) {
        m_failuresGiven[key] += 1;
        File broken = file;
        broken.truncate = true;
        sendBody(socket, path, broken);
        return;
    }
    if (file.redirect || !file.redirectTo.isEmpty()) {
        QString target = file.redirectTo;
        if (target.isEmpty()) {
            target = QStringLiteral("/cdn/%1").arg(m_redirectTargets.size());
            m_redirectTargets.insert(target, file.body);
        }
        respond(socket, 302, {}, "Location: " + target.toUtf8() + "\r\n");
        fileEnded(path);
        return;
    }
    if (file.gate && m_gateSize > 0) {
        m_held.append({socket, path, file});
        if (m_held.size() >= m_gateSize)
            releaseGate();
        else if (m_held.size() == 1 && m_gateDelayMs > 0)
            QTimer::singleShot(m_gateDelayMs, this, &HubTestServer::releaseGate);
        return;
    }
    sendBody(socket, path, file);
}

void HubTestServer::releaseGate()
{
    m_gateSize = 0; // later requests are answered at once
    const QList<Held> held = std::exchange(m_held, {});
    for (const Held &entry : held) {
        if (entry.socket)
            sendBody(entry.socket, entry.path, entry.file);
    }
}

void HubTestServer::sendBody(QTcpSocket *socket, const QString &path, const File &file)
{
    const QByteArray &body = file.body;
    const bool whole = !file.stall && !file.truncate;
    socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) +
                  "\r\nConnection: close\r\n\r\n" + (whole ? body : body.left(body.size() / 2)));
    if (file.stall) {
        // The connection stays open, silent, until the client leaves.
        socket->setProperty("stalledPath", path);
        return;
    }
    fileEnded(path);
    socket->disconnectFromHost();
}

void HubTestServer::respond(QTcpSocket *socket, int status, const QByteArray &body,
                            const QByteArray &extraHeaders)
{
    QByteArray answer = "HTTP/1.1 " + QByteArray::number(status) + " Status" +
                        "\r\nContent-Length: " + QByteArray::number(body.size()) +
                        "\r\nConnection: close\r\n" + extraHeaders + "\r\n" + body;
    socket->write(answer);
    socket->disconnectFromHost();
}

} // namespace vocari::test
