#pragma once

#include "platform/wayland/KeyInjector.h"
#include "text/TextInserter.h"

#include <QString>
#include <cstdint>
#include <vector>

namespace vocari {

// X keysyms the injectors send by value.
namespace Keysym {
inline constexpr std::uint32_t backSpace = 0xff08;
inline constexpr std::uint32_t tab = 0xff09;
inline constexpr std::uint32_t returnKey = 0xff0d;
inline constexpr std::uint32_t insert = 0xff63;
inline constexpr std::uint32_t shiftL = 0xffe1;
inline constexpr std::uint32_t controlL = 0xffe3;
inline constexpr std::uint32_t v = 0x76;
// Added to a code point to make its Unicode keysym.
inline constexpr std::uint32_t unicodeBase = 0x01000000;
} // namespace Keysym

// The keysym that types a code point: line feed and tab are the Return and Tab keys, printable
// Latin-1 characters are their own keysyms, others the keysym layouts use for them (EuroSign,
// Cyrillic_a) or, where layouts have none, their Unicode keysym. 0 for
// what cannot be typed: other control characters, surrogates and values beyond Unicode.
std::uint32_t keysymForCodePoint(char32_t codePoint);

// A press and a release for every code point of the text, in order; the two halves of a
// surrogate pair make one code point. What cannot be typed is left out.
std::vector<KeysymEvent> typingKeysyms(const QString &text);

// BackSpace pressed and released `count` times.
std::vector<KeysymEvent> backspaceKeysyms(qsizetype count);

// The paste shortcut pressed and let go: the modifiers go down first and come up last. Each key
// carries its input code as well, so the shortcut works whatever the layout.
std::vector<KeysymEvent> pasteKeysyms(TextInserter::PasteKeys keys);

} // namespace vocari
