#pragma once

#include <QString>
#include <optional>

namespace vocari {

class XConnection;

// The window that has the keyboard: the window manager's active window, or, without a window
// manager that names one, the window holding the input focus (and the nearest ancestor that
// says which program it belongs to).
struct ActiveWindow
{
    unsigned long window = 0; // 0 when no window has the keyboard
    std::optional<qint64> processId;
    QString instanceName; // the two parts of WM_CLASS
    QString className;

    static ActiveWindow current(XConnection &connection);
    // The active window on the program's shared connection.
    static ActiveWindow current();
};

// The process id of the frontmost application, or none.
std::optional<qint64> frontmostProcessId();

} // namespace vocari
