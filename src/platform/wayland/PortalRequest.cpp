#include "platform/wayland/PortalRequest.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QRandomGenerator>
#include <atomic>

namespace vocari {

namespace Portal {

QString newToken()
{
    static std::atomic<quint32> counter{0};
    return QStringLiteral("vocari_%1_%2")
        .arg(QRandomGenerator::global()->generate(), 8, 16, QLatin1Char('0'))
        .arg(++counter);
}

QString senderPart(const QDBusConnection &bus)
{
    QString name = bus.baseService();
    if (name.startsWith(QLatin1Char(':')))
        name.remove(0, 1);
    return name.replace(QLatin1Char('.'), QLatin1Char('_'));
}

QString requestPath(const QDBusConnection &bus, const QString &token)
{
    return QStringLiteral("%1/request/%2/%3").arg(QLatin1String(path), senderPart(bus), token);
}

} // namespace Portal

PortalRequest::PortalRequest(const QDBusConnection &bus, QObject *owner, Callback done)
    : QObject(owner), m_bus(bus), m_done(std::move(done))
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, [this] {
        const QString handle = m_handle;
        finish({PortalResponse::Status::unanswered,
                {},
                tr("The desktop's prompt was not answered in time.")});
        // The dialog may still be up; nobody waits for its answer any more.
        if (!handle.isEmpty())
            m_bus.send(QDBusMessage::createMethodCall(QLatin1String(Portal::service), handle,
                                                      QLatin1String(Portal::requestInterface),
                                                      QStringLiteral("Close")));
    });
}

QPointer<PortalRequest> PortalRequest::start(const QDBusConnection &bus, const QString &interface,
                                             const QString &method, const QVariantList &arguments,
                                             QVariantMap options, QObject *owner, Callback done,
                                             std::chrono::milliseconds timeout)
{
    Q_ASSERT(owner);
    auto *request = new PortalRequest(bus, owner, std::move(done));
    const QString token = Portal::newToken();
    options.insert(QStringLiteral("handle_token"), token);
    request->follow(Portal::requestPath(bus, token));

    QDBusMessage call = QDBusMessage::createMethodCall(
        QLatin1String(Portal::service), QLatin1String(Portal::path), interface, method);
    call.setArguments(arguments + QVariantList{options});
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), request);
    connect(watcher, &QDBusPendingCallWatcher::finished, request,
            [request, method](QDBusPendingCallWatcher *watcher) {
                watcher->deleteLater();
                const QDBusPendingReply<QDBusObjectPath> reply = *watcher;
                if (reply.isError()) {
                    request->finish(
                        {PortalResponse::Status::failed,
                         {},
                         QStringLiteral("%1: %2").arg(method, reply.error().message())});
                    return;
                }
                // Portals older than the handle_token option make up a path of their own.
                const QString handle = reply.value().path();
                if (handle != request->m_handle) {
                    qCDebug(lcWayland).noquote() << method << "answers at" << handle;
                    request->follow(handle);
                }
            });
    request->m_timeout.start(timeout);
    return request;
}

void PortalRequest::abandon()
{
    // An answer already on its way to the callback is dropped as well.
    m_abandoned = true;
    if (m_finished)
        return;
    if (!m_handle.isEmpty())
        m_bus.send(QDBusMessage::createMethodCall(QLatin1String(Portal::service), m_handle,
                                                  QLatin1String(Portal::requestInterface),
                                                  QStringLiteral("Close")));
    m_finished = true;
    m_done = nullptr;
    m_timeout.stop();
    unfollow();
    deleteLater();
}

void PortalRequest::follow(const QString &handle)
{
    unfollow();
    m_handle = handle;
    if (!m_bus.connect(QLatin1String(Portal::service), handle,
                       QLatin1String(Portal::requestInterface), QStringLiteral("Response"), this,
                       SLOT(onResponse(uint, QVariantMap))))
        qCWarning(lcWayland).noquote() << "cannot follow the portal request" << handle;
}

void PortalRequest::unfollow()
{
    if (m_handle.isEmpty())
        return;
    m_bus.disconnect(QLatin1String(Portal::service), m_handle,
                     QLatin1String(Portal::requestInterface), QStringLiteral("Response"), this,
                     SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::onResponse(uint response, const QVariantMap &results)
{
    switch (response) {
    case 0:
        finish({PortalResponse::Status::success, results, {}});
        break;
    case 1:
        finish({PortalResponse::Status::cancelled, results, {}});
        break;
    default:
        finish({PortalResponse::Status::failed, results,
                tr("The desktop could not do it (answer %1).").arg(response)});
        break;
    }
}

void PortalRequest::finish(PortalResponse response)
{
    if (m_finished)
        return;
    m_finished = true;
    m_timeout.stop();
    unfollow();
    // The callback runs from the event loop, where it may delete its owner (and so this
    // request) without pulling anything from under a frame further up. It is queued on the
    // request, ahead of the request's own deletion, so that an owner that goes first (taking
    // its child requests along) or an abandon() meanwhile drops it.
    if (Callback done = std::move(m_done)) {
        QMetaObject::invokeMethod(
            this,
            [this, done = std::move(done), response = std::move(response)] {
                if (!m_abandoned)
                    done(response);
            },
            Qt::QueuedConnection);
    }
    deleteLater();
}

} // namespace vocari
