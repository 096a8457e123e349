#include "WaylandDesktops.h"

#include "support/PrivateBus.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace vocari::test {

namespace {

// The unprivileged user and group sway runs as: nobody, which every Debian system has.
constexpr uid_t nobody = 65534;

QString readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool writeExecutable(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(content);
    file.close();
    return file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                               QFile::ReadOther | QFile::ExeOther);
}

} // namespace

WaylandDesktop::WaylandDesktop()
{
    // The root is entered by sway's unprivileged user; what lies in it keeps its own modes.
    ::chmod(QFile::encodeName(m_root.path()).constData(), 0755);
    m_runtime = m_root.filePath(QStringLiteral("runtime"));
    QDir().mkpath(m_runtime);
    ::chmod(QFile::encodeName(m_runtime).constData(), 0700);
    for (const char *folder : {"home", "config", "data"})
        QDir().mkpath(m_root.filePath(QLatin1String(folder)));
    // XWayland listens in the usual folder of X sockets, which only an X server makes.
    if (QDir().mkpath(QStringLiteral("/tmp/.X11-unix")))
        ::chmod("/tmp/.X11-unix", 01777);
}

WaylandDesktop::~WaylandDesktop()
{
    // The user's programs first, the compositor and the bus last.
    for (auto process = m_processes.rbegin(); process != m_processes.rend(); ++process)
        process->second->terminate();
    if (!m_connectionName.isEmpty())
        QDBusConnection::disconnectFromBus(m_connectionName);
}

QMap<QString, QString> WaylandDesktop::sessionEnvironment() const
{
    QMap<QString, QString> environment = m_variables;
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_runtime);
    environment.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
    environment.insert(QStringLiteral("WAYLAND_DISPLAY"), m_waylandDisplay);
    environment.insert(QStringLiteral("DISPLAY"), m_xDisplay.isEmpty() ? QString() : m_xDisplay);
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_busAddress);
    environment.insert(QStringLiteral("HOME"), m_root.filePath(QStringLiteral("home")));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"),
                       m_root.filePath(QStringLiteral("config")));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), m_root.filePath(QStringLiteral("data")));
    environment.insert(QStringLiteral("NO_AT_BRIDGE"), QStringLiteral("1"));
    return environment;
}

QDBusConnection WaylandDesktop::bus() const
{
    return QDBusConnection(m_connectionName);
}

QString WaylandDesktop::log(const QString &name) const
{
    return readAll(m_root.filePath(name + QStringLiteral(".log")));
}

bool WaylandDesktop::fail(const QString &reason)
{
    if (skipReason.isEmpty())
        skipReason = reason;
    return false;
}

bool WaylandDesktop::launch(const QString &name, const QString &program,
                            const QStringList &arguments, const QMap<QString, QString> &extra)
{
    ChildProcess::Options options;
    const QMap<QString, QString> session = sessionEnvironment();
    for (auto variable = session.begin(); variable != session.end(); ++variable) {
        if (variable.value().isEmpty())
            options.unsetEnvironment << variable.key();
        else
            options.environment.insert(variable.key(), variable.value());
    }
    for (auto variable = extra.begin(); variable != extra.end(); ++variable) {
        options.unsetEnvironment.removeAll(variable.key());
        if (variable.value().isNull())
            options.unsetEnvironment << variable.key();
        else
            options.environment.insert(variable.key(), variable.value());
    }
    options.unsetEnvironment << QStringLiteral("QT_QPA_PLATFORM");
    options.logFile = m_root.filePath(name + QStringLiteral(".log"));
    QString error;
    std::unique_ptr<ChildProcess> child = ChildProcess::start(program, arguments, options, &error);
    if (!child)
        return fail(QStringLiteral("%1 did not start: %2").arg(program, error));
    m_processes.emplace_back(name, std::move(child));
    return true;
}

ChildProcess *WaylandDesktop::process(const QString &name) const
{
    for (const auto &[known, child] : m_processes)
        if (known == name)
            return child.get();
    return nullptr;
}

bool WaylandDesktop::startBus()
{
    const QString socket = m_runtime + QStringLiteral("/bus");
    m_busAddress = QStringLiteral("unix:path=") + socket;
    if (!launch(QStringLiteral("bus"), QStringLiteral("dbus-daemon"),
                privateBusArguments(m_busAddress)) ||
        !waitUntil([&] { return QFile::exists(socket); }, 10s))
        return fail(QStringLiteral("no session bus"));
    static int connections = 0;
    m_connectionName = QStringLiteral("wayland-desktop-%1").arg(++connections);
    if (!QDBusConnection::connectToBus(m_busAddress, m_connectionName).isConnected())
        return fail(QStringLiteral("the session bus does not take connections"));
    return true;
}

bool WaylandDesktop::waitForBusName(const QString &name, std::chrono::milliseconds limit)
{
    if (waitUntil([&] { return bus().interface()->isServiceRegistered(name).value(); }, limit))
        return true;
    return fail(QStringLiteral("nothing owns %1 on the desktop's bus").arg(name));
}

QString WaylandDesktop::xwaylandDisplayOf(pid_t compositor, const QString &runtime)
{
    // XWayland is the compositor's child, started with the display as its first argument; the
    // XWayland of a compositor that lets go of its children is known by the runtime folder it
    // inherited, which is this desktop's alone (other tests may run other desktops meanwhile).
    const QDir proc(QStringLiteral("/proc"));
    for (const QString &entry : proc.entryList(QDir::Dirs)) {
        bool number = false;
        entry.toInt(&number);
        if (!number)
            continue;
        const QString stat = readAll(proc.filePath(entry + QStringLiteral("/stat")));
        const QStringList fields = stat.mid(stat.lastIndexOf(u')') + 2).split(u' ');
        const bool child = fields.value(1).toInt() == compositor;
        const auto inherited = [&] {
            QFile file(proc.filePath(entry + QStringLiteral("/environ")));
            return file.open(QIODevice::ReadOnly) &&
                   file.readAll().split('\0').contains(
                       "XDG_RUNTIME_DIR=" + QFile::encodeName(runtime));
        };
        if (!child && (runtime.isEmpty() || !inherited()))
            continue;
        const QList<QByteArray> arguments = [&] {
            QFile file(proc.filePath(entry + QStringLiteral("/cmdline")));
            return file.open(QIODevice::ReadOnly) ? file.readAll().split('\0')
                                                  : QList<QByteArray>();
        }();
        if (arguments.value(0).endsWith("Xwayland") && arguments.value(1).startsWith(':'))
            return QString::fromLatin1(arguments.value(1));
    }
    return {};
}

// KDE Plasma ------------------------------------------------------------------------------------

KwinDesktop &KwinDesktop::get()
{
    static KwinDesktop desktop;
    return desktop;
}

KwinDesktop::KwinDesktop()
{
    m_waylandDisplay = QStringLiteral("wayland-kde");
    m_variables = {{QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("KDE")},
                   {QStringLiteral("KDE_FULL_SESSION"), QStringLiteral("true")},
                   {QStringLiteral("KDE_SESSION_VERSION"), QStringLiteral("5")}};
    if (!startBus())
        return;

    // The installed compositor carries a file capability that a container may refuse to run; a
    // plain copy runs. Its built-in platform plugin insists on the program's own name.
    const QString compositor = m_root.filePath(QStringLiteral("bin/kwin_wayland"));
    QDir().mkpath(m_root.filePath(QStringLiteral("bin")));
    if (!QFile::copy(QStringLiteral("/usr/bin/kwin_wayland"), compositor) ||
        !QFile::setPermissions(compositor, QFile::ReadOwner | QFile::ExeOwner)) {
        fail(QStringLiteral("kwin_wayland is not installed"));
        return;
    }
    if (!launch(QStringLiteral("kwin"), compositor,
                {QStringLiteral("--virtual"), QStringLiteral("--xwayland"),
                 QStringLiteral("--socket"), m_waylandDisplay, QStringLiteral("--width"),
                 QStringLiteral("1280"), QStringLiteral("--height"), QStringLiteral("800"),
                 QStringLiteral("--no-lockscreen")},
                {{QStringLiteral("WAYLAND_DISPLAY"), QString()},
                 {QStringLiteral("DISPLAY"), QString()}}))
        return;
    const pid_t kwin = process(QStringLiteral("kwin"))->pid();
    if (!waitUntil(
            [&] {
                m_xDisplay = xwaylandDisplayOf(kwin);
                return QFile::exists(m_runtime + u'/' + m_waylandDisplay) &&
                       !m_xDisplay.isEmpty() &&
                       QFile::exists(QStringLiteral("/tmp/.X11-unix/X") + m_xDisplay.mid(1));
            },
            30s)) {
        fail(QStringLiteral("kwin_wayland did not come up: %1")
                 .arg(log(QStringLiteral("kwin")).right(600)));
        return;
    }
    if (!waitForBusName(QStringLiteral("org.kde.kglobalaccel"), 20s))
        return;

    // What the portal opens goes through these names; each writes the address down instead.
    const QString stubs = m_root.filePath(QStringLiteral("stubs"));
    QDir().mkpath(stubs);
    const QByteArray stub = "#!/bin/sh\necho \"$0 $*\" >> '" +
                            QFile::encodeName(m_root.filePath(QStringLiteral("opened"))) + "'\n";
    for (const char *opener : {"xdg-open", "kde-open5", "kde-open", "kioclient5", "systemsettings"})
        writeExecutable(stubs + u'/' + QLatin1String(opener), stub);
    const QMap<QString, QString> portalEnvironment{
        {QStringLiteral("PATH"), stubs + u':' + qEnvironmentVariable("PATH")},
        // The portal must be a Wayland client of the compositor to send keys.
        {QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland")}};
    if (!launch(QStringLiteral("permission-store"),
                QStringLiteral("/usr/libexec/xdg-permission-store"), {QStringLiteral("--replace")},
                portalEnvironment) ||
        !waitForBusName(QStringLiteral("org.freedesktop.impl.portal.PermissionStore"), 20s))
        return;
    if (!launch(QStringLiteral("portal-kde"),
                QStringLiteral("/usr/lib/x86_64-linux-gnu/libexec/xdg-desktop-portal-kde"), {},
                portalEnvironment) ||
        !waitForBusName(QStringLiteral("org.freedesktop.impl.portal.desktop.kde"), 30s))
        return;
    if (!launch(QStringLiteral("portal"), QStringLiteral("/usr/libexec/xdg-desktop-portal"),
                {QStringLiteral("--verbose")}, portalEnvironment))
        return;
    waitForBusName(QStringLiteral("org.freedesktop.portal.Desktop"), 30s);
}

QString KwinDesktop::openedAddresses() const
{
    return readAll(m_root.filePath(QStringLiteral("opened")));
}

// sway -----------------------------------------------------------------------------------------

SwayDesktop &SwayDesktop::get()
{
    static SwayDesktop desktop;
    return desktop;
}

SwayDesktop::SwayDesktop()
{
    m_variables = {{QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("sway")}};
    if (!startBus())
        return;
    // sway's own runtime folder belongs to its user; the user's programs, root here, reach its
    // socket by its full path.
    const QString swayRuntime = m_root.filePath(QStringLiteral("sway"));
    QDir().mkpath(swayRuntime);
    if (::chown(QFile::encodeName(swayRuntime).constData(), nobody, nobody) != 0) {
        fail(QStringLiteral("sway's folder cannot be given to its user"));
        return;
    }
    ::chmod(QFile::encodeName(swayRuntime).constData(), 0700);
    const QString config = m_root.filePath(QStringLiteral("sway.conf"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly))
        return;
    // XWayland from the start, as sway's own configuration has it (there it comes up lazily).
    file.write("xwayland force\noutput HEADLESS-1 resolution 1280x800\ndefault_border none\n");
    file.close();
    ::chmod(QFile::encodeName(config).constData(), 0644);
    if (!launch(QStringLiteral("sway"), QStringLiteral("setpriv"),
                {QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                 QStringLiteral("--clear-groups"), QStringLiteral("--pdeathsig=TERM"),
                 QStringLiteral("sway"), QStringLiteral("-c"), config},
                {{QStringLiteral("XDG_RUNTIME_DIR"), swayRuntime},
                 {QStringLiteral("HOME"), swayRuntime},
                 {QStringLiteral("WAYLAND_DISPLAY"), QString()},
                 {QStringLiteral("DISPLAY"), QString()},
                 {QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless")},
                 {QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1")},
                 {QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman")},
                 {QStringLiteral("WLR_HEADLESS_OUTPUTS"), QStringLiteral("1")}}))
        return;
    m_waylandDisplay = swayRuntime + QStringLiteral("/wayland-1");
    const pid_t sway = process(QStringLiteral("sway"))->pid(); // setpriv became sway
    if (!waitUntil(
            [&] {
                m_xDisplay = xwaylandDisplayOf(sway, swayRuntime);
                return QFile::exists(m_waylandDisplay) && !m_xDisplay.isEmpty() &&
                       QFile::exists(QStringLiteral("/tmp/.X11-unix/X") + m_xDisplay.mid(1));
            },
            20s)) {
        fail(
            QStringLiteral("sway did not come up: %1").arg(log(QStringLiteral("sway")).right(600)));
        return;
    }
    // XWayland serves sway's user alone; that user lets the test's programs in, as xhost would
    // be used on a shared machine.
    ChildProcess::Options asSway;
    asSway.environment = {{QStringLiteral("DISPLAY"), m_xDisplay}};
    if (ChildProcess::run(QStringLiteral("setpriv"),
                          {QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                           QStringLiteral("--clear-groups"), QStringLiteral("xhost"),
                           QStringLiteral("+si:localuser:root")},
                          asSway) != 0)
        fail(QStringLiteral("xhost could not open sway's XWayland display to the tests"));
}

// GNOME Shell ------------------------------------------------------------------------------------

namespace {

// An empty system bus: the shell asks it for logind and the like, and goes on without them.
const QByteArray systemBusConfig =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
    "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig><type>system</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
    "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
    "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
    "</policy></busconfig>\n";

// The portal's dialog that asks whether a program may control the keyboard.
const QString findDialog =
    QStringLiteral("global.get_window_actors().map(a => a.meta_window).find(w => w.get_title() === "
                   "'Remote desktop' && w.get_wm_class() === 'xdg-desktop-portal-gnome')");

} // namespace

GnomeDesktop &GnomeDesktop::get()
{
    static GnomeDesktop desktop;
    return desktop;
}

GnomeDesktop::GnomeDesktop()
{
    m_waylandDisplay = QStringLiteral("wayland-0");
    const QString systemBusSocket = m_root.filePath(QStringLiteral("system_bus"));
    const QString config = m_root.filePath(QStringLiteral("system-bus.conf"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(systemBusConfig);
    file.close();
    m_variables = {{QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("GNOME")},
                   {QStringLiteral("XDG_SESSION_DESKTOP"), QStringLiteral("gnome")},
                   {QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"),
                    QStringLiteral("unix:path=") + systemBusSocket}};
    if (!launch(QStringLiteral("system-bus"), QStringLiteral("dbus-daemon"),
                {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                 QStringLiteral("--address=unix:path=") + systemBusSocket}) ||
        !waitUntil([&] { return QFile::exists(systemBusSocket); }, 10s) || !startBus())
        return;

    // The shell now and then hangs for good while it starts its input method daemon (a fork of
    // a threaded process); such a start is given up and made again.
    bool up = false;
    for (int attempt = 1; attempt <= 3 && !up; ++attempt) {
        const QString name = QStringLiteral("shell%1").arg(attempt);
        if (!launch(name, QStringLiteral("gnome-shell"),
                    {QStringLiteral("--headless"), QStringLiteral("--wayland"),
                     QStringLiteral("--virtual-monitor"), QStringLiteral("1280x800"),
                     QStringLiteral("--unsafe-mode")},
                    {{QStringLiteral("WAYLAND_DISPLAY"), QString()},
                     {QStringLiteral("DISPLAY"), QString()}}))
            return;
        up = waitUntil(
            [&] {
                return QFile::exists(m_runtime + u'/' + m_waylandDisplay) &&
                       eval(QStringLiteral("Main.layoutManager._startingUp ? 'no' : 'yes'")) ==
                           QStringLiteral("\"yes\"");
            },
            30s);
        if (!up) {
            process(name)->terminate();
            QFile::remove(m_runtime + u'/' + m_waylandDisplay);
        } else {
            const QRegularExpression display(QStringLiteral("Using public X11 display (:\\d+)"));
            m_xDisplay = display.match(log(name)).captured(1);
        }
    }
    if (!up) {
        fail(QStringLiteral("gnome-shell did not come up"));
        return;
    }
    const QStringList authorities = QDir(m_runtime).entryList(
        {QStringLiteral(".mutter-Xwaylandauth.*")}, QDir::Files | QDir::Hidden);
    if (!authorities.isEmpty())
        m_variables.insert(QStringLiteral("XAUTHORITY"), m_runtime + u'/' + authorities.first());

    // Out of the overview the shell starts in, with a keyboard and a pointer on the seat, as a
    // desktop with a user at it has.
    eval(QStringLiteral("Main.overview.hide(); const C = imports.gi.Clutter; "
                        "const seat = C.get_default_backend().get_default_seat(); "
                        "global._testKeyboard = "
                        "seat.create_virtual_device(C.InputDeviceType.KEYBOARD_DEVICE); "
                        "global._testPointer = "
                        "seat.create_virtual_device(C.InputDeviceType.POINTER_DEVICE); 'ok'"));

    // The portal backend connects to the shell, so it comes after it.
    if (!launch(QStringLiteral("permission-store"),
                QStringLiteral("/usr/libexec/xdg-permission-store"),
                {QStringLiteral("--replace")}) ||
        !waitForBusName(QStringLiteral("org.freedesktop.impl.portal.PermissionStore"), 20s))
        return;
    if (!launch(QStringLiteral("portal-gnome"),
                QStringLiteral("/usr/libexec/xdg-desktop-portal-gnome"),
                {QStringLiteral("--verbose")}) ||
        !waitForBusName(QStringLiteral("org.freedesktop.impl.portal.desktop.gnome"), 30s))
        return;
    if (!launch(QStringLiteral("portal"), QStringLiteral("/usr/libexec/xdg-desktop-portal"),
                {QStringLiteral("--verbose")}))
        return;
    waitForBusName(QStringLiteral("org.freedesktop.portal.Desktop"), 30s);
}

std::optional<QString> GnomeDesktop::eval(const QString &script) const
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.gnome.Shell"), QStringLiteral("/org/gnome/Shell"),
        QStringLiteral("org.gnome.Shell"), QStringLiteral("Eval"));
    call << script;
    const QDBusMessage reply = bus().call(call, QDBus::Block, 3000);
    if (reply.type() != QDBusMessage::ReplyMessage || !reply.arguments().value(0).toBool())
        return std::nullopt;
    return reply.arguments().value(1).toString();
}

bool GnomeDesktop::approveRemoteDesktop(std::chrono::milliseconds limit) const
{
    const QString shown = QStringLiteral("%1 ? 'yes' : 'no'").arg(findDialog);
    if (!waitUntil([&] { return eval(shown) == QStringLiteral("\"yes\""); }, limit))
        return false;
    // The dialog may open behind the window in front; a user would bring it forward.
    eval(QStringLiteral("Main.activateWindow(%1); 'ok'").arg(findDialog));
    spin(300ms);
    // Return turns on "Allow remote interaction", which has the focus; three Tabs reach
    // "Share", and Return presses it.
    for (const int keyval : {0xff0d, 0xff09, 0xff09, 0xff09, 0xff0d}) {
        eval(QStringLiteral("const C = imports.gi.Clutter; const k = global._testKeyboard; "
                            "k.notify_keyval(GLib.get_monotonic_time(), %1, C.KeyState.PRESSED); "
                            "k.notify_keyval(GLib.get_monotonic_time(), %1, C.KeyState.RELEASED); "
                            "'ok'")
                 .arg(keyval));
        spin(100ms);
    }
    return waitUntil([&] { return eval(shown) == QStringLiteral("\"no\""); }, 5s);
}

} // namespace vocari::test
