#include "platform/wayland/ShortcutSession.h"

#include "platform/wayland/PortalRequest.h"
#include "platform/wayland/PortalSession.h"

#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QTimer>
#include <algorithm>

namespace vocari {

namespace {

const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

} // namespace

QDBusArgument &operator<<(QDBusArgument &argument, const PortalShortcut &shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, PortalShortcut &shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

void registerPortalShortcutTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<PortalShortcut>();
        qDBusRegisterMetaType<QList<PortalShortcut>>();
        return true;
    }();
    Q_UNUSED(registered);
}

ShortcutSession::ShortcutSession(const QDBusConnection &bus, const QString &token,
                                 const QList<PortalShortcut> &shortcuts, Binding binding,
                                 std::chrono::milliseconds timeout, QObject *parent)
    : QObject(parent), m_bus(bus), m_shortcuts(shortcuts), m_binding(binding), m_timeout(timeout)
{
    registerPortalShortcutTypes();
    follow(true);
    // Portals that leave the handle out of their answer use the one the token makes.
    m_predictedHandle = QStringLiteral("%1/session/%2/%3")
                            .arg(QLatin1String(Portal::path), Portal::senderPart(bus), token);
    create(token);
}

void ShortcutSession::create(const QString &token)
{
    ++m_attempts;
    // Some desktops bind only the shortcuts given here, and name the program's entry in their
    // shortcut settings after the token; others bind only through BindShortcuts.
    m_request = PortalRequest::start(
        m_bus, shortcutsInterface, QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), token},
         {QStringLiteral("shortcuts"), QVariant::fromValue(m_shortcuts)}},
        this,
        [this, token](const PortalResponse &response) {
            // The session this token named last may still be closing on the desktop's side,
            // which refuses a second one under the same token meanwhile: one more try.
            if (response.status == PortalResponse::Status::failed && m_attempts < 2) {
                QTimer::singleShot(kRetryMs, this, [this, token] {
                    if (m_state == State::binding)
                        create(token);
                });
                return;
            }
            onCreated(response, m_predictedHandle);
        },
        m_timeout);
}

ShortcutSession::~ShortcutSession()
{
    close();
}

QString ShortcutSession::handle() const
{
    return m_session ? m_session->handle() : QString();
}

QString ShortcutSession::triggerDescription(const QString &id) const
{
    const auto trigger = m_triggers.find(id);
    return trigger == m_triggers.end() ? QString() : trigger->second;
}

void ShortcutSession::onCreated(const PortalResponse &response, const QString &predictedHandle)
{
    if (response.status != PortalResponse::Status::success) {
        // A prompt left unanswered is as good as a no: asking again is up to the user.
        end(response.status == PortalResponse::Status::cancelled ||
                response.status == PortalResponse::Status::unanswered,
            response.error);
        return;
    }
    QString handle = PortalSession::handleFrom(response.results);
    if (handle.isEmpty())
        handle = predictedHandle;
    m_session = new PortalSession(m_bus, handle, this);
    connect(m_session, &PortalSession::closedByDesktop, this,
            [this] { end(false, tr("The desktop closed the shortcut session.")); });

    // What the desktop holds for the session already, from CreateSession or an earlier run;
    // asking it shows the user nothing.
    m_request = PortalRequest::start(
        m_bus, shortcutsInterface, QStringLiteral("ListShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(handle))}, {}, this,
        [this](const PortalResponse &response) { onListed(response); }, m_timeout);
}

void ShortcutSession::onListed(const PortalResponse &response)
{
    if (response.status == PortalResponse::Status::success) {
        const auto listed =
            qdbus_cast<QList<PortalShortcut>>(response.results.value(QStringLiteral("shortcuts")));
        const bool allThere = std::all_of(
            m_shortcuts.begin(), m_shortcuts.end(), [&listed](const PortalShortcut &wanted) {
                return std::any_of(listed.begin(), listed.end(),
                                   [&](const PortalShortcut &had) { return had.id == wanted.id; });
            });
        if (allThere || m_binding == Binding::listedOnly) {
            // BindShortcuts would only open the desktop's shortcut settings again.
            m_state = State::bound;
            takeTriggers(response.results.value(QStringLiteral("shortcuts")));
            emit bound();
            return;
        }
    }
    bind();
}

void ShortcutSession::bind()
{
    m_request = PortalRequest::start(
        m_bus, shortcutsInterface, QStringLiteral("BindShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(handle())), QVariant::fromValue(m_shortcuts),
         QString()},
        {}, this, [this](const PortalResponse &response) { onBound(response); }, m_timeout);
}

void ShortcutSession::onBound(const PortalResponse &response)
{
    if (response.status != PortalResponse::Status::success) {
        // A prompt left unanswered is as good as a no: asking again is up to the user.
        end(response.status == PortalResponse::Status::cancelled ||
                response.status == PortalResponse::Status::unanswered,
            response.error);
        return;
    }
    m_state = State::bound;
    takeTriggers(response.results.value(QStringLiteral("shortcuts")));
    emit bound();
}

void ShortcutSession::close()
{
    if (m_state == State::ended)
        return;
    m_state = State::ended;
    if (m_request)
        m_request->abandon();
    if (m_session) {
        m_session->close();
    } else if (m_attempts > 0) {
        // The desktop may have made the session already, its answer still on the way: it must
        // not outlive this object and hold the token.
        m_bus.send(QDBusMessage::createMethodCall(QLatin1String(Portal::service), m_predictedHandle,
                                                  QLatin1String(Portal::sessionInterface),
                                                  QStringLiteral("Close")));
    }
    follow(false);
}

void ShortcutSession::end(bool refused, const QString &error)
{
    if (m_state == State::ended)
        return;
    close();
    emit ended(refused, error);
}

bool ShortcutSession::isOurs(const QDBusMessage &message) const
{
    // A signal for the session may overtake the answer to the binding, which reaches this
    // object a turn of the event loop later; the desktop sends it only for bound shortcuts.
    if (m_state == State::ended || !m_session || message.arguments().size() < 2)
        return false;
    return message.arguments().at(0).value<QDBusObjectPath>().path() == handle();
}

void ShortcutSession::onActivated(const QDBusMessage &message)
{
    if (!isOurs(message))
        return;
    // A held key repeats its activation on some desktops; only the first one counts.
    const QString id = message.arguments().at(1).toString();
    if (m_active.contains(id))
        return;
    m_active.insert(id);
    emit activated(id);
}

void ShortcutSession::onDeactivated(const QDBusMessage &message)
{
    if (!isOurs(message))
        return;
    const QString id = message.arguments().at(1).toString();
    m_active.remove(id);
    emit deactivated(id);
}

void ShortcutSession::onShortcutsChanged(const QDBusMessage &message)
{
    if (isOurs(message))
        takeTriggers(message.arguments().at(1));
}

void ShortcutSession::takeTriggers(const QVariant &shortcuts)
{
    if (!shortcuts.isValid())
        return;
    const auto list = qdbus_cast<QList<PortalShortcut>>(shortcuts);
    bool changed = false;
    for (const PortalShortcut &shortcut : list) {
        const QString description =
            shortcut.properties.value(QStringLiteral("trigger_description")).toString();
        QString &known = m_triggers[shortcut.id];
        changed = changed || known != description;
        known = description;
    }
    if (changed)
        emit triggersChanged();
}

void ShortcutSession::follow(bool on)
{
    static const char *const handlers[][2] = {
        {"Activated", SLOT(onActivated(QDBusMessage))},
        {"Deactivated", SLOT(onDeactivated(QDBusMessage))},
        {"ShortcutsChanged", SLOT(onShortcutsChanged(QDBusMessage))},
    };
    for (const auto &[name, method] : handlers) {
        if (on)
            m_bus.connect(QLatin1String(Portal::service), QLatin1String(Portal::path),
                          shortcutsInterface, QLatin1String(name), this, method);
        else
            m_bus.disconnect(QLatin1String(Portal::service), QLatin1String(Portal::path),
                             shortcutsInterface, QLatin1String(name), this, method);
    }
}

} // namespace vocari
