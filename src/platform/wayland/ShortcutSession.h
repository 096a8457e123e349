#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QVariantMap>
#include <chrono>
#include <map>
#include <vector>

namespace vocari {

class PortalRequest;
class PortalSession;
struct PortalResponse;

// A shortcut as the global-shortcuts portal passes it around (D-Bus type (sa{sv})): its id and
// properties such as "description", "preferred_trigger" and "trigger_description".
struct PortalShortcut
{
    QString id;
    QVariantMap properties;
};

QDBusArgument &operator<<(QDBusArgument &argument, const PortalShortcut &shortcut);
const QDBusArgument &operator>>(const QDBusArgument &argument, PortalShortcut &shortcut);
// Makes PortalShortcut and lists of it known to D-Bus. Called by ShortcutSession; safe to
// call again.
void registerPortalShortcutTypes();

// A session of the desktop's global-shortcuts portal with a fixed set of shortcuts bound to it.
// Construction asks the portal for a session with the shortcuts, then for the shortcuts it
// holds for the session. Only where some are missing are they bound with BindShortcuts, which
// may show the user a dialog or open the desktop's settings; the answer comes back through
// bound() or ended(). The session token is the caller's, and fixed: desktops keep the user's
// choice of key under it from one run to the next. While bound, the portal's
// Activated and Deactivated signals for this session come out as activated() and
// deactivated(). Deleting the object closes the session, and with it the shortcuts.
class ShortcutSession : public QObject
{
    Q_OBJECT
public:
    enum class State
    {
        binding,
        bound,
        ended
    };

    // Whether BindShortcuts may be called when the desktop lists fewer shortcuts than given.
    enum class Binding
    {
        bindMissing,
        listedOnly // the desktop was asked to bind them once in this run already
    };

    ShortcutSession(const QDBusConnection &bus, const QString &token,
                    const QList<PortalShortcut> &shortcuts, Binding binding,
                    std::chrono::milliseconds timeout, QObject *parent = nullptr);
    ~ShortcutSession() override;

    // Ends the session on the portal now, without a signal.
    void close();

    State state() const { return m_state; }
    QString handle() const;
    // How the desktop describes the trigger it bound a shortcut to ("Ctrl+Alt+Space"), as far
    // as it said; empty when it did not.
    QString triggerDescription(const QString &id) const;

signals:
    void bound();
    // The session is over: the user turned it down (refused), or it failed or was closed by
    // the desktop, as `error` says.
    void ended(bool refused, const QString &error);
    void activated(const QString &id);
    void deactivated(const QString &id);
    // The desktop reported new triggers, at binding or when the user changed them.
    void triggersChanged();

private slots:
    void onActivated(const QDBusMessage &message);
    void onDeactivated(const QDBusMessage &message);
    void onShortcutsChanged(const QDBusMessage &message);

private:
    void create(const QString &token);
    void onCreated(const PortalResponse &response, const QString &predictedHandle);
    void onListed(const PortalResponse &response);
    void bind();
    void onBound(const PortalResponse &response);
    void end(bool refused, const QString &error);
    bool isOurs(const QDBusMessage &message) const;
    void takeTriggers(const QVariant &shortcuts);
    void follow(bool on);

    QDBusConnection m_bus;
    QList<PortalShortcut> m_shortcuts;
    Binding m_binding;
    QString m_predictedHandle; // the session's path as its token makes it
    int m_attempts = 0;
    static constexpr int kRetryMs = 300;
    QSet<QString> m_active; // shortcuts activated and not yet deactivated
    std::chrono::milliseconds m_timeout;
    State m_state = State::binding;
    QPointer<PortalRequest> m_request;
    PortalSession *m_session = nullptr;
    std::map<QString, QString> m_triggers;
};

} // namespace vocari

Q_DECLARE_METATYPE(vocari::PortalShortcut)
