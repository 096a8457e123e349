#pragma once

#include <QString>

namespace vocari {

class XConnection;

// Whether the program can watch the keyboard and post keys: the desktop's counterpart of an
// accessibility permission. Granted when an X display is reachable with XTEST and XInput 2.
struct InputAccess
{
    bool granted = false;
    QString explanation; // one line saying what is missing; empty when granted

    static InputAccess check(XConnection &connection);
    // The check on the program's shared connection.
    static InputAccess check();
};

} // namespace vocari
