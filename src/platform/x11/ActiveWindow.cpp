#include "platform/x11/ActiveWindow.h"

#include "platform/x11/XConnection.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace vocari {

namespace {

// A property holding one 32-bit value of the given type, as Xlib returns it (in a long).
std::optional<unsigned long> singleValue(Display *display, Window window, Atom property, Atom type)
{
    Atom actualType = 0;
    int format = 0;
    unsigned long count = 0, remaining = 0;
    unsigned char *data = nullptr;
    const int status = XGetWindowProperty(display, window, property, 0, 1, False, type, &actualType,
                                          &format, &count, &remaining, &data);
    std::optional<unsigned long> value;
    if (status == Success && data && actualType == type && format == 32 && count == 1)
        value = *reinterpret_cast<unsigned long *>(data);
    if (data)
        XFree(data);
    return value;
}

} // namespace

ActiveWindow ActiveWindow::current()
{
    return current(XConnection::shared());
}

ActiveWindow ActiveWindow::current(XConnection &connection)
{
    ActiveWindow result;
    if (!connection.ensureOpen())
        return result;
    Display *display = connection.display();
    const Window root = DefaultRootWindow(display);

    const Atom activeAtom = XInternAtom(display, "_NET_ACTIVE_WINDOW", False);
    Window window = singleValue(display, root, activeAtom, XA_WINDOW).value_or(0);
    if (window == 0) {
        Window focus = 0;
        int revertTo = 0;
        XGetInputFocus(display, &focus, &revertTo);
        if (focus != None && focus != PointerRoot)
            window = focus;
    }
    if (window == 0)
        return result;
    result.window = window;

    // The focus may sit on a child window; the program is named on its top-level window.
    const Atom pidAtom = XInternAtom(display, "_NET_WM_PID", False);
    for (Window current = window; current != 0 && current != root;) {
        const auto pid = singleValue(display, current, pidAtom, XA_CARDINAL);
        XClassHint hint{};
        const bool hasClass = XGetClassHint(display, current, &hint) != 0;
        if (hasClass) {
            result.instanceName = QString::fromLocal8Bit(hint.res_name);
            result.className = QString::fromLocal8Bit(hint.res_class);
            XFree(hint.res_name);
            XFree(hint.res_class);
        }
        if (pid && *pid > 0)
            result.processId = qint64(*pid);
        if (pid || hasClass) {
            result.window = current;
            break;
        }
        Window treeRoot = 0, parent = 0;
        Window *children = nullptr;
        unsigned int childCount = 0;
        if (!XQueryTree(display, current, &treeRoot, &parent, &children, &childCount))
            break;
        if (children)
            XFree(children);
        current = parent;
    }
    return result;
}

std::optional<qint64> frontmostProcessId()
{
    return ActiveWindow::current().processId;
}

} // namespace vocari
