#include "ui/SoundSettings.h"

#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <array>

Q_LOGGING_CATEGORY(lcSoundSettings, "vocari.ui")

namespace vocari::SoundSettings {

namespace {

struct Candidate
{
    const char *program;
    const char *argument; // the page for sound, where the program has pages
};

// In order of preference: GNOME, KDE Plasma, then the mixer that works on any desktop.
constexpr std::array kCandidates{
    Candidate{"gnome-control-center", "sound"},
    Candidate{"systemsettings", "kcm_pulseaudio"},
    Candidate{"pavucontrol", nullptr},
};

} // namespace

std::optional<Command> find()
{
    for (const Candidate &candidate : kCandidates) {
        const QString path = QStandardPaths::findExecutable(QString::fromLatin1(candidate.program));
        if (path.isEmpty())
            continue;
        Command command{path, {}};
        if (candidate.argument)
            command.arguments.append(QString::fromLatin1(candidate.argument));
        return command;
    }
    return std::nullopt;
}

bool open()
{
    const std::optional<Command> command = find();
    if (!command)
        return false;
    if (QProcess::startDetached(command->program, command->arguments))
        return true;
    qCWarning(lcSoundSettings).noquote() << "could not start" << command->program;
    return false;
}

QString missingMessage()
{
    return QStringLiteral("No sound settings found: install gnome-control-center, "
                          "systemsettings or pavucontrol.");
}

} // namespace vocari::SoundSettings
