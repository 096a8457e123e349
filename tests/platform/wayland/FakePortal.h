#pragma once

#include "platform/wayland/KeyInjector.h"
#include "platform/wayland/ShortcutSession.h"

#include <QDBusConnection>
#include <QList>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVariantMap>
#include <memory>
#include <vector>

namespace vocari::test {

class FakePortalObject;

// A stand-in for the desktop's portal on a private bus: org.freedesktop.portal.Desktop with the
// GlobalShortcuts and RemoteDesktop interfaces and their request and session objects. It
// records every call, answers requests through Response signals the way the real portal does
// (a reply with the request path first, the outcome after it), and can be told to refuse, to
// stay silent, or to emit the signals a desktop emits on its own.
//
// It runs on a thread of its own, as a separate process would, so that a blocking call from the
// test's thread is answered.
class FakePortal
{
public:
    struct Options
    {
        bool globalShortcuts = true;
        bool remoteDesktop = true;
        // Binds the shortcuts given to CreateSession, as KDE Plasma does; otherwise only
        // BindShortcuts binds, as GNOME does. Either way ListShortcuts lists what the session's
        // token has bound, in this session or an earlier one.
        bool bindsAtCreate = false;
    };

    struct Call
    {
        QString interface;
        QString method;
        QString path;    // the object called
        QString session; // the session argument, for methods that take one
        QVariantMap options;
        QList<PortalShortcut> shortcuts; // BindShortcuts, and CreateSession where given
    };

    FakePortal(const QString &busAddress, Options options);
    ~FakePortal();
    FakePortal(const FakePortal &) = delete;
    FakePortal &operator=(const FakePortal &) = delete;

    // Whether it owns the portal's name on the bus.
    bool isRunning() const { return m_running; }

    // Every call so far, or those of one method, oldest first.
    QList<Call> calls(const QString &method = {}) const;
    // Sessions created, with the interface they were created on, oldest first.
    QStringList sessions(const QString &interface) const;
    // Sessions the client closed through org.freedesktop.portal.Session.Close.
    QStringList closedSessions() const;
    // Keys received through NotifyKeyboardKeysym (keysym set) and NotifyKeyboardKeycode (keycode
    // set), in order of arrival.
    std::vector<KeysymEvent> keysyms() const;

    // The response code later calls of a method get: 0 success, 1 cancelled, 2 failed.
    void setResponse(const QString &method, uint response);
    // The response code for a BindShortcuts call that binds a shortcut of this id.
    void setBindResponse(const QString &shortcutId, uint response);
    // Key calls are answered this long after they arrive.
    void setKeyReplyDelay(int milliseconds);
    // Key calls fail once this many keys have been taken.
    void refuseKeysAfter(int count);
    // The most key calls that were ever on their way at once, unanswered.
    int mostKeysInFlight() const;
    std::vector<KeysymEvent> refusedKeys() const;
    // Later calls of the method get their request path and then no answer at all.
    void setSilent(const QString &method);
    // Requests answer at a path other than the one the handle_token makes, a little later.
    void setMovedHandles(bool moved);

    void emitActivated(const QString &session, const QString &shortcutId);
    void emitDeactivated(const QString &session, const QString &shortcutId);
    void emitShortcutsChanged(const QString &session, const QString &shortcutId,
                              const QString &triggerDescription);
    // Ends a session from the desktop's side.
    void closeSession(const QString &session);

private:
    void emitSignal(const QString &path, const QString &interface, const QString &name,
                    const QVariantList &arguments);

    QString m_connectionName;
    QThread m_thread;
    FakePortalObject *m_object = nullptr;
    bool m_running = false;
};

} // namespace vocari::test
