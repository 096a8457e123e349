// vocari-test-hub: the tests' model hub as a program, for trying downloads by hand:
//
//     vocari-test-hub REPOSITORY FOLDER
//
// serves FOLDER as REPOSITORY on a free loopback port (every file through a redirect), prints
// the address to use as HF_ENDPOINT, and runs until interrupted.

#include "HubTestServer.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.size() != 2 || !QFileInfo(arguments[1]).isDir()) {
        std::fprintf(stderr, "usage: vocari-test-hub REPOSITORY FOLDER\n");
        return 2;
    }
    vocari::test::HubTestServer server;
    server.addFolder(arguments[0], arguments[1]);
    if (!server.start()) {
        std::fprintf(stderr, "vocari-test-hub: cannot listen on the loopback interface\n");
        return 1;
    }
    std::printf("%s\n", qPrintable(server.address()));
    std::fflush(stdout);
    return QCoreApplication::exec();
}
