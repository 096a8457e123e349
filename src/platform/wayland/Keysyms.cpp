#include "platform/wayland/Keysyms.h"

#include <xkbcommon/xkbcommon.h>

namespace vocari {

namespace {

void tap(std::vector<KeysymEvent> &events, std::uint32_t keysym, std::uint32_t keycode = 0)
{
    events.push_back({keysym, true, keycode});
    events.push_back({keysym, false, keycode});
}

// The Linux input code of the key that makes a keysym of the paste shortcuts.
std::uint32_t codeOf(std::uint32_t keysym)
{
    switch (keysym) {
    case Keysym::controlL:
        return 29;
    case Keysym::shiftL:
        return 42;
    case Keysym::v:
        return 47;
    case Keysym::insert:
        return 110;
    default:
        return 0;
    }
}

} // namespace

std::uint32_t keysymForCodePoint(char32_t codePoint)
{
    if (codePoint == U'\n')
        return Keysym::returnKey;
    if (codePoint == U'\t')
        return Keysym::tab;
    if (codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0))
        return 0;
    if ((codePoint >= 0xd800 && codePoint <= 0xdfff) || codePoint > 0x10ffff)
        return 0;
    // Keyboard layouts name their keys with the older keysyms where one exists (EuroSign,
    // Cyrillic_a, lstroke), and a desktop finds the key only by the name its layout uses;
    // everything else gets its Unicode keysym.
    return xkb_utf32_to_keysym(codePoint);
}

std::vector<KeysymEvent> typingKeysyms(const QString &text)
{
    std::vector<KeysymEvent> events;
    events.reserve(std::size_t(text.size()) * 2);
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t codePoint = text[i].unicode();
        if (QChar::isHighSurrogate(codePoint) && i + 1 < text.size() &&
            text[i + 1].isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(text[i], text[i + 1]);
            ++i;
        }
        if (const std::uint32_t keysym = keysymForCodePoint(codePoint))
            tap(events, keysym);
    }
    return events;
}

std::vector<KeysymEvent> backspaceKeysyms(qsizetype count)
{
    std::vector<KeysymEvent> events;
    for (qsizetype i = 0; i < count; ++i)
        tap(events, Keysym::backSpace);
    return events;
}

std::vector<KeysymEvent> pasteKeysyms(TextInserter::PasteKeys keys)
{
    std::vector<std::uint32_t> modifiers;
    std::uint32_t key = Keysym::v;
    switch (keys) {
    case TextInserter::PasteKeys::ctrlV:
        modifiers = {Keysym::controlL};
        break;
    case TextInserter::PasteKeys::ctrlShiftV:
        modifiers = {Keysym::controlL, Keysym::shiftL};
        break;
    case TextInserter::PasteKeys::shiftInsert:
        modifiers = {Keysym::shiftL};
        key = Keysym::insert;
        break;
    }
    std::vector<KeysymEvent> events;
    for (const std::uint32_t modifier : modifiers)
        events.push_back({modifier, true, codeOf(modifier)});
    tap(events, key, codeOf(key));
    for (auto modifier = modifiers.rbegin(); modifier != modifiers.rend(); ++modifier)
        events.push_back({*modifier, false, codeOf(*modifier)});
    return events;
}

} // namespace vocari
