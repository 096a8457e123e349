#include "app/InstanceBus.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QLoggingCategory>

namespace vocari {

namespace {

// Debug lines only: the caller reports the outcome of a claim or a command to the user.
Q_LOGGING_CATEGORY(lcInstance, "vocari.app", QtInfoMsg)

// Long enough for a busy main thread to get round to the call, short enough that a shortcut
// bound to "vocari toggle" does not seem to hang.
constexpr int answerTimeoutMs = 5000;

// D-Bus error texts can span lines; the user gets one.
QString oneLine(QString text)
{
    return text.replace(QLatin1Char('\n'), QLatin1Char(' ')).trimmed();
}

QString busProblem(const QDBusConnection &bus)
{
    const QString message = oneLine(bus.lastError().message());
    return message.isEmpty() ? QStringLiteral("not connected") : message;
}

} // namespace

// The exported interface. QtDBus answers each call once the slot has returned, so a caller
// knows its command has been handled.
class ControlAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "io.github.vocari.Vocari")

public:
    explicit ControlAdaptor(InstanceBus *owner) : QDBusAbstractAdaptor(owner), m_owner(owner) {}

public slots:
    void ShowSettings() { deliver(ControlCommand::showSettings); }
    void Toggle() { deliver(ControlCommand::toggle); }
    void Start() { deliver(ControlCommand::start); }
    void Stop() { deliver(ControlCommand::stop); }
    void Cancel() { deliver(ControlCommand::cancel); }
    void Quit() { deliver(ControlCommand::quit); }

private:
    void deliver(ControlCommand command)
    {
        qCDebug(lcInstance) << "control command" << methodName(command);
        if (m_owner->m_handler)
            m_owner->m_handler(command);
    }

    InstanceBus *m_owner;
};

InstanceBus::InstanceBus(QDBusConnection bus, QObject *parent)
    : QObject(parent), m_bus(std::move(bus))
{
    new ControlAdaptor(this);
}

InstanceBus::~InstanceBus()
{
    release();
}

InstanceBus::Claim InstanceBus::claim(std::function<void(ControlCommand)> handler)
{
    m_handler = std::move(handler);
    if (m_owned)
        return Claim::owned;
    m_error.clear();
    if (!m_bus.isConnected()) {
        m_error = QStringLiteral("No session bus (%1).").arg(busProblem(m_bus));
        qCDebug(lcInstance).noquote() << m_error;
        return Claim::noBus;
    }
    // The object is in place before the name is asked for: a second start that loses the race
    // sends its command the moment the name is ours.
    if (!m_bus.registerObject(instanceObjectPath, this, QDBusConnection::ExportAdaptors)) {
        m_error = QStringLiteral("Cannot export %1 on the session bus.").arg(instanceObjectPath);
        qCDebug(lcInstance).noquote() << m_error;
        return Claim::noBus;
    }
    m_exported = true;

    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        m_bus.interface()->registerService(instanceServiceName,
                                           QDBusConnectionInterface::DontQueueService,
                                           QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid()) {
        m_error = QStringLiteral("Cannot own %1 on the session bus (%2).")
                      .arg(instanceServiceName, oneLine(reply.error().message()));
        qCDebug(lcInstance).noquote() << m_error;
        release();
        return Claim::noBus;
    }
    if (reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        qCDebug(lcInstance) << "another instance owns" << instanceServiceName;
        release();
        return Claim::alreadyRunning;
    }
    m_owned = true;
    qCDebug(lcInstance) << "owns" << instanceServiceName;
    return Claim::owned;
}

void InstanceBus::release()
{
    // A connection that has gone away has taken the name with it.
    if (m_owned && m_bus.isConnected())
        m_bus.interface()->unregisterService(instanceServiceName);
    if (m_exported)
        m_bus.unregisterObject(instanceObjectPath);
    m_owned = false;
    m_exported = false;
}

QString sendControlCommand(ControlCommand command, QDBusConnection bus)
{
    if (!bus.isConnected()) {
        return QStringLiteral("No session bus: cannot reach a running Vocari (%1).")
            .arg(busProblem(bus));
    }
    QDBusMessage call = QDBusMessage::createMethodCall(instanceServiceName, instanceObjectPath,
                                                       instanceInterfaceName, methodName(command));
    // Nothing is to be started for the name: only a Vocari already running counts.
    call.setAutoStartService(false);

    QElapsedTimer clock;
    clock.start();
    const QDBusMessage answer = bus.call(call, QDBus::Block, answerTimeoutMs);
    if (answer.type() == QDBusMessage::ReplyMessage)
        return {};

    const QDBusError error(answer);
    // Without auto-start the bus answers NameHasNoOwner, which QDBusError has no type for.
    if (error.type() == QDBusError::ServiceUnknown ||
        error.name() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
        return QStringLiteral("Vocari is not running.");
    if (error.type() == QDBusError::NoReply || error.type() == QDBusError::Timeout) {
        if (clock.elapsed() >= answerTimeoutMs)
            return QStringLiteral("Vocari is running but did not answer within %1 seconds.")
                .arg(answerTimeoutMs / 1000);
        // Before the time limit, no reply means the instance left the bus while handling the
        // call, which is what quitting does.
        if (command == ControlCommand::quit)
            return {};
        return QStringLiteral("Vocari ended before it answered.");
    }
    return QStringLiteral("Vocari did not accept the command (%1).").arg(oneLine(error.message()));
}

} // namespace vocari

#include "InstanceBus.moc"
