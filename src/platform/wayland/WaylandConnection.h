#pragma once

#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QString>
#include <cstdint>
#include <map>
#include <memory>

struct wl_display;
struct wl_registry;
struct wl_seat;
struct wl_interface;
struct wl_proxy;

namespace vocari {

// A connection of this program's own to the Wayland compositor, beside the one of the window
// toolkit (which may not be Wayland at all): the globals it announces, its first seat, and
// events dispatched from the Qt event loop. Protocol objects built on it live no longer than
// the connection.
class WaylandConnection final : public QObject
{
    Q_OBJECT
public:
    // Connects to `display` (a socket name or path; empty: WAYLAND_DISPLAY) and reads the
    // globals. None, with a one-line reason in *error, when the compositor cannot be reached.
    static std::unique_ptr<WaylandConnection> open(const QString &display, QString *error);
    ~WaylandConnection() override;

    wl_display *display() const { return m_display; }
    wl_seat *seat() const { return m_seat; }
    bool has(const char *interface) const;
    // Binds the global of that interface at the highest version both sides know; null when the
    // compositor has none.
    wl_proxy *bind(const wl_interface *interface, std::uint32_t highestVersion) const;
    // Sends what is queued.
    void flush();
    // Waits for the compositor to have handled every request so far, dispatching what comes
    // back. False once the connection is lost.
    bool roundtrip();
    bool isLost() const { return m_lost; }

    // The registry's events.
    static void announce(void *data, wl_registry *, std::uint32_t name, const char *interface,
                         std::uint32_t version);
    static void withdraw(void *data, wl_registry *, std::uint32_t name);

signals:
    // The compositor closed the connection.
    void lost();

private:
    WaylandConnection() = default;
    void dispatch();

    struct Global
    {
        std::uint32_t name;
        std::uint32_t version;
    };
    wl_display *m_display = nullptr;
    wl_registry *m_registry = nullptr;
    wl_seat *m_seat = nullptr;
    std::map<QString, Global> m_globals;
    std::unique_ptr<QSocketNotifier> m_notifier;
    bool m_lost = false;
};

} // namespace vocari
