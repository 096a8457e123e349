#pragma once

#include "platform/wayland/KeyInjector.h"

#include <QDBusConnection>
#include <QDeadlineTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <chrono>
#include <deque>
#include <functional>
#include <optional>

namespace vocari {

class PortalRequest;
class PortalSession;
class SettingsStore;
struct PortalResponse;

// Sends keys through the desktop's remote-desktop portal, asking for a keyboard alone. The
// desktop asks the user once; the restore token it hands back is stored in the settings and
// offered at the next start, so that a later run of the program, or a session the desktop
// ended, gets the keyboard again without a dialog while the desktop honours the token.
//
// The first ready() starts the session and answers false until the desktop has granted it. A
// refusal is kept: ready() stays false, without asking again, until askAgain().
class PortalKeyInjector final : public QObject, public KeyInjector
{
    Q_OBJECT
public:
    // The settings key that holds the restore token.
    static constexpr auto restoreTokenKey = "portal.restoreToken";

    // Uses the shared settings store unless given another.
    explicit PortalKeyInjector(const QDBusConnection &bus = QDBusConnection::sessionBus(),
                               SettingsStore *settings = nullptr, QObject *parent = nullptr);
    ~PortalKeyInjector() override;

    QString name() const override;
    bool ready() override;
    QString errorString() const override { return m_error; }
    // One NotifyKeyboardKeysym (or NotifyKeyboardKeycode) call per event, each sent only once
    // the desktop has answered the one before: a compositor that gets a release before its
    // press ignores the press and leaves the key repeating. The events are queued and go out
    // after this returns; false when the session has not started.
    using KeyInjector::send;
    bool send(const std::vector<KeysymEvent> &events, SendFailed failed) override;
    bool canType(std::uint32_t keysym) const override;
    // Whether the desktop's keyboard layout has a key for a keysym, or none while the layout is
    // unknown; then printable ASCII and the function keys count as typeable. The desktop drops
    // the others without an error.
    using LayoutLookup = std::function<std::optional<bool>(std::uint32_t)>;
    void setLayoutKeysyms(LayoutLookup hasKey) { m_layoutHas = std::move(hasKey); }
    // A pause between events, for a compositor that needs one; none by default.
    void setPacing(std::chrono::milliseconds pause) { m_pacing = pause; }
    // Whether events are still waiting to go out or for their answer.
    bool sending() const { return m_inFlight || !m_queue.empty(); }

    bool declined() const override { return m_state == State::refused; }
    // Forgets a refusal; the next ready() asks the desktop again.
    void askAgain() override;
    // Whether the desktop's answer is awaited.
    bool isStarting() const { return m_state == State::starting; }
    // How long the portal may take over each answer, the user's dialog included.
    void setTimeout(std::chrono::milliseconds timeout) { m_timeout = timeout; }

signals:
    // The session started, or it ended (refused, failed or closed by the desktop).
    void readyChanged(bool ready);

private:
    static QString askAgainHint();
    enum class State
    {
        idle,
        starting,
        started,
        refused
    };

    void start();
    void onCreated(const PortalResponse &response);
    void onDevicesSelected(const PortalResponse &response);
    void onStarted(const PortalResponse &response);
    // Ends the attempt after an answer other than success.
    void fail(const PortalResponse &response);
    void onClosedByDesktop();
    void endSession();
    QString storedToken() const;
    void sendNext();
    void onSent(const KeysymEvent &event, const QDBusMessage &reply);
    QDBusMessage callFor(const KeysymEvent &event) const;
    // Drops what is queued, lets go of every key still down and tells the senders.
    void abandonQueue(const QString &why, bool tellSenders = true);

    struct Batch
    {
        std::vector<KeysymEvent> events;
        std::size_t next = 0;
        SendFailed failed;
    };

    QDBusConnection m_bus;
    SettingsStore *m_settings;
    std::chrono::milliseconds m_timeout;
    State m_state = State::idle;
    // A start that failed for another reason than a refusal is not tried again before this, as
    // ready() is asked every few seconds.
    QDeadlineTimer m_startAgain;
    QString m_error;
    QPointer<PortalRequest> m_request;
    PortalSession *m_session = nullptr;
    bool m_usedToken = false; // this attempt offered a stored restore token
    bool m_saidNoLastingGrant = false;

    std::deque<Batch> m_queue;
    bool m_inFlight = false;
    unsigned m_generation = 0; // answers to calls from before the last abandonQueue() are stale
    std::vector<KeysymEvent> m_down; // presses sent whose release has not been
    std::chrono::milliseconds m_pacing{0};
    LayoutLookup m_layoutHas;
};

} // namespace vocari
