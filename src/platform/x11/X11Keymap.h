#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

struct _XDisplay;

namespace vocari {

// Which X modifier bits (Mod1 to Mod5) stand for Alt, Super and the lock keys on this server.
// Shift and Control have fixed bits; the others depend on the modifier mapping.
struct X11Modifiers
{
    unsigned int alt = 0;
    unsigned int super = 0;
    unsigned int numLock = 0;
    unsigned int scrollLock = 0;

    // Reads the server's modifier mapping.
    static X11Modifiers read(_XDisplay *display);

    // The X modifier state for Modifier bits; none when a bit has no X modifier here or lies
    // outside the four modifiers.
    std::optional<unsigned int> toX(std::uint64_t modifiers) const;
    // The Modifier bits that have no X modifier here (Alt or Super when no key is mapped to
    // them), so a grab with them cannot be placed.
    std::uint64_t missing(std::uint64_t modifiers) const;
    // The Modifier bits held in an X event state; lock and other bits are left out.
    std::uint64_t fromX(unsigned int state) const;
    // Every combination of Caps Lock, Num Lock and Scroll Lock, the empty one first: a grab
    // must be placed once per combination to work whatever locks are on.
    std::vector<unsigned int> lockCombinations() const;
};

// The keysym that types a character: Latin-1 characters have their own keysyms, every other
// character its Unicode keysym; line feed and tab are the Return and Tab keys. 0 for what
// cannot be typed (other control characters, lone surrogates). A layout that names a character
// by an older keysym of its own (Cyrillic_a, EuroSign) is not matched by it, so such a
// character is typed through a borrowed keycode: it still arrives, only less directly.
unsigned long keysymForCharacter(char32_t character);

// A snapshot of the keyboard mapping in the active layout group: which key produces a keysym,
// and which keycodes carry no symbol at all and so may be borrowed for a moment.
class X11Keymap
{
public:
    explicit X11Keymap(_XDisplay *display);

    // A key press that produces the keysym: the key, and whether Shift must be held.
    struct Stroke
    {
        unsigned int keycode = 0;
        bool shift = false;
    };
    // A key of the active group. With `anyGroup`, a key that has the keysym on the first
    // level of another group will do as well: programs match shortcuts such as Ctrl+V by
    // that key when the active layout is not a Latin one.
    std::optional<Stroke> find(unsigned long keysym, bool anyGroup = false) const;
    const std::vector<unsigned int> &unusedKeycodes() const { return m_unused; }
    // The keycodes of every key that sets a modifier, lock keys excluded.
    const std::set<unsigned int> &modifierKeycodes() const { return m_modifierKeys; }

private:
    std::unordered_map<unsigned long, Stroke> m_activeGroup;
    std::unordered_map<unsigned long, Stroke> m_otherGroups;
    std::vector<unsigned int> m_unused;
    std::set<unsigned int> m_modifierKeys;
};

} // namespace vocari
