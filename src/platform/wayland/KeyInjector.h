#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <vector>

namespace vocari {

// One key going down or up, named by its X keysym, which the desktop looks up in the keyboard
// layout in use (a virtual keyboard brings a layout of its own). A key that must be found
// whatever the layout (the V of the paste shortcut, which a Cyrillic layout has no keysym for)
// also names its key by its Linux input code, which portals send as it is.
struct KeysymEvent
{
    std::uint32_t keysym = 0;
    bool pressed = true;
    std::uint32_t keycode = 0; // Linux input event code; 0: find the key by its keysym
    bool operator==(const KeysymEvent &) const = default;
};

// Sends keys to the focused window of a Wayland session, where no program may post input to
// another directly: through the desktop's remote-desktop portal, or a virtual keyboard.
class KeyInjector
{
public:
    virtual ~KeyInjector() = default;

    // What sends the keys, for the log and the settings ("the desktop's remote-desktop portal").
    virtual QString name() const = 0;
    // Whether keys can be sent now. The first call may ask the desktop for access (a dialog the
    // user answers); until it is answered, and after a refusal, this stays false and
    // errorString() says why.
    virtual bool ready() = 0;
    virtual QString errorString() const = 0;
    // Called when keys that send() took could not all go out after it returned. The keys not
    // sent are dropped and every key left down is released.
    using SendFailed = std::function<void()>;

    // Sends the events in order, after those of earlier calls. False when nothing could be
    // sent; an injector that sends after returning reports a later failure through `failed`.
    virtual bool send(const std::vector<KeysymEvent> &events, SendFailed failed) = 0;
    bool send(const std::vector<KeysymEvent> &events) { return send(events, {}); }
    // Whether the keyboard layout in use has a key for the keysym, so that the desktop can type
    // it. An injector that brings a layout of its own types every keysym.
    virtual bool canType(std::uint32_t keysym) const
    {
        Q_UNUSED(keysym);
        return true;
    }
    // Whether the user declined the desktop's prompt, which is then not shown again by itself;
    // askAgain() lets the next ready() show it once more.
    virtual bool declined() const { return false; }
    virtual void askAgain() {}
};

} // namespace vocari
