#include "platform/wayland/PortalSession.h"

#include "platform/wayland/PortalRequest.h"

#include <QDBusMessage>
#include <QDBusObjectPath>

namespace vocari {

PortalSession::PortalSession(const QDBusConnection &bus, const QString &handle, QObject *parent)
    : QObject(parent), m_bus(bus), m_handle(handle)
{
    m_bus.connect(QLatin1String(Portal::service), m_handle, QLatin1String(Portal::sessionInterface),
                  QStringLiteral("Closed"), this, SLOT(onClosed(QVariantMap)));
}

PortalSession::~PortalSession()
{
    close();
}

QString PortalSession::handleFrom(const QVariantMap &results)
{
    const QVariant handle = results.value(QStringLiteral("session_handle"));
    if (handle.metaType() == QMetaType::fromType<QDBusObjectPath>())
        return handle.value<QDBusObjectPath>().path();
    return handle.toString();
}

void PortalSession::close()
{
    if (!m_open)
        return;
    m_open = false;
    unfollow();
    m_bus.send(QDBusMessage::createMethodCall(QLatin1String(Portal::service), m_handle,
                                              QLatin1String(Portal::sessionInterface),
                                              QStringLiteral("Close")));
}

void PortalSession::onClosed(const QVariantMap &)
{
    if (!m_open)
        return;
    m_open = false;
    unfollow();
    qCInfo(lcWayland).noquote() << "the desktop closed the portal session" << m_handle;
    emit closedByDesktop();
}

void PortalSession::unfollow()
{
    m_bus.disconnect(QLatin1String(Portal::service), m_handle,
                     QLatin1String(Portal::sessionInterface), QStringLiteral("Closed"), this,
                     SLOT(onClosed(QVariantMap)));
}

} // namespace vocari
