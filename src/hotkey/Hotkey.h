#pragma once

#include <QHashFunctions>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace vocari {

// Modifier bits of a key combination. They are plain bits of the program's own, independent of
// any toolkit's modifier enumeration, so that a stored key means the same everywhere.
namespace Modifier {
inline constexpr std::uint64_t shift = 0x20000;
inline constexpr std::uint64_t control = 0x40000;
inline constexpr std::uint64_t alt = 0x80000;
inline constexpr std::uint64_t super = 0x100000;
inline constexpr std::uint64_t mask = shift | control | alt | super; // 0x1E0000
} // namespace Modifier

// Linux input event codes (linux/input-event-codes.h) that the program refers to by name.
namespace KeyCode {
inline constexpr std::uint16_t escape = 1;
inline constexpr std::uint16_t space = 57;
inline constexpr std::uint16_t capsLock = 58;
inline constexpr std::uint16_t leftCtrl = 29;
inline constexpr std::uint16_t rightCtrl = 97;
inline constexpr std::uint16_t leftShift = 42;
inline constexpr std::uint16_t rightShift = 54;
inline constexpr std::uint16_t leftAlt = 56;
inline constexpr std::uint16_t rightAlt = 100;
inline constexpr std::uint16_t leftSuper = 125;
inline constexpr std::uint16_t rightSuper = 126;
} // namespace KeyCode

// The dictation key: either one modifier key pressed on its own (such as Right Alt), or an
// ordinary key together with the modifiers that must be held (such as Ctrl+Alt+Space). Key
// codes are Linux input event codes, which name physical positions and so do not depend on the
// keyboard layout. A default-constructed value is the default key, Right Alt alone.
struct Hotkey
{
    std::uint16_t keyCode = KeyCode::rightAlt;
    // Bits of Modifier that must be held; 0 for a modifier-only key.
    std::uint64_t modifiers = 0;
    bool modifierOnly = true;

    bool operator==(const Hotkey &) const = default;

    static constexpr Hotkey defaultKey() { return Hotkey{}; }

    // What every screen shows for the key: "Right Alt", "Ctrl+Alt+Space", "F5", "Key 250".
    QString label() const;
    // Whether the key code is one of the function keys F1 to F19, the only ordinary keys that
    // may be used without a modifier. The other two fields are not looked at.
    bool isStandalone() const;

    // {"keyCode": n, "modifiers": n, "modifierOnly": bool}
    QJsonObject toJson() const;
    // The key a JSON object describes, or none when a field is missing, has the wrong type, is
    // not a whole number or is out of range.
    static std::optional<Hotkey> fromJson(const QJsonValue &json);

    // The modifier bit that a modifier key sets while it is held (left and right keys of one
    // modifier share it), or none for any other key, Caps Lock included.
    static std::optional<std::uint64_t> flag(std::uint16_t modifierKey);

    // The keys the settings offer ready-made: Right Alt, Right Ctrl, Right Super, Ctrl+Alt+Space.
    static const std::vector<Hotkey> &presets();

    // Names of the modifier keys that can be used on their own, by key code.
    static const std::map<std::uint16_t, QString> &modifierNames();
    // Names of the ordinary keys, by key code. Escape has none: it is reserved for cancelling.
    static const std::map<std::uint16_t, QString> &keyNames();
    // The codes of F1 to F19.
    static const std::set<std::uint16_t> &standaloneCodes();
};

size_t qHash(const Hotkey &hotkey, size_t seed = 0) noexcept;

} // namespace vocari

template <> struct std::hash<vocari::Hotkey>
{
    size_t operator()(const vocari::Hotkey &hotkey) const noexcept { return vocari::qHash(hotkey); }
};
