#include "platform/x11/X11Keymap.h"

#include "hotkey/Hotkey.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/keysym.h>
#include <algorithm>

namespace vocari {

namespace {

bool isLockKeysym(KeySym keysym)
{
    return keysym == XK_Caps_Lock || keysym == XK_Shift_Lock || keysym == XK_Num_Lock ||
           keysym == XK_Scroll_Lock;
}

// Keeps the first key found for a keysym, unless a later one needs no Shift.
void remember(std::unordered_map<unsigned long, X11Keymap::Stroke> &strokes, KeySym keysym,
              X11Keymap::Stroke stroke)
{
    if (keysym == NoSymbol)
        return;
    const auto [entry, added] = strokes.try_emplace(keysym, stroke);
    if (!added && entry->second.shift && !stroke.shift)
        entry->second = stroke;
}

} // namespace

X11Modifiers X11Modifiers::read(Display *display)
{
    X11Modifiers modifiers;
    XModifierKeymap *map = XGetModifierMapping(display);
    if (!map)
        return modifiers;
    for (int index = Mod1MapIndex; index <= Mod5MapIndex; ++index) {
        const unsigned int bit = 1u << index;
        for (int slot = 0; slot < map->max_keypermod; ++slot) {
            const ::KeyCode keycode = map->modifiermap[index * map->max_keypermod + slot];
            if (keycode == 0)
                continue;
            for (int level = 0; level < 2; ++level) {
                switch (XkbKeycodeToKeysym(display, keycode, 0, level)) {
                case XK_Alt_L:
                case XK_Alt_R:
                case XK_Meta_L:
                case XK_Meta_R:
                    if (!modifiers.alt)
                        modifiers.alt = bit;
                    break;
                case XK_Super_L:
                case XK_Super_R:
                    if (!modifiers.super)
                        modifiers.super = bit;
                    break;
                case XK_Num_Lock:
                    modifiers.numLock = bit;
                    break;
                case XK_Scroll_Lock:
                    modifiers.scrollLock = bit;
                    break;
                default:
                    break;
                }
            }
        }
    }
    XFreeModifiermap(map);
    return modifiers;
}

std::optional<unsigned int> X11Modifiers::toX(std::uint64_t modifiers) const
{
    if (modifiers & ~Modifier::mask)
        return std::nullopt;
    unsigned int state = 0;
    if (modifiers & Modifier::shift)
        state |= ShiftMask;
    if (modifiers & Modifier::control)
        state |= ControlMask;
    if (modifiers & Modifier::alt) {
        if (!alt)
            return std::nullopt;
        state |= alt;
    }
    if (modifiers & Modifier::super) {
        if (!super)
            return std::nullopt;
        state |= super;
    }
    return state;
}

std::uint64_t X11Modifiers::missing(std::uint64_t modifiers) const
{
    std::uint64_t absent = 0;
    if ((modifiers & Modifier::alt) && !alt)
        absent |= Modifier::alt;
    if ((modifiers & Modifier::super) && !super)
        absent |= Modifier::super;
    return absent;
}

std::uint64_t X11Modifiers::fromX(unsigned int state) const
{
    std::uint64_t modifiers = 0;
    if (state & ShiftMask)
        modifiers |= Modifier::shift;
    if (state & ControlMask)
        modifiers |= Modifier::control;
    if (alt && (state & alt))
        modifiers |= Modifier::alt;
    if (super && (state & super))
        modifiers |= Modifier::super;
    return modifiers;
}

std::vector<unsigned int> X11Modifiers::lockCombinations() const
{
    std::vector<unsigned int> locks{LockMask};
    for (unsigned int lock : {numLock, scrollLock}) {
        if (lock && std::find(locks.begin(), locks.end(), lock) == locks.end())
            locks.push_back(lock);
    }
    std::vector<unsigned int> combinations;
    for (unsigned int subset = 0; subset < (1u << locks.size()); ++subset) {
        unsigned int state = 0;
        for (size_t i = 0; i < locks.size(); ++i) {
            if (subset & (1u << i))
                state |= locks[i];
        }
        combinations.push_back(state);
    }
    return combinations;
}

unsigned long keysymForCharacter(char32_t character)
{
    if (character == U'\n')
        return XK_Return;
    if (character == U'\t')
        return XK_Tab;
    if (character < 0x20 || (character >= 0x7f && character < 0xa0))
        return 0;
    if ((character >= 0xd800 && character <= 0xdfff) || character > 0x10ffff)
        return 0;
    if (character < 0x100)
        return character; // Latin-1 keysyms equal their code points
    return 0x01000000ul | character;
}

X11Keymap::X11Keymap(Display *display)
{
    XkbDescPtr xkb =
        XkbGetMap(display, XkbKeyTypesMask | XkbKeySymsMask | XkbModifierMapMask, XkbUseCoreKbd);
    if (!xkb)
        return;
    XkbStateRec state{};
    XkbGetState(display, XkbUseCoreKbd, &state);

    for (int keycode = xkb->min_key_code; keycode <= xkb->max_key_code; ++keycode) {
        const int symbolCount = XkbKeyNumSyms(xkb, keycode);
        const KeySym *symbols = XkbKeySymsPtr(xkb, keycode);
        bool hasSymbol = false;
        for (int i = 0; i < symbolCount; ++i)
            hasSymbol = hasSymbol || symbols[i] != NoSymbol;
        if (!hasSymbol) {
            m_unused.push_back(unsigned(keycode));
            continue;
        }

        const int groups = XkbKeyNumGroups(xkb, keycode);
        // A group beyond the key's own wraps around, as the server does by default.
        const int activeGroup = groups > 0 ? state.group % groups : 0;
        for (int group = 0; group < groups; ++group) {
            const KeySym plain = XkbKeySymEntry(xkb, keycode, 0, group);
            if (group != activeGroup) {
                remember(m_otherGroups, plain, {unsigned(keycode), false});
                continue;
            }
            remember(m_activeGroup, plain, {unsigned(keycode), false});
            const XkbKeyTypePtr type = XkbKeyKeyType(xkb, keycode, group);
            const int width = XkbKeyGroupWidth(xkb, keycode, group);
            for (int entry = 0; entry < type->map_count; ++entry) {
                const XkbKTMapEntryRec &level = type->map[entry];
                if (level.active && level.mods.mask == ShiftMask && level.level < width) {
                    remember(m_activeGroup, XkbKeySymEntry(xkb, keycode, level.level, group),
                             {unsigned(keycode), true});
                }
            }
        }

        if (xkb->map->modmap && xkb->map->modmap[keycode] &&
            !isLockKeysym(XkbKeySymEntry(xkb, keycode, 0, 0)))
            m_modifierKeys.insert(unsigned(keycode));
    }
    XkbFreeKeyboard(xkb, 0, True);
}

std::optional<X11Keymap::Stroke> X11Keymap::find(unsigned long keysym, bool anyGroup) const
{
    if (const auto stroke = m_activeGroup.find(keysym); stroke != m_activeGroup.end())
        return stroke->second;
    if (const auto stroke = m_otherGroups.find(keysym); anyGroup && stroke != m_otherGroups.end())
        return stroke->second;
    return std::nullopt;
}

} // namespace vocari
