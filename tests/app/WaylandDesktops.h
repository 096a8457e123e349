#pragma once

// Real Wayland desktops started headless for the end-to-end tests, each from Debian's own
// packages and with its default configuration: KDE Plasma's compositor with its portals, sway,
// and GNOME Shell with its portals. Each runs on a private runtime folder, home and session bus
// (GNOME also on a private, empty system bus), so nothing of the machine's own session is seen
// or touched. A desktop that does not come up says why in skipReason.

#include "platform/audio/ChildProcess.h"
#include "support/EventLoop.h"

#include <QDBusConnection>
#include <QMap>
#include <QString>
#include <QTemporaryDir>
#include <memory>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace vocari::test {

class WaylandDesktop
{
public:
    virtual ~WaylandDesktop();
    WaylandDesktop(const WaylandDesktop &) = delete;
    WaylandDesktop &operator=(const WaylandDesktop &) = delete;

    // Empty once the desktop is up.
    QString skipReason;

    // What a program of the user's starts with in this session: the runtime folder, the
    // compositor's socket, XWayland's display where there is one, the bus, the desktop's name.
    // A null value means the variable is unset.
    QMap<QString, QString> sessionEnvironment() const;
    // This test program's connection to the session bus.
    QDBusConnection bus() const;
    QString busAddress() const { return m_busAddress; }
    // What a program of the desktop's wrote to its log, by the name it was started under.
    QString log(const QString &name) const;
    QString path(const QString &name) const { return m_root.filePath(name); }

protected:
    WaylandDesktop();
    // Starts one program of the desktop with the session's variables and `extra` ones, its
    // output in a log of that name. False, with skipReason set, when it cannot start.
    bool launch(const QString &name, const QString &program, const QStringList &arguments,
                const QMap<QString, QString> &extra = {});
    bool startBus();
    // Waits until a program owns the name on the session bus; sets skipReason when none does.
    bool waitForBusName(const QString &name, std::chrono::milliseconds limit);
    bool fail(const QString &reason);
    ChildProcess *process(const QString &name) const;
    // The X display (":N") of an XWayland server started by the process, or by a compositor
    // that runs in that runtime folder.
    static QString xwaylandDisplayOf(pid_t compositor, const QString &runtime = {});

    QTemporaryDir m_root;
    QString m_runtime; // XDG_RUNTIME_DIR of the user's programs
    QString m_waylandDisplay;
    QString m_xDisplay;
    QString m_busAddress;
    QString m_connectionName;
    QMap<QString, QString> m_variables; // what the desktop itself adds to the session
    std::vector<std::pair<QString, std::unique_ptr<ChildProcess>>> m_processes;
};

// KDE Plasma 5.27: kwin_wayland with XWayland on a virtual output, xdg-desktop-portal with the
// KDE portal. xdg-open and kde-open5 are stand-ins on the portal's path that write down what
// they were asked to open, so that a test sees any window the desktop would have opened.
class KwinDesktop final : public WaylandDesktop
{
public:
    static KwinDesktop &get();
    // Every address the desktop asked to open, one per line.
    QString openedAddresses() const;

private:
    KwinDesktop();
};

// sway 1.7 on wlroots' headless backend with XWayland, as an unprivileged user (sway refuses
// root). It has no portals: the test session bus is empty.
class SwayDesktop final : public WaylandDesktop
{
public:
    static SwayDesktop &get();

private:
    SwayDesktop();
};

// GNOME Shell 43 headless on a virtual monitor, in unsafe mode so that the test may drive the
// shell through its Eval method as a user would drive it by hand, with xdg-desktop-portal and the
// GNOME portal. The headless seat has no keyboard: a virtual one is made through the shell, so
// that windows get the keyboard focus.
class GnomeDesktop final : public WaylandDesktop
{
public:
    static GnomeDesktop &get();
    // Runs JavaScript in the shell; its result as the shell gives it, or none.
    std::optional<QString> eval(const QString &script) const;
    // Answers the portal's dialog that asks whether a program may control the keyboard, as
    // a user would: turns on remote interaction and shares. False when no dialog shows.
    bool approveRemoteDesktop(std::chrono::milliseconds limit) const;

private:
    GnomeDesktop();
    std::unique_ptr<ChildProcess> m_systemBus;
};

} // namespace vocari::test
