#pragma once

#include <QProcessEnvironment>
#include <QString>

namespace vocari {

// Which desktop session the program runs in, which decides how it watches the dictation key
// and puts text into other programs.
struct SessionKind
{
    enum class Input
    {
        x11,    // an X server sees and takes every key: XInput 2, grabs and XTEST
        wayland // the compositor keeps input to itself: the desktop's portals, or a virtual
                // keyboard
    };

    Input input = Input::x11;
    // Why, in a few words for the log and the settings ("XDG_SESSION_TYPE is wayland").
    QString reason;

    // XDG_SESSION_TYPE when it names x11 or wayland; otherwise a Wayland display
    // (WAYLAND_DISPLAY) means Wayland and anything else X11.
    static SessionKind detect(const QProcessEnvironment &environment);
    static SessionKind detect() { return detect(QProcessEnvironment::systemEnvironment()); }

    bool isWayland() const { return input == Input::wayland; }
    // "X11" or "Wayland".
    QString name() const;
};

} // namespace vocari
