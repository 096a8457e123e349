#pragma once

#include "app/ControlCommand.h"

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <functional>

namespace vocari {

// The name, object and interface a running Vocari answers on, on the session bus.
inline constexpr QLatin1String instanceServiceName("io.github.vocari.Vocari");
inline constexpr QLatin1String instanceObjectPath("/io/github/vocari/Vocari");
inline constexpr QLatin1String instanceInterfaceName("io.github.vocari.Vocari");

// The application's presence on the session bus: while it owns the service name, no other
// Vocari starts, and the commands sent to it (ShowSettings, Toggle, Start, Stop, Cancel, Quit)
// reach the handler. The name goes back to the bus when this object is destroyed or the
// process ends, however it ends.
class InstanceBus : public QObject
{
    Q_OBJECT

public:
    enum class Claim
    {
        owned,
        alreadyRunning,
        noBus
    };

    explicit InstanceBus(QDBusConnection bus = QDBusConnection::sessionBus(),
                         QObject *parent = nullptr);
    ~InstanceBus() override;

    // Exports the control object, then asks for the name without queueing and without taking it
    // over, so of two starts at the same moment exactly one owns it. alreadyRunning when another
    // process holds the name; noBus when the session bus cannot be used (errorString() says why,
    // in one line). The handler runs on this object's thread, the main thread, and each call is
    // answered once it has returned; it must not destroy this object.
    Claim claim(std::function<void(ControlCommand)> handler);

    QString errorString() const { return m_error; }

private:
    friend class ControlAdaptor;
    void release();

    QDBusConnection m_bus;
    std::function<void(ControlCommand)> m_handler;
    QString m_error;
    bool m_exported = false;
    bool m_owned = false;
};

// Sends one command to the running instance and waits for its answer, a few seconds at most,
// without running the event loop. Empty when the instance has handled it, otherwise one line
// for the user: "Vocari is not running." or "No session bus: cannot reach a running Vocari
// (...)." for instance.
QString sendControlCommand(ControlCommand command,
                           QDBusConnection bus = QDBusConnection::sessionBus());

} // namespace vocari
