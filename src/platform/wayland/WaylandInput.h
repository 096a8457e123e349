#pragma once

#include "app/DesktopServices.h"
#include "hotkey/HotkeyMonitor.h"

#include <QDBusConnection>
#include <memory>

namespace vocari {

// The desktop parts of a Wayland session, chosen from what the desktop offers: the dictation
// key from the global-shortcuts portal; keys sent through the remote-desktop portal, or through
// the compositor's virtual keyboard where no portal has that; the clipboard through the
// data-control protocol where the compositor has it.
struct WaylandInput
{
    std::unique_ptr<KeyEventSource> keys;
    std::unique_ptr<DesktopServices> desktop;
    // One line for the log and the settings: what each part goes through.
    QString summary;

    // `copyFallback` puts text on the windows' own clipboard, for when nothing else can.
    // Nothing here waits for the portal: the key source says which key it got once it knows.
    static WaylandInput choose(const QDBusConnection &bus,
                               std::function<void(const QString &)> copyFallback);
};

} // namespace vocari
