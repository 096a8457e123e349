#pragma once

#include "platform/wayland/KeyInjector.h"

#include <QDBusConnection>
#include <QDeadlineTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <chrono>

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
    // One NotifyKeyboardKeysym call per event, all on one connection, so they keep their
    // order; the calls are not waited for. False when the session has not started.
    bool send(const std::vector<KeysymEvent> &events) override;

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
};

} // namespace vocari
