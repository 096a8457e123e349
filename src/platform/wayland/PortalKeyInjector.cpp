#include "platform/wayland/PortalKeyInjector.h"

#include "platform/wayland/PortalRequest.h"
#include "platform/wayland/PortalSession.h"
#include "settings/SettingsStore.h"

#include <QDBusMessage>
#include <QDBusObjectPath>

namespace vocari {

namespace {

const QString remoteDesktopInterface = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
constexpr uint keyboardDevice = 1;
// The desktop keeps the grant until the user revokes it.
constexpr uint persistUntilRevoked = 2;

} // namespace

PortalKeyInjector::PortalKeyInjector(const QDBusConnection &bus, SettingsStore *settings,
                                     QObject *parent)
    : QObject(parent), m_bus(bus), m_settings(settings ? settings : &SettingsStore::shared()),
      m_timeout(PortalRequest::defaultTimeout)
{
}

PortalKeyInjector::~PortalKeyInjector()
{
    if (m_request)
        m_request->abandon();
}

QString PortalKeyInjector::name() const
{
    return tr("the desktop's remote-desktop portal");
}

bool PortalKeyInjector::ready()
{
    if (m_state == State::idle && m_startAgain.hasExpired())
        start();
    return m_state == State::started;
}

bool PortalKeyInjector::send(const std::vector<KeysymEvent> &events)
{
    if (m_state != State::started || !m_session)
        return false;
    const QDBusObjectPath session(m_session->handle());
    for (const KeysymEvent &event : events) {
        const bool byCode = event.keycode != 0;
        QDBusMessage call = QDBusMessage::createMethodCall(
            QLatin1String(Portal::service), QLatin1String(Portal::path), remoteDesktopInterface,
            byCode ? QStringLiteral("NotifyKeyboardKeycode")
                   : QStringLiteral("NotifyKeyboardKeysym"));
        call.setArguments({QVariant::fromValue(session), QVariantMap(),
                           int(byCode ? event.keycode : event.keysym),
                           uint(event.pressed ? 1 : 0)});
        if (!m_bus.send(call)) {
            qCWarning(lcWayland).noquote()
                << "cannot send keys to the portal:" << m_bus.lastError().message();
            return false;
        }
    }
    return true;
}

void PortalKeyInjector::askAgain()
{
    if (m_state == State::refused)
        m_state = State::idle;
    m_startAgain = QDeadlineTimer();
}

void PortalKeyInjector::start()
{
    m_state = State::starting;
    m_error = tr("Waiting for the desktop to grant keyboard access.");
    m_usedToken = false;
    m_request = PortalRequest::start(
        m_bus, remoteDesktopInterface, QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), Portal::newToken()}}, this,
        [this](const PortalResponse &response) { onCreated(response); }, m_timeout);
}

void PortalKeyInjector::onCreated(const PortalResponse &response)
{
    const QString handle = PortalSession::handleFrom(response.results);
    if (response.status != PortalResponse::Status::success || handle.isEmpty()) {
        fail(response);
        return;
    }
    m_session = new PortalSession(m_bus, handle, this);
    connect(m_session, &PortalSession::closedByDesktop, this,
            &PortalKeyInjector::onClosedByDesktop);

    QVariantMap options{{QStringLiteral("types"), keyboardDevice},
                        {QStringLiteral("persist_mode"), persistUntilRevoked}};
    const QString token = storedToken();
    if (!token.isEmpty()) {
        options.insert(QStringLiteral("restore_token"), token);
        m_usedToken = true;
    }
    m_request = PortalRequest::start(
        m_bus, remoteDesktopInterface, QStringLiteral("SelectDevices"),
        {QVariant::fromValue(QDBusObjectPath(handle))}, options, this,
        [this](const PortalResponse &response) { onDevicesSelected(response); }, m_timeout);
}

void PortalKeyInjector::onDevicesSelected(const PortalResponse &response)
{
    if (response.status != PortalResponse::Status::success || !m_session) {
        fail(response);
        return;
    }
    m_request = PortalRequest::start(
        m_bus, remoteDesktopInterface, QStringLiteral("Start"),
        {QVariant::fromValue(QDBusObjectPath(m_session->handle())), QString()}, {}, this,
        [this](const PortalResponse &response) { onStarted(response); }, m_timeout);
}

void PortalKeyInjector::onStarted(const PortalResponse &response)
{
    const uint devices = response.results.value(QStringLiteral("devices")).toUInt();
    if (response.status == PortalResponse::Status::success && !(devices & keyboardDevice)) {
        fail({PortalResponse::Status::failed, {}, tr("it granted no keyboard")});
        return;
    }
    if (response.status != PortalResponse::Status::success || !m_session) {
        fail(response);
        return;
    }
    const QString token = response.results.value(QStringLiteral("restore_token")).toString();
    if (!token.isEmpty() && token != storedToken())
        m_settings->setValue(QLatin1String(restoreTokenKey), token);
    m_state = State::started;
    m_error.clear();
    qCInfo(lcWayland) << "the desktop granted keyboard access";
    emit readyChanged(true);
}

QString PortalKeyInjector::askAgainHint()
{
    return tr("choose “Ask Again” under Permissions in Vocari's settings to be asked once more.");
}

void PortalKeyInjector::fail(const PortalResponse &response)
{
    endSession();
    // A token the desktop no longer honours would only be offered in vain next time.
    if (m_usedToken && response.status != PortalResponse::Status::failed)
        m_settings->remove(QLatin1String(restoreTokenKey));
    if (response.status == PortalResponse::Status::cancelled) {
        m_state = State::refused;
        m_error = tr("Keyboard access was declined on the desktop's prompt; ") + askAgainHint();
    } else if (response.status == PortalResponse::Status::unanswered) {
        m_state = State::refused;
        m_error =
            tr("The desktop's prompt for keyboard access was not answered; ") + askAgainHint();
    } else {
        m_state = State::idle;
        m_startAgain = QDeadlineTimer(std::chrono::seconds(30));
        m_error = tr("The desktop did not grant keyboard access: %1").arg(response.error);
    }
    qCWarning(lcWayland).noquote() << m_error;
    emit readyChanged(false);
}

void PortalKeyInjector::onClosedByDesktop()
{
    endSession();
    // The user may have stopped it from the desktop's own indicator: starting it again at once
    // would undo that, or put the prompt straight back up.
    m_state = State::refused;
    m_error = tr("The desktop ended keyboard access; ") + askAgainHint();
    qCWarning(lcWayland).noquote() << m_error;
    emit readyChanged(false);
}

void PortalKeyInjector::endSession()
{
    if (m_request)
        m_request->abandon();
    if (m_session) {
        m_session->close();
        m_session->disconnect(this);
        m_session->deleteLater();
        m_session = nullptr;
    }
}

QString PortalKeyInjector::storedToken() const
{
    return m_settings->stringValue(QLatin1String(restoreTokenKey));
}

} // namespace vocari
