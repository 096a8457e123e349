#include "platform/wayland/WaylandInput.h"

#include "platform/wayland/DataControlClipboard.h"
#include "platform/wayland/PortalKeyInjector.h"
#include "platform/wayland/PortalShortcutSource.h"
#include "platform/wayland/WaylandDesktopServices.h"
#include "platform/wayland/WaylandGlobals.h"
#include "platform/wayland/WtypeKeyInjector.h"

#include <QDBusMessage>
#include <QStringList>

namespace vocari {

bool portalOffers(const QDBusConnection &bus, const QString &interface)
{
    if (!bus.isConnected())
        return false;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.portal.Desktop"),
        QStringLiteral("/org/freedesktop/portal/desktop"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << interface << QStringLiteral("version");
    // The portal service may be started on this first call; it answers within a few seconds.
    const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    return reply.type() == QDBusMessage::ReplyMessage;
}

WaylandInput WaylandInput::choose(const QDBusConnection &bus,
                                  std::function<void(const QString &)> copyFallback)
{
    const WaylandGlobals globals = WaylandGlobals::read();
    QStringList parts;

    std::unique_ptr<KeyInjector> injector;
    if (portalOffers(bus, QStringLiteral("org.freedesktop.portal.RemoteDesktop")))
        injector = std::make_unique<PortalKeyInjector>(bus);
    else
        injector = std::make_unique<WtypeKeyInjector>(globals.hasVirtualKeyboard());
    parts << QStringLiteral("typing: %1").arg(injector->name());

    std::unique_ptr<ClipboardAccess> clipboard;
    if (globals.hasDataControl() && DataControlClipboard::programsFound()) {
        clipboard = std::make_unique<DataControlClipboard>();
        parts << QStringLiteral("clipboard: data-control");
    } else {
        parts << QStringLiteral("clipboard: none without a window, so text is typed, not pasted");
    }
    parts.prepend(QStringLiteral("dictation key: the desktop's global shortcuts"));

    WaylandInput input;
    input.keys = std::make_unique<PortalShortcutSource>(bus);
    input.desktop = std::make_unique<WaylandDesktopServices>(
        std::move(injector), std::move(clipboard), std::move(copyFallback));
    input.summary = parts.join(QStringLiteral("; "));
    return input;
}

} // namespace vocari
