#pragma once

#include <QByteArray>
#include <QString>

namespace vocari {

// Starting Vocari when the user logs in: an XDG autostart entry,
// $XDG_CONFIG_HOME/autostart/vocari.desktop, that desktops run at the start of a session. The
// entry exists exactly while the option is on.
namespace LoginItem {

// Where the entry lives.
QString entryPath();
// Whether the entry exists.
bool isEnabled();
// Writes or removes the entry. False when that failed; `error` then says why in one line.
bool setEnabled(bool enabled, QString *error = nullptr);

// The command the entry starts: plain "vocari" when `program` is the vocari found on PATH
// (`onPath`, empty when there is none), so that an upgrade that moves it keeps working, else
// the program's absolute path, quoted as desktop entries require.
QString command(const QString &program, const QString &onPath);
// The entry's content for that command.
QByteArray entry(const QString &command);

} // namespace LoginItem
} // namespace vocari
