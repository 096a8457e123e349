#include "platform/wayland/PortalShortcutSource.h"

#include "platform/wayland/PortalRequest.h"
#include "platform/wayland/ShortcutSession.h"
#include "platform/wayland/ShortcutTrigger.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QRegularExpression>
#include <QSet>

using namespace std::chrono_literals;

namespace vocari {

namespace {

const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString cancelId = QStringLiteral("cancel");
// The sessions' tokens, the same in every run: desktops file the shortcuts under them, so a
// fresh token each run would leave a stale entry holding the key.
const QString dictateToken = QStringLiteral("vocari");
const QString cancelToken = QStringLiteral("vocari_cancel");

// How long the portal may take to say whether it is there at all (it may be starting).
constexpr int lookTimeoutMs = 5000;
// A portal that did not answer, or a binding that failed, is not tried again sooner.
constexpr auto holdAfterFailure = 30s;

PortalShortcut shortcut(const QString &id, const QString &description, const QString &trigger)
{
    QVariantMap properties{{QStringLiteral("description"), description}};
    if (!trigger.isEmpty())
        properties.insert(QStringLiteral("preferred_trigger"), trigger);
    return {id, properties};
}

// Errors that mean the portal, or its global-shortcuts interface, is not there.
bool meansAbsent(const QString &errorName)
{
    static const QSet<QString> names{
        QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown"),
        QStringLiteral("org.freedesktop.DBus.Error.NameHasNoOwner"),
        QStringLiteral("org.freedesktop.DBus.Error.UnknownObject"),
        QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface"),
        QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty"),
        QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
        QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
    };
    return names.contains(errorName);
}

} // namespace

PortalShortcutSource::PortalShortcutSource(const QDBusConnection &bus, QObject *parent)
    : QObject(parent), m_bus(bus), m_timeout(PortalRequest::defaultTimeout)
{
    // close() and open() come in pairs when the monitor restarts: the session outlives the
    // close() until the event loop runs again, so that the open() can take it back.
    m_release.setSingleShot(true);
    m_release.setInterval(0);
    connect(&m_release, &QTimer::timeout, this, [this] { dropDictation(); });
}

PortalShortcutSource::~PortalShortcutSource() = default;

QString PortalShortcutSource::noShortcutsMessage()
{
    return QStringLiteral("This desktop offers programs no global shortcuts: bind “vocari "
                          "toggle” to a key in its keyboard settings.");
}

void PortalShortcutSource::watchHotkey(const Hotkey &hotkey)
{
    m_hotkey = hotkey;
}

bool PortalShortcutSource::open(Sink sink)
{
    m_release.stop();
    if (!m_refusal.isEmpty()) {
        m_error = m_refusal;
        return false;
    }
    if (m_availability != Availability::present) {
        if (!lookForPortal())
            return false;
        // Open while the portal is asked; binding follows its answer.
        m_sink = std::move(sink);
        m_open = true;
        m_error.clear();
        return true;
    }
    if (m_dictation && !(m_boundHotkey == m_hotkey))
        dropDictation();
    if (!m_dictation) {
        // m_error still says why the last binding failed.
        if (!m_failedHold.hasExpired())
            return false;
        bindDictation();
    }
    m_sink = std::move(sink);
    m_open = true;
    m_error.clear();
    return true;
}

void PortalShortcutSource::close()
{
    m_open = false;
    m_sink = nullptr;
    dropCancel();
    if (m_dictation)
        m_release.start();
}

bool PortalShortcutSource::isOpen() const
{
    return m_open && (m_dictation || m_looking);
}

std::vector<GrabFailure> PortalShortcutSource::setGrabs(const std::vector<KeyGrab> &grabs)
{
    std::vector<GrabFailure> failures;
    bool escape = false;
    // While the portal is still being asked, the key is the one about to be bound.
    const Hotkey &key = m_dictation ? m_boundHotkey : m_hotkey;
    for (const KeyGrab &grab : grabs) {
        const bool dictationKey = !key.modifierOnly && !grab.anyModifiers &&
                                  grab.keyCode == key.keyCode &&
                                  grab.modifiers == (key.modifiers & Modifier::mask);
        if (grab.keyCode == KeyCode::escape) {
            escape = true;
            if (!m_cancelProblem.isEmpty())
                failures.push_back({grab, GrabFailure::Reason::refused});
        } else if (!dictationKey) {
            failures.push_back({grab, GrabFailure::Reason::refused});
        }
    }
    if (escape && m_cancelProblem.isEmpty() && isOpen())
        bindCancel();
    else if (!escape)
        dropCancel();
    return failures;
}

void PortalShortcutSource::retry()
{
    m_refusal.clear();
    m_failedHold = QDeadlineTimer();
    m_cancelProblem.clear();
    if (m_availability != Availability::present)
        m_availability = Availability::unknown;
    m_lookAgain = QDeadlineTimer();
}

bool PortalShortcutSource::lookForPortal()
{
    if (m_availability == Availability::absent) {
        m_error = noShortcutsMessage();
        return false;
    }
    if (m_looking)
        return true;
    // m_error still says why the last look went unanswered.
    if (!m_lookAgain.hasExpired())
        return false;

    // Asked once and kept: a portal does not gain or lose interfaces while it runs. The portal
    // service may be started by this very call, which can take seconds: nothing waits for it.
    QDBusMessage get = QDBusMessage::createMethodCall(
        QLatin1String(Portal::service), QLatin1String(Portal::path),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get.setArguments({shortcutsInterface, QStringLiteral("version")});
    m_looking = true;
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(get, lookTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher *call) {
                call->deleteLater();
                m_looking = false;
                onPortalLooked(call->reply());
            });
    return true;
}

void PortalShortcutSource::onPortalLooked(const QDBusMessage &reply)
{
    if (reply.type() == QDBusMessage::ReplyMessage) {
        const uint version = reply.arguments().value(0).value<QDBusVariant>().variant().toUInt();
        qCInfo(lcWayland, "dictation key: the desktop's global shortcuts (portal version %u)",
               version);
        m_availability = Availability::present;
        if (m_open && !m_dictation)
            bindDictation();
        return;
    }
    if (meansAbsent(reply.errorName())) {
        qCInfo(lcWayland).noquote()
            << "dictation key: none from the desktop:" << reply.errorMessage();
        qCWarning(lcWayland).noquote() << noShortcutsMessage();
        m_availability = Availability::absent;
        m_error = noShortcutsMessage();
    } else {
        m_error = tr("The desktop portal did not answer: %1").arg(reply.errorMessage());
        qCWarning(lcWayland).noquote() << m_error;
        m_lookAgain = QDeadlineTimer(holdAfterFailure);
    }
    const bool wasOpen = m_open;
    m_open = false;
    m_sink = nullptr;
    if (wasOpen)
        emit failed();
}

void PortalShortcutSource::bindDictation()
{
    // A modifier key alone is no trigger a desktop takes: it would bind a garbled key.
    const QString trigger = m_hotkey.modifierOnly ? QString() : shortcutTrigger(m_hotkey);
    qCInfo(lcWayland).noquote() << "asking the desktop for the dictation shortcut"
                                << (trigger.isEmpty() ? m_hotkey.label() : trigger);
    m_boundHotkey = m_hotkey;
    m_bindingWarning.clear();
    // A desktop keeps the key it first bound to a shortcut, whatever is preferred later: a key
    // of the user's choosing in Vocari gets a shortcut of its own.
    m_dictationId = dictationShortcutId(trigger);
    m_dictation = new ShortcutSession(m_bus, dictateToken,
                                      {shortcut(m_dictationId, tr("Dictate with Vocari"), trigger)},
                                      bindingFor(dictateToken, m_dictationId), m_timeout, this);
    connect(m_dictation, &ShortcutSession::ended, this, &PortalShortcutSource::onDictationEnded);
    connect(m_dictation, &ShortcutSession::bound, this, [this] {
        m_bound.insert(dictateToken + u'/' + m_dictationId);
        checkBinding();
    });
    connect(m_dictation, &ShortcutSession::triggersChanged, this,
            &PortalShortcutSource::onTriggersChanged);
    connect(m_dictation, &ShortcutSession::activated, this, [this](const QString &id) {
        if (id != m_dictationId)
            return;
        if (m_boundHotkey.modifierOnly)
            deliver({KeyEvent::Kind::press, KeyEvent::Route::observed, m_boundHotkey.keyCode});
        else
            deliver({KeyEvent::Kind::press, KeyEvent::Route::grabbed, m_boundHotkey.keyCode,
                     m_boundHotkey.modifiers & Modifier::mask});
    });
    connect(m_dictation, &ShortcutSession::deactivated, this, [this](const QString &id) {
        if (id != m_dictationId)
            return;
        deliver({KeyEvent::Kind::release,
                 m_boundHotkey.modifierOnly ? KeyEvent::Route::observed : KeyEvent::Route::grabbed,
                 m_boundHotkey.keyCode});
    });
}

void PortalShortcutSource::onDictationEnded(bool refused, const QString &error)
{
    if (refused) {
        m_refusal = (error.isEmpty() ? tr("The dictation shortcut was declined on the desktop's "
                                          "prompt; ")
                                     : tr("The desktop's prompt for the dictation shortcut was "
                                          "not answered; ")) +
                    tr("choose “Ask Again” under Permissions in Vocari's settings to be asked "
                       "once more.");
        m_error = m_refusal;
    } else {
        m_error = tr("The desktop did not bind the dictation shortcut (%1): bind “vocari "
                     "toggle” to a key in its keyboard settings.")
                      .arg(error);
        m_failedHold = QDeadlineTimer(holdAfterFailure);
    }
    qCWarning(lcWayland).noquote() << m_error;
    const bool wasOpen = m_open;
    m_open = false;
    m_sink = nullptr;
    dropDictation();
    dropCancel();
    if (wasOpen)
        emit failed();
}

void PortalShortcutSource::onTriggersChanged()
{
    const QString trigger =
        m_dictation ? m_dictation->triggerDescription(m_dictationId) : QString();
    if (trigger == m_trigger)
        return;
    m_trigger = trigger;
    qCInfo(lcWayland).noquote() << "the desktop binds dictation to" << trigger;
    if (m_dictation && m_dictation->state() == ShortcutSession::State::bound)
        checkBinding();
    emit triggerDescriptionChanged(trigger);
}

QString PortalShortcutSource::dictationShortcutId(const QString &trigger)
{
    QString id = QStringLiteral("dictate");
    if (!trigger.isEmpty())
        id += u'_' + trigger.toLower().replace(QRegularExpression(QStringLiteral("[^a-z0-9]+")),
                                               QStringLiteral("_"));
    return id;
}

ShortcutSession::Binding PortalShortcutSource::bindingFor(const QString &token,
                                                          const QString &id) const
{
    // Asking a desktop to bind what it did not bind at once may open its shortcut settings;
    // once in a run for each shortcut is enough.
    return m_bound.contains(token + u'/' + id) ? ShortcutSession::Binding::listedOnly
                                               : ShortcutSession::Binding::bindMissing;
}

void PortalShortcutSource::checkBinding()
{
    const QString warning = bindingWarning(m_boundHotkey, m_trigger);
    if (warning == m_bindingWarning)
        return;
    m_bindingWarning = warning;
    if (!warning.isEmpty())
        qCWarning(lcWayland).noquote() << warning;
    emit triggerDescriptionChanged(m_trigger);
}

QString PortalShortcutSource::bindingWarning(const Hotkey &hotkey, const QString &trigger)
{
    const QString bindable =
        tr("Desktops bind a key with a letter, digit or function key, with or without Ctrl, "
           "Alt, Shift or Super; or bind “vocari toggle” to a key in the desktop's keyboard "
           "settings.");
    if (hotkey.modifierOnly)
        return tr("The desktop cannot bind %1 alone as a shortcut. ").arg(hotkey.label()) +
               bindable;
    if (trigger.trimmed().isEmpty())
        return tr("The desktop bound no key to dictation. ") + bindable;
    if (!triggerNamesKey(trigger, hotkey))
        return tr("The desktop starts a dictation with %1, not %2: change it in the desktop's "
                  "shortcut settings, or choose that key in Vocari.")
            .arg(trigger, hotkey.label());
    return {};
}

void PortalShortcutSource::dropDictation()
{
    m_release.stop();
    if (!m_dictation)
        return;
    // Deleted later: this may run inside one of the session's own signals.
    m_dictation->disconnect(this);
    m_dictation->close();
    m_dictation->deleteLater();
    m_dictation = nullptr;
}

void PortalShortcutSource::bindCancel()
{
    if (m_cancel)
        return;
    m_cancel = new ShortcutSession(
        m_bus, cancelToken, {shortcut(cancelId, tr("Cancel dictation"), QStringLiteral("Escape"))},
        bindingFor(cancelToken, cancelId), m_timeout, this);
    connect(m_cancel, &ShortcutSession::ended, this, &PortalShortcutSource::onCancelEnded);
    connect(m_cancel, &ShortcutSession::bound, this,
            [this] { m_bound.insert(cancelToken + u'/' + cancelId); });
    connect(m_cancel, &ShortcutSession::activated, this, [this](const QString &id) {
        if (id == cancelId)
            deliver({KeyEvent::Kind::press, KeyEvent::Route::grabbed, KeyCode::escape});
    });
    connect(m_cancel, &ShortcutSession::deactivated, this, [this](const QString &id) {
        if (id == cancelId)
            deliver({KeyEvent::Kind::release, KeyEvent::Route::grabbed, KeyCode::escape});
    });
}

void PortalShortcutSource::onCancelEnded(bool refused, const QString &error)
{
    // A refusal stands until the user asks again; a failure is tried again at the next
    // dictation.
    const QString problem = refused ? tr("it was declined on the desktop's prompt") : error;
    if (refused)
        m_cancelProblem = problem;
    qCWarning(lcWayland).noquote() << "Escape cannot be bound as a shortcut:" << problem;
    dropCancel();
}

void PortalShortcutSource::dropCancel()
{
    if (!m_cancel)
        return;
    m_cancel->disconnect(this);
    m_cancel->close();
    m_cancel->deleteLater();
    m_cancel = nullptr;
}

void PortalShortcutSource::deliver(const KeyEvent &event)
{
    if (!m_open || !m_sink)
        return;
    // A copy: the sink may close the source while it runs.
    const Sink sink = m_sink;
    sink(event);
}

} // namespace vocari
