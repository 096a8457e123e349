#include "platform/wayland/PortalKeyInjector.h"

#include "platform/wayland/PortalRequest.h"
#include "platform/wayland/PortalSession.h"
#include "settings/SettingsStore.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QTimer>

namespace vocari {

namespace {

const QString remoteDesktopInterface = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
constexpr uint keyboardDevice = 1;
// The desktop keeps the grant until the user revokes it.
constexpr uint persistUntilRevoked = 2;
// The desktop answers a key at once; one that takes longer has lost it.
constexpr int kSendTimeoutMs = 3000;

} // namespace

PortalKeyInjector::PortalKeyInjector(const QDBusConnection &bus, SettingsStore *settings,
                                     QObject *parent)
    : QObject(parent), m_bus(bus), m_settings(settings ? settings : &SettingsStore::shared()),
      m_timeout(PortalRequest::defaultTimeout)
{
}

PortalKeyInjector::~PortalKeyInjector()
{
    // Keys still down go up; nobody is told, as the senders go too.
    abandonQueue(tr("the program is ending"), false);
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

bool PortalKeyInjector::send(const std::vector<KeysymEvent> &events, SendFailed failed)
{
    if (m_state != State::started || !m_session)
        return false;
    if (events.empty())
        return true;
    m_queue.push_back({events, 0, std::move(failed)});
    if (!m_inFlight)
        sendNext();
    return true;
}

bool PortalKeyInjector::canType(std::uint32_t keysym) const
{
    if (m_layoutHas) {
        if (const std::optional<bool> has = m_layoutHas(keysym))
            return *has;
    }
    // Without the desktop's layout at hand, only what every Latin layout has is typed: printable
    // ASCII (some layouts need AltGr, which the desktop adds) and the function keys.
    return (keysym >= 0x20 && keysym <= 0x7e) || (keysym >= 0xff00 && keysym <= 0xffff);
}

QDBusMessage PortalKeyInjector::callFor(const KeysymEvent &event) const
{
    const bool byCode = event.keycode != 0;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QLatin1String(Portal::service), QLatin1String(Portal::path), remoteDesktopInterface,
        byCode ? QStringLiteral("NotifyKeyboardKeycode") : QStringLiteral("NotifyKeyboardKeysym"));
    call.setArguments({QVariant::fromValue(QDBusObjectPath(m_session->handle())), QVariantMap(),
                       int(byCode ? event.keycode : event.keysym), uint(event.pressed ? 1 : 0)});
    return call;
}

void PortalKeyInjector::sendNext()
{
    while (!m_queue.empty() && m_queue.front().next >= m_queue.front().events.size())
        m_queue.pop_front();
    if (m_queue.empty() || !m_session)
        return;
    const KeysymEvent event = m_queue.front().events[m_queue.front().next++];
    m_inFlight = true;
    auto *watcher =
        new QDBusPendingCallWatcher(m_bus.asyncCall(callFor(event), kSendTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, event, generation = m_generation](QDBusPendingCallWatcher *call) {
                call->deleteLater();
                if (generation == m_generation) {
                    onSent(event, call->reply());
                } else if (event.pressed && m_session) {
                    // A press that was on its way when the queue was dropped may have gone
                    // through; letting go of a key that is up does nothing.
                    KeysymEvent release = event;
                    release.pressed = false;
                    m_bus.send(callFor(release));
                }
            });
}

void PortalKeyInjector::onSent(const KeysymEvent &event, const QDBusMessage &reply)
{
    m_inFlight = false;
    if (reply.type() != QDBusMessage::ReplyMessage) {
        // A press whose answer never came may still have gone down: it is let go with the rest.
        if (event.pressed)
            m_down.push_back(event);
        abandonQueue(reply.errorMessage());
        return;
    }
    if (event.pressed) {
        m_down.push_back(event);
    } else {
        std::erase_if(m_down, [&](const KeysymEvent &down) {
            return down.keysym == event.keysym && down.keycode == event.keycode;
        });
    }
    if (m_pacing.count() > 0)
        QTimer::singleShot(m_pacing, this, [this] {
            if (!m_inFlight)
                sendNext();
        });
    else
        sendNext();
}

void PortalKeyInjector::abandonQueue(const QString &why, bool tellSenders)
{
    if (m_queue.empty() && m_down.empty() && !m_inFlight)
        return;
    qCWarning(lcWayland).noquote()
        << "The desktop did not take a key; the rest is not typed:" << why;
    std::vector<SendFailed> told;
    for (Batch &batch : m_queue)
        if (batch.failed)
            told.push_back(std::move(batch.failed));
    m_queue.clear();
    // Every key that went down goes up again, whatever became of the others: a key left down
    // repeats in the user's window.
    if (m_session) {
        for (auto key = m_down.rbegin(); key != m_down.rend(); ++key) {
            KeysymEvent release = *key;
            release.pressed = false;
            m_bus.send(callFor(release));
        }
    }
    m_down.clear();
    m_inFlight = false;
    ++m_generation;
    if (tellSenders)
        for (const SendFailed &failed : told)
            failed();
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
    if (token.isEmpty() && !m_saidNoLastingGrant) {
        // GNOME before 44 keeps no grant: its dialog comes back at every start.
        qCInfo(lcWayland, "This desktop keeps no lasting keyboard grant, so it asks for keyboard "
                          "access at every start of Vocari.");
        m_saidNoLastingGrant = true;
    }
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
    abandonQueue(tr("the desktop's keyboard session ended"));
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
