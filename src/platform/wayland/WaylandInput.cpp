#include "platform/wayland/WaylandInput.h"

#include "platform/wayland/DataControlClipboard.h"
#include "platform/wayland/DesktopKeymap.h"
#include "platform/wayland/PortalKeyInjector.h"
#include "platform/wayland/PortalShortcutSource.h"
#include "platform/wayland/VirtualKeyboardInjector.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandDesktopServices.h"
#include "platform/wayland/WaylandLog.h"

#include <QStringList>

namespace vocari {

WaylandInput WaylandInput::choose(const QDBusConnection &bus,
                                  std::function<void(const QString &)> copyFallback)
{
    QString error;
    std::shared_ptr<WaylandConnection> connection = WaylandConnection::open(QString(), &error);
    if (!connection)
        qCWarning(lcWayland).noquote() << error;
    QStringList parts;

    // A compositor's own virtual keyboard needs no grant from the user, so it comes first; the
    // desktop's remote-desktop portal is the way on KDE Plasma and GNOME.
    std::unique_ptr<KeyInjector> injector = VirtualKeyboardInjector::create(connection);
    if (!injector) {
        auto portal = std::make_unique<PortalKeyInjector>(bus);
        // What the portal can type depends on the layout the desktop has in use.
        std::shared_ptr<DesktopKeymap> keymap = DesktopKeymap::watch(connection);
        if (keymap)
            portal->setLayoutKeysyms([keymap](std::uint32_t keysym) -> std::optional<bool> {
                const DesktopKeymap::Layout &layout = keymap->layout();
                return layout.known() ? std::optional(layout.has(keysym)) : std::nullopt;
            });
        injector = std::move(portal);
    }
    parts << QStringLiteral("typing: %1").arg(injector->name());

    std::unique_ptr<ClipboardAccess> clipboard = DataControlClipboard::create(connection);
    parts << (clipboard ? QStringLiteral("clipboard: data-control")
                        : QStringLiteral("clipboard: none without a window, so text is typed, not "
                                         "pasted"));

    WaylandInput input;
    input.keys = std::make_unique<PortalShortcutSource>(bus);
    input.desktop = std::make_unique<WaylandDesktopServices>(
        std::move(injector), std::move(clipboard), std::move(copyFallback));
    input.summary = parts.join(QStringLiteral("; "));
    return input;
}

} // namespace vocari
