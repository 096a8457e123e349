#include "platform/wayland/WaylandConnection.h"

#include "platform/wayland/WaylandLog.h"

#include <QFile>
#include <algorithm>
#include <poll.h>
#include <wayland-client.h>

namespace vocari {

namespace {

const wl_registry_listener registryListener{&WaylandConnection::announce,
                                            &WaylandConnection::withdraw};

} // namespace

std::unique_ptr<WaylandConnection> WaylandConnection::open(const QString &display, QString *error)
{
    const QByteArray name = QFile::encodeName(display);
    wl_display *connection = wl_display_connect(display.isEmpty() ? nullptr : name.constData());
    if (!connection) {
        if (error)
            *error = QStringLiteral("The Wayland compositor cannot be reached.");
        return nullptr;
    }
    std::unique_ptr<WaylandConnection> self(new WaylandConnection);
    self->m_display = connection;
    self->m_registry = wl_display_get_registry(connection);
    wl_registry_add_listener(self->m_registry, &registryListener, self.get());
    if (wl_display_roundtrip(connection) < 0) {
        if (error)
            *error = QStringLiteral("The Wayland compositor closed the connection.");
        return nullptr;
    }
    self->m_seat = static_cast<wl_seat *>(static_cast<void *>(self->bind(&wl_seat_interface, 5)));
    self->m_notifier =
        std::make_unique<QSocketNotifier>(wl_display_get_fd(connection), QSocketNotifier::Read);
    connect(self->m_notifier.get(), &QSocketNotifier::activated, self.get(),
            &WaylandConnection::dispatch);
    return self;
}

WaylandConnection::~WaylandConnection()
{
    m_notifier.reset();
    if (m_seat)
        wl_proxy_destroy(reinterpret_cast<wl_proxy *>(m_seat));
    if (m_registry)
        wl_registry_destroy(m_registry);
    if (m_display)
        wl_display_disconnect(m_display);
}

void WaylandConnection::announce(void *data, wl_registry *, std::uint32_t name,
                                 const char *interface, std::uint32_t version)
{
    auto *self = static_cast<WaylandConnection *>(data);
    const QString key = QString::fromLatin1(interface);
    // The first of several seats is the one the desktop's keyboard sits on.
    if (!self->m_globals.contains(key))
        self->m_globals[key] = {name, version};
}

void WaylandConnection::withdraw(void *data, wl_registry *, std::uint32_t name)
{
    auto *self = static_cast<WaylandConnection *>(data);
    std::erase_if(self->m_globals,
                  [name](const auto &global) { return global.second.name == name; });
}

bool WaylandConnection::has(const char *interface) const
{
    return m_globals.contains(QString::fromLatin1(interface));
}

wl_proxy *WaylandConnection::bind(const wl_interface *interface, std::uint32_t highestVersion) const
{
    const auto global = m_globals.find(QString::fromLatin1(interface->name));
    if (global == m_globals.end())
        return nullptr;
    const std::uint32_t version = std::min(global->second.version, highestVersion);
    return static_cast<wl_proxy *>(
        wl_registry_bind(m_registry, global->second.name, interface, version));
}

void WaylandConnection::flush()
{
    if (!m_lost)
        wl_display_flush(m_display);
}

bool WaylandConnection::roundtrip()
{
    if (m_lost)
        return false;
    if (wl_display_roundtrip(m_display) < 0) {
        m_lost = true;
        qCWarning(lcWayland, "The Wayland compositor closed this program's connection.");
        emit lost();
        return false;
    }
    return true;
}

void WaylandConnection::dispatch()
{
    if (m_lost)
        return;
    // A round trip since the notifier fired may have read the socket empty: read only what is
    // there now, never waiting for more.
    while (wl_display_prepare_read(m_display) != 0)
        wl_display_dispatch_pending(m_display);
    pollfd ready{wl_display_get_fd(m_display), POLLIN, 0};
    const bool readable = ::poll(&ready, 1, 0) > 0;
    const int read = readable ? wl_display_read_events(m_display) : 0;
    if (!readable)
        wl_display_cancel_read(m_display);
    if (read < 0 || wl_display_dispatch_pending(m_display) < 0) {
        m_lost = true;
        m_notifier->setEnabled(false);
        qCWarning(lcWayland, "The Wayland compositor closed this program's connection.");
        emit lost();
        return;
    }
    wl_display_flush(m_display);
}

} // namespace vocari
