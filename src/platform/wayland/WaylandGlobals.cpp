#include "platform/wayland/WaylandGlobals.h"

#include <QFile>
#include <wayland-client.h>

namespace vocari {

namespace {

void announce(void *data, wl_registry *, uint32_t, const char *interface, uint32_t)
{
    static_cast<QSet<QString> *>(data)->insert(QString::fromLatin1(interface));
}

void withdraw(void *, wl_registry *, uint32_t) {}

const wl_registry_listener kListener{announce, withdraw};

} // namespace

WaylandGlobals WaylandGlobals::read(const QString &display)
{
    WaylandGlobals globals;
    const QByteArray name = QFile::encodeName(display);
    wl_display *connection = wl_display_connect(display.isEmpty() ? nullptr : name.constData());
    if (!connection) {
        globals.m_error = QStringLiteral("The Wayland compositor cannot be reached.");
        return globals;
    }
    wl_registry *registry = wl_display_get_registry(connection);
    wl_registry_add_listener(registry, &kListener, &globals.m_interfaces);
    // One round trip: the compositor announces every global in answer to the registry request.
    globals.m_reachable = wl_display_roundtrip(connection) >= 0;
    if (!globals.m_reachable)
        globals.m_error = QStringLiteral("The Wayland compositor closed the connection.");
    wl_registry_destroy(registry);
    wl_display_disconnect(connection);
    return globals;
}

bool WaylandGlobals::hasDataControl() const
{
    // The wlroots protocol, which the clipboard programs of Debian 12 (wl-clipboard 2.1) speak.
    return has(QStringLiteral("zwlr_data_control_manager_v1"));
}

bool WaylandGlobals::hasVirtualKeyboard() const
{
    return has(QStringLiteral("zwp_virtual_keyboard_manager_v1"));
}

} // namespace vocari
