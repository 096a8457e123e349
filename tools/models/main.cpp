// vocari-models: manages Vocari's speech models from a terminal, through the same model store
// as the settings window: lists the engines with their states and sizes, downloads a model
// from the model hub with a progress bar, removes one, adds a model folder or a hub
// repository, and selects the engine for dictation.

#include "ModelsCommand.h"
#include "models/ModelStore.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QLoggingCategory>
#include <algorithm>
#include <cstdio>

using namespace vocari;

namespace {

const char *const kCommands =
    "Commands:\n"
    "  list                   the engines, their states and sizes (* marks the selected one)\n"
    "  install ID             download an engine's model and select it\n"
    "  remove ID              delete a download, or remove a custom engine from the list\n"
    "  add-folder DIR         add a model folder, used in place, and select it\n"
    "  add-hub OWNER/NAME     add a hub repository and download it\n"
    "  select ID              use an installed engine for dictation\n"
    "\n"
    "Downloads come from $HF_ENDPOINT (default https://huggingface.co); $HF_TOKEN, when set,\n"
    "is sent to it. Models live in $XDG_DATA_HOME/vocari/models.";

struct Usage
{
    QString command;
    int arguments; // positional arguments after the command
};

int usageError(const QString &message)
{
    std::fprintf(stderr, "vocari-models: %s\nTry \"vocari-models --help\".\n", qPrintable(message));
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vocari-models"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VOCARI_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Manages Vocari's speech models.\n\n") +
                                     QString::fromLatin1(kCommands));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption nameOption(QStringLiteral("name"),
                                        QStringLiteral("The display name of an added engine."),
                                        QStringLiteral("NAME"));
    parser.addOption(nameOption);
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("Log each step of a download."));
    parser.addOption(verboseOption);
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("What to do."),
                                 QStringLiteral("COMMAND [ARGUMENT]"));
    if (!parser.parse(QCoreApplication::arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        std::fprintf(stdout, "%s", qPrintable(parser.helpText()));
        return 0;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        std::fprintf(stdout, "vocari-models %s\n", VOCARI_VERSION);
        return 0;
    }

    const QStringList positional = parser.positionalArguments();
    if (positional.isEmpty())
        return usageError(QStringLiteral("Name a command: list, install, remove, add-folder, "
                                         "add-hub or select."));
    const QString command = positional.front();
    const QStringList arguments = positional.mid(1);
    const Usage usages[] = {{"list", 0},       {"install", 1}, {"remove", 1},
                            {"add-folder", 1}, {"add-hub", 1}, {"select", 1}};
    const auto usage = std::find_if(std::begin(usages), std::end(usages),
                                    [&](const Usage &u) { return u.command == command; });
    if (usage == std::end(usages))
        return usageError(QStringLiteral("Unknown command \u201c%1\u201d.").arg(command));
    if (arguments.size() != usage->arguments)
        return usageError(usage->arguments == 0
                              ? QStringLiteral("\u201c%1\u201d takes no argument.").arg(command)
                              : QStringLiteral("\u201c%1\u201d takes one argument.").arg(command));
    if (parser.isSet(nameOption) && command != QLatin1String("add-folder") &&
        command != QLatin1String("add-hub"))
        return usageError(QStringLiteral("--name goes with add-folder and add-hub only."));

    // The store's log lines would break up the progress bar; they are there on request.
    if (!parser.isSet(verboseOption))
        QLoggingCategory::setFilterRules(QStringLiteral("vocari.*.info=false"));

    ModelStore store(ModelStore::Options{{}, /*preload=*/false});
    ModelsCommand commands(store);
    const QString argument = arguments.value(0);
    const QString name = parser.value(nameOption);
    if (command == QLatin1String("list"))
        return commands.list();
    if (command == QLatin1String("install"))
        return commands.install(argument);
    if (command == QLatin1String("remove"))
        return commands.remove(argument);
    if (command == QLatin1String("add-folder"))
        return commands.addFolder(argument, name);
    if (command == QLatin1String("add-hub"))
        return commands.addHub(argument, name);
    return commands.select(argument);
}
