// vocari: the dictation application in the tray, or, with a command word, a remote control
// for the one that is running.

#include "app/AppLog.h"
#include "app/ControlCommand.h"
#include "app/InstanceBus.h"
#include "app/VocariApp.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QIcon>
#include <QPointer>
#include <cstdio>
#include <cstdlib>

using namespace vocari;

namespace {

const char *const kCommandsHelp =
    "Commands, for the Vocari that is running:\n"
    "  settings  open its settings window\n"
    "  toggle    start a dictation, or end the one that runs\n"
    "  start     start a dictation\n"
    "  stop      end the dictation and insert its text\n"
    "  cancel    drop the dictation\n"
    "  quit      quit Vocari\n"
    "Bind \"vocari toggle\" to a shortcut in your desktop's keyboard settings where the\n"
    "dictation key cannot be watched.";

// Messages go to standard error one line each, with their category, as journald keeps them.
void setUpLogging()
{
    qSetMessagePattern(QStringLiteral("%{if-category}%{category}: %{endif}%{message}"));
}

// Sends the command to the running Vocari and ends the process: 0 when it was handled, else 1
// after one line saying why. The bus connection's own thread may still be winding down at a
// normal exit and print stray warnings after the answer; this process has nothing to clean up,
// so it ends at once.
[[noreturn]] void sendCommandAndExit(ControlCommand command)
{
    const QString error = sendControlCommand(command);
    if (!error.isEmpty())
        std::fprintf(stderr, "vocari: %s\n", qUtf8Printable(error));
    std::fflush(nullptr);
    std::_Exit(error.isEmpty() ? 0 : 1);
}

} // namespace

int main(int argc, char **argv)
{
    QElapsedTimer started;
    started.start();
    setUpLogging();

    // A command needs neither a display nor widgets: only the session bus.
    {
        QCoreApplication parsing(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("vocari"));
        QCoreApplication::setApplicationVersion(QStringLiteral(VOCARI_VERSION));
        QCommandLineParser parser;
        // The description is printed as it stands; the argument column would be wrapped at
        // an arbitrary width, in mid-sentence, so the commands are listed up here.
        parser.setApplicationDescription(
            QStringLiteral("Private voice dictation: hold the dictation key, speak, and the "
                           "text appears where you type.\n\n") +
            QString::fromUtf8(kCommandsHelp));
        parser.addHelpOption();
        parser.addVersionOption();
        parser.addPositionalArgument(QStringLiteral("command"),
                                     QStringLiteral("One of the commands above."),
                                     QStringLiteral("[command]"));
        parser.process(parsing);
        const QStringList words = parser.positionalArguments();
        if (words.size() > 1) {
            std::fprintf(stderr, "vocari: one command at a time; see vocari --help\n");
            return 2;
        }
        if (words.size() == 1) {
            const std::optional<ControlCommand> command = parseControlCommand(words.first());
            if (!command) {
                std::fprintf(stderr, "vocari: unknown command \"%s\"; see vocari --help\n",
                             qUtf8Printable(words.first()));
                return 2;
            }
            sendCommandAndExit(*command);
        }
    }

    // The dictation key and text insertion go through X11, so the windows do as well: in a
    // Wayland session that is XWayland, where the HUD can also be placed where it belongs.
    const bool chooseX11 =
        !qEnvironmentVariableIsSet("QT_QPA_PLATFORM") && qEnvironmentVariableIsSet("DISPLAY");
    if (chooseX11)
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    // Programs opened from here (a file manager, the sound settings) choose for themselves.
    if (chooseX11)
        qunsetenv("QT_QPA_PLATFORM");
    QApplication::setApplicationName(QStringLiteral("vocari"));
    QApplication::setApplicationDisplayName(QStringLiteral("Vocari"));
    QApplication::setApplicationVersion(QStringLiteral(VOCARI_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("vocari"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/vocari/icons/vocari.svg")));
    // Closing the settings window leaves the application in the tray.
    QApplication::setQuitOnLastWindowClosed(false);

    // One Vocari per session: a second start shows the first one's settings and ends.
    QPointer<VocariApp> running;
    InstanceBus bus;
    switch (bus.claim([&running](ControlCommand received) {
        if (running)
            running->handle(received);
    })) {
    case InstanceBus::Claim::alreadyRunning:
        sendCommandAndExit(ControlCommand::showSettings);
    case InstanceBus::Claim::noBus:
        qCWarning(lcApp).noquote() << bus.errorString() << "Another start will not find this one.";
        break;
    case InstanceBus::Claim::owned:
        break;
    }

    VocariApp vocari(started);
    running = &vocari;
    return QApplication::exec();
}
