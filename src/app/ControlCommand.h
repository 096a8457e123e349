#pragma once

#include <QString>
#include <QStringView>
#include <optional>

namespace vocari {

// What one start of vocari can ask of the instance already running: the words of its command
// line ("vocari toggle") and the D-Bus methods they become.
enum class ControlCommand
{
    showSettings,
    toggle,
    start,
    stop,
    cancel,
    quit
};

// The command a command-line word names: "settings", "toggle", "start", "stop", "cancel" or
// "quit", exactly so; none for anything else.
std::optional<ControlCommand> parseControlCommand(QStringView word);

// The D-Bus method that carries the command: "ShowSettings", "Toggle", ...
QString methodName(ControlCommand command);

} // namespace vocari
