#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace vocari {

// The desktop's own sound settings, where the user picks and checks the microphone: the
// first program found on PATH among GNOME's and KDE's settings and the PulseAudio mixer.
namespace SoundSettings {

struct Command
{
    QString program; // the full path found on PATH
    QStringList arguments;
};

// The command that opens the sound settings, or none when no such program is installed.
std::optional<Command> find();

// Starts that program on its own, outside this process; false when there is none or it does
// not start.
bool open();

// Says which programs were looked for, for when none was found.
QString missingMessage();

} // namespace SoundSettings
} // namespace vocari
