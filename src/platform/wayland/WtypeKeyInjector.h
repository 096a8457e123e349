#pragma once

#include "platform/wayland/KeyInjector.h"

#include <QStringList>

namespace vocari {

// Keys through the compositor's virtual-keyboard protocol, which the wlroots compositors offer
// in place of the remote-desktop portal, by way of the wtype program, which speaks it. One
// wtype run sends a whole sequence, and the next waits for it to end, so the order holds.
class WtypeKeyInjector final : public KeyInjector
{
public:
    // `compositorHasVirtualKeyboard`: what the compositor's globals said.
    explicit WtypeKeyInjector(bool compositorHasVirtualKeyboard);

    QString name() const override;
    bool ready() override;
    QString errorString() const override { return m_error; }
    bool send(const std::vector<KeysymEvent> &events) override;

    // wtype's arguments for the events: the Control, Shift, Alt and Super keysyms as its
    // modifier switches (-M/-m), every other keysym pressed (-P) or released (-p) by its
    // hexadecimal name, which wtype binds to a key of its own keymap.
    static QStringList arguments(const std::vector<KeysymEvent> &events);

private:
    bool m_virtualKeyboard;
    QString m_program;
    QString m_error;
};

} // namespace vocari
