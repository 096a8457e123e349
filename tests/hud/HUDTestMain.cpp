#include <QApplication>
#include <gtest/gtest.h>

// Widgets need a QApplication rather than the plain core application of the other tests.
int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Nothing here needs a display; listing the tests must work without one too.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
