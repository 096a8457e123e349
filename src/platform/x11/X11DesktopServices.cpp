#include "platform/x11/X11DesktopServices.h"

#include "platform/x11/ActiveWindow.h"
#include "platform/x11/InputAccess.h"
#include "platform/x11/XConnection.h"
#include "text/TextInserter.h"

#include <QClipboard>
#include <QGuiApplication>
#include <X11/Xlib.h>

namespace vocari {

InputAccessState X11DesktopServices::inputAccess()
{
    const InputAccess access = InputAccess::check();
    return {access.granted, access.explanation};
}

std::optional<qint64> X11DesktopServices::frontmostWindow()
{
    const unsigned long window = ActiveWindow::current().window;
    return window ? std::optional<qint64>(qint64(window)) : std::nullopt;
}

bool X11DesktopServices::paste(const QString &text)
{
    TextInserter::insert(text);
    return true;
}

qsizetype X11DesktopServices::type(const QString &text)
{
    return TextInserter::type(text);
}

void X11DesktopServices::erase(qsizetype count)
{
    TextInserter::erase(count);
}

void X11DesktopServices::copyToClipboard(const QString &text)
{
    // setText replaces every format the clipboard held, so no stale image stays beside it.
    QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
}

bool X11DesktopServices::hasCompositor()
{
    XConnection &connection = XConnection::shared();
    if (!connection.ensureOpen())
        return false;
    Display *display = connection.display();
    const QByteArray name = "_NET_WM_CM_S" + QByteArray::number(DefaultScreen(display));
    const Atom selection = XInternAtom(display, name.constData(), False);
    return XGetSelectionOwner(display, selection) != 0;
}

} // namespace vocari
