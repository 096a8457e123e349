#pragma once

#include <QSet>
#include <QString>

namespace vocari {

// The protocols a Wayland compositor offers its clients, read once from its registry: whether
// it has a data-control protocol (a clipboard that programs without a focused window may set)
// and a virtual-keyboard protocol (keys from a program, the wlroots compositors' way).
class WaylandGlobals
{
public:
    // The globals of the compositor at `display` (a socket name or path; empty: the
    // WAYLAND_DISPLAY of the environment). Empty, with errorString(), when it cannot be reached.
    static WaylandGlobals read(const QString &display = QString());
    static WaylandGlobals of(QSet<QString> interfaces)
    {
        return WaylandGlobals(std::move(interfaces));
    }

    bool reachable() const { return m_reachable; }
    QString errorString() const { return m_error; }
    bool has(const QString &interface) const { return m_interfaces.contains(interface); }
    bool hasDataControl() const;
    bool hasVirtualKeyboard() const;

private:
    WaylandGlobals() = default;
    explicit WaylandGlobals(QSet<QString> interfaces)
        : m_reachable(true), m_interfaces(std::move(interfaces))
    {
    }

    bool m_reachable = false;
    QString m_error;
    QSet<QString> m_interfaces;
};

} // namespace vocari
