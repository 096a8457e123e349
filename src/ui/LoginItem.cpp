#include "ui/LoginItem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <algorithm>

namespace vocari::LoginItem {

namespace {

const QString kProgramName = QStringLiteral("vocari");

// An argument of a desktop entry's Exec line. Quoting is needed for any of the reserved
// characters; inside quotes ", `, $ and \ take a backslash, and the value as a whole then takes
// the string escapes, which double every backslash again. A % would start a field code.
QString execArgument(const QString &argument)
{
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    QString text = argument;
    text.replace(QLatin1Char('%'), QStringLiteral("%%"));
    const bool needsQuotes =
        std::any_of(text.begin(), text.end(), [](QChar c) { return reserved.contains(c); });
    if (needsQuotes) {
        QString quoted;
        for (QChar c : text) {
            if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
                c == QLatin1Char('\\'))
                quoted += QLatin1Char('\\');
            quoted += c;
        }
        text = QLatin1Char('"') + quoted + QLatin1Char('"');
    }
    text.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    text.replace(QLatin1Char('\n'), QStringLiteral("\\n"));
    text.replace(QLatin1Char('\t'), QStringLiteral("\\t"));
    return text;
}

} // namespace

QString entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/vocari.desktop");
}

bool isEnabled()
{
    return QFileInfo::exists(entryPath());
}

QString command(const QString &program, const QString &onPath)
{
    const QString canonical = QFileInfo(program).canonicalFilePath();
    if (!onPath.isEmpty() && !canonical.isEmpty() &&
        canonical == QFileInfo(onPath).canonicalFilePath())
        return kProgramName;
    return execArgument(QFileInfo(program).absoluteFilePath());
}

QByteArray entry(const QString &command)
{
    // Name and Icon are those of the application's own desktop entry, so that the desktop's
    // list of programs started at login shows it the same way.
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Vocari\n"
                          "Comment=Voice dictation, started at login\n"
                          "Exec=%1\n"
                          "Icon=vocari\n"
                          "Terminal=false\n"
                          "X-GNOME-Autostart-enabled=true\n")
        .arg(command)
        .toUtf8();
}

bool setEnabled(bool enabled, QString *error)
{
    const QString path = entryPath();
    auto fail = [&](const QString &why) {
        if (error)
            *error = why;
        return false;
    };
    if (!enabled) {
        if (QFileInfo::exists(path) && !QFile::remove(path))
            return fail(QStringLiteral("Could not remove %1.").arg(path));
        return true;
    }
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return fail(QStringLiteral("Could not create the folder of %1.").arg(path));
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return fail(QStringLiteral("Could not write %1: %2").arg(path, file.errorString()));
    file.write(entry(command(QCoreApplication::applicationFilePath(),
                             QStandardPaths::findExecutable(kProgramName))));
    if (!file.commit())
        return fail(QStringLiteral("Could not write %1: %2").arg(path, file.errorString()));
    return true;
}

} // namespace vocari::LoginItem
