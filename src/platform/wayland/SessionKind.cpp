#include "platform/wayland/SessionKind.h"

namespace vocari {

SessionKind SessionKind::detect(const QProcessEnvironment &environment)
{
    const QString type = environment.value(QStringLiteral("XDG_SESSION_TYPE")).trimmed().toLower();
    if (type == QLatin1String("wayland"))
        return {Input::wayland, QStringLiteral("XDG_SESSION_TYPE is wayland")};
    if (type == QLatin1String("x11"))
        return {Input::x11, QStringLiteral("XDG_SESSION_TYPE is x11")};

    // No session type, or one that says nothing of the display server ("tty" when started from
    // a console, "unspecified"): the displays that are reachable decide.
    const QString wayland = environment.value(QStringLiteral("WAYLAND_DISPLAY"));
    if (!wayland.isEmpty())
        return {Input::wayland, QStringLiteral("WAYLAND_DISPLAY is %1").arg(wayland)};
    if (environment.contains(QStringLiteral("DISPLAY")))
        return {Input::x11,
                QStringLiteral("DISPLAY is %1").arg(environment.value(QStringLiteral("DISPLAY")))};
    return {Input::x11, QStringLiteral("no Wayland display is set")};
}

QString SessionKind::name() const
{
    return isWayland() ? QStringLiteral("Wayland") : QStringLiteral("X11");
}

} // namespace vocari
