#pragma once

#include "hotkey/HotkeyMonitor.h"
#include "platform/wayland/ShortcutSession.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDeadlineTimer>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <chrono>
#include <optional>

namespace vocari {

// The dictation key on a Wayland desktop, where no program sees the keyboard of another: the
// key is registered with the desktop's global-shortcuts portal as the shortcut "dictate", and
// the portal's activations come back as key events. A modifier key used alone arrives as
// observed presses and releases of that key, any other key as grabbed ones with its
// modifiers, so the monitor's hold and toggle rules apply unchanged.
//
// The desktop may ask the user before it binds anything, so binding finishes after open()
// returns; until then the source counts as open. A refusal closes the source and is kept:
// open() then fails at once, without asking again, until retry(). Escape is bound as a second
// shortcut, "cancel", in a session of its own that exists only while the Escape grab is held,
// so that Escape belongs to other programs the rest of the time. Both sessions keep one token
// for good, and the desktop is asked to bind (which may open its settings) at most once a run.
class PortalShortcutSource final : public QObject, public KeyEventSource
{
    Q_OBJECT
public:
    explicit PortalShortcutSource(const QDBusConnection &bus = QDBusConnection::sessionBus(),
                                  QObject *parent = nullptr);
    ~PortalShortcutSource() override;

    // What errorString() says when the desktop has no global-shortcuts portal.
    static QString noShortcutsMessage();

    void watchHotkey(const Hotkey &hotkey) override;
    bool open(Sink sink) override;
    void close() override;
    bool isOpen() const override;
    // Only the dictation shortcut and Escape can be had; any other grab is refused.
    std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &grabs) override;
    QString errorString() const override { return m_error; }

    // How the desktop describes the trigger it bound the dictation shortcut to, for the
    // settings to show; empty until it has said.
    QString triggerDescription() const override { return m_trigger; }
    // What is wrong with what the desktop bound (nothing, or another key), with the keys it
    // can bind; empty while all is well.
    QString bindingWarning() const override { return m_bindingWarning; }
    bool bindsModifierAlone() const override { return false; }
    // The id of the dictation shortcut for a trigger: "dictate_ctrl_alt_space".
    static QString dictationShortcutId(const QString &trigger);
    // The warning for `hotkey` once the desktop has bound `trigger` to it.
    static QString bindingWarning(const Hotkey &hotkey, const QString &trigger);
    bool declined() const override { return !m_refusal.isEmpty(); }
    void askAgain() override { retry(); }
    // Forgets refusals and failures, of the dictation shortcut and of Escape, so that the next
    // open() asks the desktop again.
    void retry();
    // How long the portal may take over each answer, the user's dialogs included.
    void setTimeout(std::chrono::milliseconds timeout) { m_timeout = timeout; }

signals:
    void triggerDescriptionChanged(const QString &description);
    // The shortcut could not be bound after open() had returned, or the desktop took it away;
    // the source is closed and errorString() says why.
    void failed();

private:
    enum class Availability
    {
        unknown,
        present,
        absent
    };

    // Asks whether the portal is there, unless known; false when it is known to be missing or
    // did not answer lately.
    bool lookForPortal();
    void onPortalLooked(const QDBusMessage &reply);
    void bindDictation();
    void onDictationEnded(bool refused, const QString &error);
    void onTriggersChanged();
    ShortcutSession::Binding bindingFor(const QString &token, const QString &id) const;
    void checkBinding();
    void dropDictation();
    void bindCancel();
    void onCancelEnded(bool refused, const QString &error);
    void dropCancel();
    void deliver(const KeyEvent &event);

    QDBusConnection m_bus;
    std::chrono::milliseconds m_timeout;
    Hotkey m_hotkey;
    Sink m_sink;
    bool m_open = false;
    QString m_error;

    Availability m_availability = Availability::unknown;
    QDeadlineTimer m_lookAgain; // when an unanswered look for the portal may be repeated
    bool m_looking = false;     // the portal was asked and has not answered yet

    ShortcutSession *m_dictation = nullptr;
    Hotkey m_boundHotkey;        // the key m_dictation was made for
    QString m_dictationId;       // its shortcut's id
    QTimer m_release;            // ends the session a close() left unless open() follows
    QString m_refusal;           // why the desktop turned the shortcut down; kept until retry()
    QDeadlineTimer m_failedHold; // a failed binding is not tried again before this
    QString m_trigger;
    QString m_bindingWarning;
    QSet<QString> m_bound; // "token/id" of each shortcut bound once in this run

    ShortcutSession *m_cancel = nullptr;
    QString m_cancelProblem; // why Escape cannot be bound; kept until retry()
};

} // namespace vocari
