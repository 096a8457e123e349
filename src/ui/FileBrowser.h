#pragma once

#include <QString>

namespace vocari {

// Shows folders and files in the desktop's file browser. The settings hand it around as a
// whole so that tests can watch what would be shown instead of opening windows.
class FileBrowser
{
public:
    // busConnection: the name of the D-Bus connection that reaches the file manager (see
    // QDBusConnection::connectToBus); empty: the session bus.
    explicit FileBrowser(QString busConnection = {}) : m_busConnection(std::move(busConnection)) {}
    virtual ~FileBrowser() = default;

    // Opens a folder in the file browser.
    virtual void openFolder(const QString &folder);
    // Opens the folder that holds path with path selected in it, through the file manager's
    // D-Bus interface (org.freedesktop.FileManager1); where no file manager answers there,
    // opens that folder without selecting anything.
    virtual void reveal(const QString &path);

private:
    QString m_busConnection;
};

} // namespace vocari
