#include "ui/FileBrowser.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QUrl>

namespace vocari {

Q_LOGGING_CATEGORY(lcFileBrowser, "vocari.ui.files", QtInfoMsg)

namespace {

void openWithDesktop(const QString &folder)
{
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(folder)))
        qCWarning(lcFileBrowser) << "no program opened" << folder;
}

} // namespace

void FileBrowser::openFolder(const QString &folder)
{
    openWithDesktop(folder);
}

void FileBrowser::reveal(const QString &path)
{
    const QString parent = QFileInfo(path).absolutePath();
    QDBusConnection bus = m_busConnection.isEmpty() ? QDBusConnection::sessionBus()
                                                    : QDBusConnection(m_busConnection);
    if (!bus.isConnected()) {
        openWithDesktop(parent);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    // Asynchronous, so that a file manager started by the bus does not hold up the window.
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, parent] {
        watcher->deleteLater();
        if (watcher->isError()) {
            qCInfo(lcFileBrowser) << "the file manager cannot show items:"
                                  << watcher->error().message();
            openWithDesktop(parent);
        }
    });
}

} // namespace vocari
