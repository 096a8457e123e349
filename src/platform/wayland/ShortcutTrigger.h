#pragma once

#include "hotkey/Hotkey.h"

#include <QString>
#include <cstdint>

namespace vocari {

// The xkb keysym name of a Linux key code on a US layout ("space", "F5", "bracketleft",
// "Alt_R"), or an empty text for a key without a well-known name.
QString usKeysymName(std::uint16_t keyCode);

// The key as a shortcut trigger that a desktop's global-shortcuts service understands: the
// modifiers CTRL, ALT, SHIFT and LOGO in this order, joined by '+', then the key's keysym name
// ("CTRL+ALT+space", "LOGO+9", "F5"); a modifier key used alone is its own keysym name
// ("Alt_R"). Empty when the key has no name, so that the desktop lets the user pick one.
QString shortcutTrigger(const Hotkey &hotkey);

// Whether a desktop's description of a trigger ("Ctrl+Alt+Space", "CTRL+ALT+space", "F8")
// names the key with exactly its modifiers, whatever the case and spelling of the modifiers.
bool triggerNamesKey(const QString &description, const Hotkey &hotkey);

} // namespace vocari
