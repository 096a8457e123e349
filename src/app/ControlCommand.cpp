#include "app/ControlCommand.h"

#include <array>

namespace vocari {

namespace {

struct Names
{
    ControlCommand command;
    const char16_t *word;
    const char16_t *method;
};

constexpr std::array<Names, 6> names{{
    {ControlCommand::showSettings, u"settings", u"ShowSettings"},
    {ControlCommand::toggle, u"toggle", u"Toggle"},
    {ControlCommand::start, u"start", u"Start"},
    {ControlCommand::stop, u"stop", u"Stop"},
    {ControlCommand::cancel, u"cancel", u"Cancel"},
    {ControlCommand::quit, u"quit", u"Quit"},
}};

} // namespace

std::optional<ControlCommand> parseControlCommand(QStringView word)
{
    for (const Names &entry : names) {
        if (word == QStringView(entry.word))
            return entry.command;
    }
    return std::nullopt;
}

QString methodName(ControlCommand command)
{
    for (const Names &entry : names) {
        if (entry.command == command)
            return QString::fromUtf16(entry.method);
    }
    return {};
}

} // namespace vocari
