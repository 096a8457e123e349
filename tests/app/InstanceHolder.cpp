// A running Vocari as far as the bus can tell, in a process of its own, for the tests: claims
// the name on the bus at the given address, prints the outcome and then each command it
// receives, a line each, and quits on Quit. With --exit-in-handler it ends abruptly inside the
// first command's handler, before the call is answered.

#include "app/InstanceBus.h"

#include <QCoreApplication>
#include <QTextStream>
#include <unistd.h>

using namespace vocari;

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() < 2)
        return 2;
    const bool exitInHandler = arguments.contains(QStringLiteral("--exit-in-handler"));

    QTextStream out(stdout);
    InstanceBus instance(QDBusConnection::connectToBus(arguments[1], QStringLiteral("holder")));
    const InstanceBus::Claim claim = instance.claim([&](ControlCommand command) {
        out << methodName(command) << Qt::endl;
        if (exitInHandler)
            ::_exit(0);
        if (command == ControlCommand::quit)
            QCoreApplication::quit();
    });
    switch (claim) {
    case InstanceBus::Claim::owned:
        out << "owned" << Qt::endl;
        return app.exec();
    case InstanceBus::Claim::alreadyRunning:
        out << "alreadyRunning" << Qt::endl;
        return 1;
    case InstanceBus::Claim::noBus:
        out << "noBus " << instance.errorString() << Qt::endl;
        return 1;
    }
    return 1;
}
