#pragma once

#include "platform/wayland/KeyInjector.h"

#include <QObject>
#include <QTimer>
#include <deque>
#include <map>
#include <memory>
#include <set>

struct wl_proxy;
struct xkb_context;
struct xkb_keymap;
struct xkb_state;

namespace vocari {

class WaylandConnection;

// Keys through the compositor's virtual-keyboard protocol, the wlroots compositors' way. A
// virtual keyboard brings its own layout: a US layout, so that shortcuts such as Ctrl+V sit on
// the keys toolkits look for, with every other character the text needs on a spare key.
//
// One keyboard serves a dictation: it is made at the first keys and kept until the keys have
// been idle for a while, as windows miss the first keys of a keyboard that just joined the seat.
// The modifiers are this program's to announce, from its own key state: the compositor does not
// derive them from modifier keys.
class VirtualKeyboardInjector final : public QObject, public KeyInjector
{
    Q_OBJECT
public:
    // None where the compositor offers no virtual keyboard.
    static std::unique_ptr<VirtualKeyboardInjector>
    create(std::shared_ptr<WaylandConnection> connection);
    ~VirtualKeyboardInjector() override;

    QString name() const override;
    bool ready() override;
    QString errorString() const override { return m_error; }
    using KeyInjector::send;
    bool send(const std::vector<KeysymEvent> &events, SendFailed failed) override;

    // How long keys wait after a new keyboard joined the seat, how many characters beyond the
    // US layout a layout holds, and how long an idle keyboard is kept.
    static constexpr int kSettleMs = 100;
    static constexpr std::size_t kSpareKeys = 16;
    static constexpr int kIdleMs = 8000;

private:
    explicit VirtualKeyboardInjector(std::shared_ptr<WaylandConnection> connection,
                                     wl_proxy *manager);
    // Makes the keyboard, or gives it a new layout, so that every keysym has a key.
    bool prepare(const std::set<std::uint32_t> &keysyms);
    bool uploadLayout();
    void sendQueued();
    void sendKey(std::uint32_t keycode, bool pressed);
    void dropKeyboard();
    void fail(const QString &why);

    struct Key
    {
        std::uint32_t keycode = 0; // xkb keycode: the Linux input code + 8
        bool shifted = false;
    };
    struct Queued
    {
        std::vector<KeysymEvent> events;
        SendFailed failed;
    };

    std::shared_ptr<WaylandConnection> m_connection;
    wl_proxy *m_manager = nullptr;
    wl_proxy *m_keyboard = nullptr;
    xkb_context *m_context = nullptr;
    xkb_keymap *m_keymap = nullptr;
    xkb_state *m_state = nullptr;
    std::set<std::uint32_t> m_extraKeysyms; // on spare keys beyond the US layout
    std::map<std::uint32_t, Key> m_keys;    // where each keysym of the layout sits
    std::uint32_t m_shiftKeycode = 0;
    std::set<std::uint32_t> m_down;       // keycodes pressed and not released
    std::set<std::uint32_t> m_shiftedFor; // keycodes for which Shift went down with them
    std::deque<Queued> m_queue;
    QTimer m_settle;
    QTimer m_idle;
    QString m_error;
};

} // namespace vocari
