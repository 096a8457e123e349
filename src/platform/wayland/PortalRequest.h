#pragma once

#include "platform/wayland/WaylandLog.h"

#include <QDBusConnection>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QVariantList>
#include <QVariantMap>
#include <chrono>
#include <functional>

namespace vocari {

// Where the desktop's portals live on the session bus.
namespace Portal {
inline constexpr auto service = "org.freedesktop.portal.Desktop";
inline constexpr auto path = "/org/freedesktop/portal/desktop";
inline constexpr auto requestInterface = "org.freedesktop.portal.Request";
inline constexpr auto sessionInterface = "org.freedesktop.portal.Session";

// A token that no other request or session of this program uses: a valid object path element.
QString newToken();
// The connection's unique name as it appears in request and session paths: ":1.42" is "1_42".
QString senderPart(const QDBusConnection &bus);
// The path the portal gives the request made with `token` on this connection.
QString requestPath(const QDBusConnection &bus, const QString &token);
} // namespace Portal

// How a request to a portal ended.
struct PortalResponse
{
    enum class Status
    {
        success,
        cancelled,  // the user dismissed the desktop's dialog or said no
        unanswered, // no answer came in time: a dialog may have been left unanswered
        failed      // the call failed, or the portal reported another failure
    };

    Status status = Status::failed;
    QVariantMap results;
    QString error; // what went wrong, for the log (failed only)
};

// One request to a portal. A portal method answers at once with the path of a request object
// and gives the real outcome later in that object's Response signal, often after a dialog. The
// path is predictable from the handle_token option, so the signal is subscribed to before the
// call goes out and an answer cannot slip past; a portal that returns another path is followed
// there. Everything runs on the main thread.
class PortalRequest : public QObject
{
    Q_OBJECT
public:
    using Callback = std::function<void(const PortalResponse &)>;

    // Long enough for a user to read a dialog and answer it.
    static constexpr std::chrono::milliseconds defaultTimeout = std::chrono::minutes(2);

    // Calls `method` of the portal `interface` with `arguments` and then `options`, to which a
    // fresh handle_token is added. `done` is called once, from the event loop, with the
    // outcome, unless `owner` (which must not be null) is deleted or the request abandoned
    // first. The request is a child of `owner` and deletes itself when done.
    static QPointer<PortalRequest> start(const QDBusConnection &bus, const QString &interface,
                                         const QString &method, const QVariantList &arguments,
                                         QVariantMap options, QObject *owner, Callback done,
                                         std::chrono::milliseconds timeout = defaultTimeout);

    // Drops the request without calling back, and tells the portal to close it, so that a
    // dialog it shows goes away.
    void abandon();

    // The path of the request object being followed.
    QString handle() const { return m_handle; }

private slots:
    void onResponse(uint response, const QVariantMap &results);

private:
    PortalRequest(const QDBusConnection &bus, QObject *owner, Callback done);
    void follow(const QString &handle);
    void unfollow();
    void finish(PortalResponse response);

    QDBusConnection m_bus;
    Callback m_done;
    QString m_handle;
    bool m_abandoned = false;
    QTimer m_timeout;
    bool m_finished = false;
};

} // namespace vocari
