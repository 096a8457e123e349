#include "platform/wayland/DesktopKeymap.h"

#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandLog.h"

#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

namespace vocari {

namespace {

void capabilities(void *data, wl_seat *, std::uint32_t capabilities)
{
    static_cast<DesktopKeymap *>(data)->onCapabilities(capabilities);
}
void seatName(void *, wl_seat *, const char *) {}
const wl_seat_listener seatListener{capabilities, seatName};

void keymap(void *data, wl_keyboard *, std::uint32_t format, int32_t fd, std::uint32_t size)
{
    static_cast<DesktopKeymap *>(data)->onKeymap(format, fd, size);
}
void enter(void *, wl_keyboard *, std::uint32_t, wl_surface *, wl_array *) {}
void leave(void *, wl_keyboard *, std::uint32_t, wl_surface *) {}
void key(void *, wl_keyboard *, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {}
void modifiers(void *, wl_keyboard *, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
               std::uint32_t)
{
}
void repeatInfo(void *, wl_keyboard *, int32_t, int32_t) {}
const wl_keyboard_listener keyboardListener{keymap, enter, leave, key, modifiers, repeatInfo};

} // namespace

std::unique_ptr<DesktopKeymap> DesktopKeymap::watch(std::shared_ptr<WaylandConnection> connection)
{
    if (!connection || !connection->seat())
        return nullptr;
    std::unique_ptr<DesktopKeymap> keymap(new DesktopKeymap(std::move(connection)));
    wl_seat_add_listener(keymap->m_connection->seat(), &seatListener, keymap.get());
    // The seat says what it has, and a keyboard its layout, in answer.
    keymap->m_connection->roundtrip();
    keymap->m_connection->roundtrip();
    return keymap;
}

DesktopKeymap::DesktopKeymap(std::shared_ptr<WaylandConnection> connection)
    : m_connection(std::move(connection))
{
}

DesktopKeymap::~DesktopKeymap()
{
    if (m_keyboard)
        wl_keyboard_release(m_keyboard);
}

void DesktopKeymap::onCapabilities(std::uint32_t capabilities)
{
    const bool keyboard = capabilities & WL_SEAT_CAPABILITY_KEYBOARD;
    if (keyboard && !m_keyboard) {
        m_keyboard = wl_seat_get_keyboard(m_connection->seat());
        wl_keyboard_add_listener(m_keyboard, &keyboardListener, this);
    } else if (!keyboard && m_keyboard) {
        wl_keyboard_release(m_keyboard);
        m_keyboard = nullptr;
    }
}

void DesktopKeymap::onKeymap(std::uint32_t format, int fd, std::uint32_t size)
{
    if (format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 && size > 0) {
        void *mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (mapped != MAP_FAILED) {
            // The text ends with a zero within `size`; a copy makes sure of it.
            const std::string text(static_cast<const char *>(mapped), size);
            ::munmap(mapped, size);
            if (!m_layout.take(text.c_str()))
                qCWarning(lcWayland, "The desktop's keyboard layout could not be read.");
        }
    }
    ::close(fd);
}

bool DesktopKeymap::Layout::take(const char *text)
{
    xkb_context *context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    xkb_keymap *keymap = context
                             ? xkb_keymap_new_from_string(context, text, XKB_KEYMAP_FORMAT_TEXT_V1,
                                                          XKB_KEYMAP_COMPILE_NO_FLAGS)
                             : nullptr;
    if (!keymap) {
        xkb_context_unref(context);
        return false;
    }
    // The portal types in whichever of the layouts is active: only what all of them have
    // counts. A key with fewer layouts than the keymap repeats its own, as xkb does.
    std::set<std::uint32_t> keysyms;
    for (xkb_layout_index_t layout = 0; layout < xkb_keymap_num_layouts(keymap); ++layout) {
        std::set<std::uint32_t> inLayout;
        for (xkb_keycode_t code = xkb_keymap_min_keycode(keymap);
             code <= xkb_keymap_max_keycode(keymap); ++code) {
            const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(keymap, code);
            if (layouts == 0)
                continue;
            const xkb_layout_index_t own = layout % layouts;
            for (xkb_level_index_t level = 0;
                 level < xkb_keymap_num_levels_for_key(keymap, code, own); ++level) {
                const xkb_keysym_t *syms = nullptr;
                const int count = xkb_keymap_key_get_syms_by_level(keymap, code, own, level, &syms);
                inLayout.insert(syms, syms + count);
            }
        }
        if (layout == 0)
            keysyms = std::move(inLayout);
        else
            std::erase_if(keysyms,
                          [&](std::uint32_t keysym) { return !inLayout.contains(keysym); });
    }
    xkb_keymap_unref(keymap);
    xkb_context_unref(context);
    m_keysyms = std::move(keysyms);
    return true;
}

} // namespace vocari
