#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantMap>

namespace vocari {

// A session that a portal created for this program (a set of shortcuts, a remote keyboard).
// Closing it, or deleting this object, tells the portal to end it; the portal may also end it
// on its own (the user revoked it, the portal restarted), which closedByDesktop() reports.
class PortalSession : public QObject
{
    Q_OBJECT
public:
    PortalSession(const QDBusConnection &bus, const QString &handle, QObject *parent = nullptr);
    ~PortalSession() override;

    // The session handle from a CreateSession answer, which portals give as an object path or
    // as a string; empty when there is none.
    static QString handleFrom(const QVariantMap &results);

    QString handle() const { return m_handle; }
    bool isOpen() const { return m_open; }
    // Ends the session on the portal. Safe when already closed.
    void close();

signals:
    // The portal ended the session.
    void closedByDesktop();

private slots:
    void onClosed(const QVariantMap &details);

private:
    void unfollow();

    QDBusConnection m_bus;
    QString m_handle;
    bool m_open = true;
};

} // namespace vocari
