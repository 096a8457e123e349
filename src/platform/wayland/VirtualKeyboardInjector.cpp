#include "platform/wayland/VirtualKeyboardInjector.h"

#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandLog.h"
#include "platform/wayland/WaylandProtocols.h"

#include <QElapsedTimer>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

namespace vocari {

namespace {

constexpr std::uint32_t xkbV1Format = 1;
// X11 programs, XWayland's included, know only key codes up to this one.
constexpr xkb_keycode_t highestUsableKeycode = 255;
constexpr std::uint32_t shiftKeysym = 0xffe1; // Shift_L

std::uint32_t milliseconds()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer started;
        started.start();
        return started;
    }();
    return std::uint32_t(clock.elapsed());
}

// The US layout as xkbcommon has it, as keymap text.
QByteArray usKeymapText(xkb_context *context)
{
    const xkb_rule_names names{"evdev", "pc105", "us", "", ""};
    xkb_keymap *keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (!keymap)
        return {};
    char *text = xkb_keymap_get_as_string(keymap, XKB_KEYMAP_FORMAT_TEXT_V1);
    QByteArray result(text);
    std::free(text);
    xkb_keymap_unref(keymap);
    return result;
}

// The keymap text with the keysyms added on keys the layout leaves without symbols.
QByteArray withExtraKeysyms(xkb_context *context, const std::set<std::uint32_t> &extra)
{
    QByteArray text = usKeymapText(context);
    if (text.isEmpty() || extra.empty())
        return text;
    xkb_keymap *base = xkb_keymap_new_from_string(
        context, text.constData(), XKB_KEYMAP_FORMAT_TEXT_V1, XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (!base)
        return {};
    QByteArray symbols;
    auto keysym = extra.begin();
    for (xkb_keycode_t code = xkb_keymap_max_keycode(base);
         code >= xkb_keymap_min_keycode(base) && keysym != extra.end(); --code) {
        const char *name = xkb_keymap_key_get_name(base, code);
        if (code > highestUsableKeycode || !name || xkb_keymap_num_layouts_for_key(base, code) > 0)
            continue;
        char keysymName[64];
        if (xkb_keysym_get_name(*keysym, keysymName, sizeof keysymName) <= 0) {
            ++keysym;
            continue;
        }
        symbols += QByteArray("    key <") + name + "> { [ " + keysymName + " ] };\n";
        ++keysym;
    }
    xkb_keymap_unref(base);
    // The symbols section ends at the first closing line after its heading.
    const qsizetype section = text.indexOf("xkb_symbols");
    const qsizetype end = section < 0 ? -1 : text.indexOf("\n};", section);
    if (end < 0)
        return {};
    text.insert(end + 1, symbols);
    return text;
}

} // namespace

std::unique_ptr<VirtualKeyboardInjector>
VirtualKeyboardInjector::create(std::shared_ptr<WaylandConnection> connection)
{
    if (!connection || !connection->seat())
        return nullptr;
    wl_proxy *manager = connection->bind(&wl::virtualKeyboardManager, 1);
    if (!manager)
        return nullptr;
    return std::unique_ptr<VirtualKeyboardInjector>(
        new VirtualKeyboardInjector(std::move(connection), manager));
}

VirtualKeyboardInjector::VirtualKeyboardInjector(std::shared_ptr<WaylandConnection> connection,
                                                 wl_proxy *manager)
    : m_connection(std::move(connection)), m_manager(manager),
      m_context(xkb_context_new(XKB_CONTEXT_NO_FLAGS))
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(kSettleMs);
    connect(&m_settle, &QTimer::timeout, this, &VirtualKeyboardInjector::sendQueued);
    m_idle.setSingleShot(true);
    m_idle.setInterval(kIdleMs);
    connect(&m_idle, &QTimer::timeout, this, &VirtualKeyboardInjector::dropKeyboard);
    connect(m_connection.get(), &WaylandConnection::lost, this,
            [this] { fail(tr("the compositor closed the connection")); });
}

VirtualKeyboardInjector::~VirtualKeyboardInjector()
{
    dropKeyboard();
    // The manager has no destructor request: the proxy alone goes.
    wl_proxy_destroy(m_manager);
    xkb_context_unref(m_context);
}

QString VirtualKeyboardInjector::name() const
{
    return tr("the compositor's virtual keyboard");
}

bool VirtualKeyboardInjector::ready()
{
    if (m_connection->isLost()) {
        m_error = tr("The Wayland compositor closed the connection; restart Vocari to type "
                     "again.");
        return false;
    }
    m_error.clear();
    return true;
}

bool VirtualKeyboardInjector::send(const std::vector<KeysymEvent> &events, SendFailed failed)
{
    if (!ready())
        return false;
    if (events.empty())
        return true;
    m_queue.push_back({events, std::move(failed)});
    if (!m_settle.isActive())
        sendQueued();
    return true;
}

bool VirtualKeyboardInjector::prepare(const std::set<std::uint32_t> &keysyms)
{
    std::set<std::uint32_t> missing;
    for (std::uint32_t keysym : keysyms)
        if (!m_keys.contains(keysym))
            missing.insert(keysym);
    if (m_keyboard && missing.empty())
        return true;
    const bool created = !m_keyboard;
    if (created) {
        m_keyboard =
            wl_proxy_marshal_flags(m_manager, wl::VirtualKeyboardManager::createVirtualKeyboard,
                                   &wl::virtualKeyboard, 1, 0, m_connection->seat(), nullptr);
    }
    // Spare keys are few: a layout that would run out starts again from what is needed now.
    if (m_extraKeysyms.size() + missing.size() > kSpareKeys)
        m_extraKeysyms.clear();
    m_extraKeysyms.insert(missing.begin(), missing.end());
    if (!uploadLayout())
        return false;
    // A seat that had no keyboard gains one: windows ask for it only once told, and keys sent
    // before that are lost, with no event to say when it happened. A new layout on a keyboard
    // already known arrives ahead of its keys.
    if (created)
        m_settle.start();
    return true;
}

bool VirtualKeyboardInjector::uploadLayout()
{
    const QByteArray text = withExtraKeysyms(m_context, m_extraKeysyms);
    xkb_keymap *keymap = text.isEmpty() ? nullptr
                                        : xkb_keymap_new_from_string(m_context, text.constData(),
                                                                     XKB_KEYMAP_FORMAT_TEXT_V1,
                                                                     XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (!keymap) {
        m_error = tr("No keyboard layout could be made for the virtual keyboard.");
        return false;
    }
    // Keys still down belong to the old layout: they go up under it, not forgotten.
    for (std::uint32_t keycode : std::set<std::uint32_t>(m_down))
        sendKey(keycode, false);
    const int fd = ::memfd_create("vocari-keymap", MFD_CLOEXEC);
    const auto size = std::size_t(text.size()) + 1; // with its terminating zero
    if (fd < 0 || ::write(fd, text.constData(), size) != ssize_t(size)) {
        if (fd >= 0)
            ::close(fd);
        xkb_keymap_unref(keymap);
        m_error = tr("The virtual keyboard's layout could not be written.");
        return false;
    }
    wl_proxy_marshal_flags(m_keyboard, wl::VirtualKeyboard::keymap, nullptr, 1, 0, xkbV1Format, fd,
                           std::uint32_t(size));
    ::close(fd); // the library sent a copy

    if (m_state)
        xkb_state_unref(m_state);
    if (m_keymap)
        xkb_keymap_unref(m_keymap);
    m_keymap = keymap;
    m_state = xkb_state_new(keymap);
    m_down.clear();
    m_shiftedFor.clear();

    // Where each keysym sits: unshifted where it can be, else with Shift.
    m_keys.clear();
    const xkb_mod_mask_t shiftMask = 1u << xkb_keymap_mod_get_index(keymap, XKB_MOD_NAME_SHIFT);
    for (xkb_keycode_t code = xkb_keymap_min_keycode(keymap);
         code <= std::min(xkb_keymap_max_keycode(keymap), highestUsableKeycode); ++code) {
        for (xkb_level_index_t level = 0; level < xkb_keymap_num_levels_for_key(keymap, code, 0);
             ++level) {
            xkb_mod_mask_t masks[4];
            const std::size_t maskCount =
                xkb_keymap_key_get_mods_for_level(keymap, code, 0, level, masks, 4);
            const bool plain = level == 0;
            bool shifted = false;
            for (std::size_t i = 0; i < maskCount; ++i)
                shifted = shifted || masks[i] == shiftMask;
            if (!plain && !shifted)
                continue;
            const xkb_keysym_t *syms = nullptr;
            if (xkb_keymap_key_get_syms_by_level(keymap, code, 0, level, &syms) != 1)
                continue;
            Key &key = m_keys[syms[0]];
            if (key.keycode == 0 || (plain && key.shifted))
                key = {code, !plain};
        }
    }
    m_shiftKeycode = m_keys.contains(shiftKeysym) ? m_keys[shiftKeysym].keycode : 0;
    for (std::uint32_t keysym : m_extraKeysyms)
        if (!m_keys.contains(keysym))
            qCWarning(lcWayland, "The virtual keyboard has no spare key left for a character; it "
                                 "is not typed.");
    m_connection->flush();
    return true;
}

void VirtualKeyboardInjector::sendKey(std::uint32_t keycode, bool pressed)
{
    wl_proxy_marshal_flags(m_keyboard, wl::VirtualKeyboard::key, nullptr, 1, 0, milliseconds(),
                           keycode - 8, std::uint32_t(pressed ? 1 : 0));
    if (pressed)
        m_down.insert(keycode);
    else
        m_down.erase(keycode);
    const auto changed =
        xkb_state_update_key(m_state, keycode, pressed ? XKB_KEY_DOWN : XKB_KEY_UP);
    if (changed & (XKB_STATE_MODS_DEPRESSED | XKB_STATE_MODS_LATCHED | XKB_STATE_MODS_LOCKED |
                   XKB_STATE_LAYOUT_EFFECTIVE)) {
        wl_proxy_marshal_flags(m_keyboard, wl::VirtualKeyboard::modifiers, nullptr, 1, 0,
                               xkb_state_serialize_mods(m_state, XKB_STATE_MODS_DEPRESSED),
                               xkb_state_serialize_mods(m_state, XKB_STATE_MODS_LATCHED),
                               xkb_state_serialize_mods(m_state, XKB_STATE_MODS_LOCKED),
                               xkb_state_serialize_layout(m_state, XKB_STATE_LAYOUT_EFFECTIVE));
    }
}

void VirtualKeyboardInjector::sendQueued()
{
    while (!m_queue.empty()) {
        Queued &batch = m_queue.front();
        std::set<std::uint32_t> keysyms;
        for (const KeysymEvent &event : batch.events)
            keysyms.insert(event.keysym);
        if (!prepare(keysyms)) {
            fail(m_error);
            return;
        }
        // A new layout went out: its keys wait until the window has it.
        if (m_settle.isActive())
            return;
        for (const KeysymEvent &event : batch.events) {
            const auto key = m_keys.find(event.keysym);
            if (key == m_keys.end())
                continue;
            const std::uint32_t keycode = key->second.keycode;
            if (event.pressed) {
                // Shift goes down for a shifted character unless the sender holds it already.
                if (key->second.shifted && m_shiftKeycode != 0 &&
                    !m_down.contains(m_shiftKeycode)) {
                    sendKey(m_shiftKeycode, true);
                    m_shiftedFor.insert(keycode);
                }
                sendKey(keycode, true);
            } else {
                sendKey(keycode, false);
                if (m_shiftedFor.erase(keycode) > 0)
                    sendKey(m_shiftKeycode, false);
            }
        }
        m_queue.pop_front();
    }
    m_connection->flush();
    m_idle.start();
}

void VirtualKeyboardInjector::dropKeyboard()
{
    m_idle.stop();
    m_settle.stop();
    if (m_keyboard) {
        // No key stays down in the user's window.
        for (std::uint32_t keycode : std::set<std::uint32_t>(m_down))
            sendKey(keycode, false);
        wl_proxy_marshal_flags(m_keyboard, wl::VirtualKeyboard::destroy, nullptr, 1,
                               WL_MARSHAL_FLAG_DESTROY);
        m_keyboard = nullptr;
        m_connection->flush();
    }
    if (m_state)
        xkb_state_unref(m_state);
    if (m_keymap)
        xkb_keymap_unref(m_keymap);
    m_state = nullptr;
    m_keymap = nullptr;
    m_keys.clear();
    m_extraKeysyms.clear();
    m_down.clear();
    m_shiftedFor.clear();
}

void VirtualKeyboardInjector::fail(const QString &why)
{
    qCWarning(lcWayland).noquote() << "The virtual keyboard cannot type:" << why;
    std::deque<Queued> dropped;
    dropped.swap(m_queue);
    if (!m_connection->isLost())
        dropKeyboard();
    for (const Queued &batch : dropped)
        if (batch.failed)
            batch.failed();
}

} // namespace vocari
