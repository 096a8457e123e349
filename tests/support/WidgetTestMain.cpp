#include <QApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

// A main() for the tests of widgets and of the application model, which owns a HUD window:
// they need a QApplication rather than the plain core application of the other tests, and the
// model store looks for models under a data folder of their own.
int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir data;
    qputenv("XDG_DATA_HOME", data.path().toUtf8());
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
