#include "platform/x11/InputAccess.h"

#include "platform/x11/XConnection.h"

namespace vocari {

InputAccess InputAccess::check()
{
    return check(XConnection::shared());
}

InputAccess InputAccess::check(XConnection &connection)
{
    if (connection.ensureOpen())
        return {true, QString()};
    if (qEnvironmentVariable("XDG_SESSION_TYPE").compare(u"wayland", Qt::CaseInsensitive) == 0) {
        return {false, QStringLiteral("This Wayland session offers no usable X display; the "
                                      "dictation key and text insertion need an X11 session "
                                      "for now.")};
    }
    return {false, connection.errorString()};
}

} // namespace vocari
