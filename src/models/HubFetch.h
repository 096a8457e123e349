#pragma once

#include "models/Countdown.h"
#include "models/HubEndpoint.h"

#include <QIODevice>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <chrono>

class QNetworkAccessManager;

namespace vocari {

// One GET from the hub whose body is streamed into a device as it arrives. Redirects are
// followed here (at most ten, never from https to plain http) so that the token stays with
// the hub; the final answer must be 200 and, when it announces a length, deliver all of it.
// A transfer that hears nothing from the hub for the time-out is given up.
class HubFetch : public QObject
{
    Q_OBJECT
public:
    enum class Outcome
    {
        Running,
        Ok,
        BadStatus,    // the final answer was not 200; see status()
        TimedOut,     // no data for the whole time-out
        NetworkError, // the connection failed; see detail()
        Truncated,    // the connection closed before the announced length arrived
        BadRedirect,  // too many redirects, or one to an unusable or less safe address
        WriteError,   // the device refused the data; see detail()
        TooLarge,     // the body went past the limit set with setMaxBytes()
    };

    HubFetch(QNetworkAccessManager &network, const HubEndpoint &endpoint, const QUrl &url,
             QIODevice &sink, std::chrono::milliseconds timeout, const CountdownFactory &countdowns,
             QObject *parent = nullptr);
    ~HubFetch() override;

    // Gives up on a body longer than this (no limit by default).
    void setMaxBytes(qint64 maxBytes) { m_maxBytes = maxBytes; }
    void start();
    // Stops the transfer; finished() is not emitted afterwards.
    void abort();

    Outcome outcome() const { return m_outcome; }
    int status() const { return m_status; }
    QString detail() const { return m_detail; }
    qint64 bytesWritten() const { return m_written; }

signals:
    // The running total of body bytes written to the device.
    void received(qint64 total);
    // The transfer ended; outcome() says how. Emitted once.
    void finished();

private:
    static constexpr int kMaxRedirects = 10;

    void send(const QUrl &url);
    void onReadyRead();
    void heardFromHub();
    void onFinished();
    bool bodyIsWanted() const; // the answer is the 200 whose body goes to the device
    bool writeAvailable();
    void followRedirect(QNetworkReply &reply);
    void finish(Outcome outcome, QString detail = {});
    void dropReply();

    QNetworkAccessManager &m_network;
    const HubEndpoint m_endpoint;
    const QUrl m_url;
    QIODevice &m_sink;
    const std::chrono::milliseconds m_timeout;
    Countdown *const m_silence; // runs while the hub owes an answer or more of the body

    QPointer<QNetworkReply> m_reply;
    int m_redirects = 0;
    int m_status = 0;
    qint64 m_written = 0;
    qint64 m_maxBytes = -1;
    Outcome m_outcome = Outcome::Running;
    QString m_detail;
};

} // namespace vocari
