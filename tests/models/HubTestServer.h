#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <optional>
#include <vector>

class QTcpSocket;

namespace vocari::test {

// A small model hub on the loopback interface for the download tests: it answers listing and
// file requests for the repositories it is given, and misbehaves on request. One request per
// connection.
class HubTestServer : public QObject
{
    Q_OBJECT
public:
    // How a file is served.
    struct File
    {
        QByteArray body;
        bool useBodySize = true;          // the listing gives the body's size, else listedSize
        std::optional<qint64> listedSize; // (none: no size)
        int status = 200;                 // a status other than 200 is answered every time
        int failuresBeforeSuccess = 0;    // the first requests answer 500
        int truncationsBeforeSuccess = 0; // the next ones send half the body and close
        bool redirect = false;            // answer 302 to a second address that serves the body
        QString redirectTo;               // an absolute address to redirect to instead
        bool truncate = false;            // announce the whole body, send half, close
        bool stall = false;               // send half, then nothing until the client gives up
        bool gate = false;                // hold the answer, see setGate()
    };

    struct Repository
    {
        int listingStatus = 200;
        std::optional<QByteArray> rawListing;             // sent instead of the generated one
        std::vector<std::pair<QString, QString>> entries; // type and path, in listing order
        QHash<QString, File> files;
    };

    struct Request
    {
        QByteArray target;        // as sent, percent-encoding included
        QString path;             // decoded, without the query
        QByteArray authorization; // empty when absent
    };

    explicit HubTestServer(QObject *parent = nullptr);
    ~HubTestServer() override;

    bool start() { return m_server.listen(QHostAddress::LocalHost, 0); }
    QString address() const
    {
        return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
    }

    Repository &repository(const QString &name) { return m_repositories[name]; }
    void addFile(const QString &repo, const QString &path, const File &file);
    void addFile(const QString &repo, const QString &path, const QByteArray &body)
    {
        File file;
        file.body = body;
        addFile(repo, path, file);
    }
    void addDirectory(const QString &repo, const QString &path)
    {
        m_repositories[repo].entries.emplace_back(QStringLiteral("directory"), path);
    }
    // Serves every file under folder as the repository, each through a redirect.
    void addFolder(const QString &repo, const QString &folder);

    // Gated answers go out together once count are waiting, or releaseAfterMs after the first
    // came in; later ones go out at once.
    void setGate(int count, int releaseAfterMs)
    {
        m_gateSize = count;
        m_gateDelayMs = releaseAfterMs;
    }

    const QList<Request> &requests() const { return m_requests; }
    int requestCount(const QString &decodedPath) const;
    // The most file answers that were in progress at one time.
    int maxConcurrentFiles() const { return m_maxConcurrent; }

private:
    void onReadyRead(QTcpSocket *socket);
    void handle(QTcpSocket *socket, const QByteArray &head);
    void serveFile(QTcpSocket *socket, const QString &key, const File &file);
    void sendBody(QTcpSocket *socket, const File &file);
    void releaseGate();
    void respond(QTcpSocket *socket, int status, const QByteArray &body,
                 const QByteArray &extraHeaders = {});
    void fileEnded(QTcpSocket *socket);
    static QByteArray listingOf(const Repository &repo);

    QTcpServer m_server;
    QHash<QString, Repository> m_repositories;
    QHash<QString, int> m_failuresGiven;
    QHash<QString, QByteArray> m_redirectTargets; // "/cdn/<n>" → body
    QList<Request> m_requests;
    QList<std::pair<QPointer<QTcpSocket>, File>> m_held;
    int m_gateSize = 3;
    int m_gateDelayMs = 0;
    int m_inProgress = 0;
    int m_maxConcurrent = 0;
};

} // namespace vocari::test
