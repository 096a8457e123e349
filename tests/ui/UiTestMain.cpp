#include <QApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

// The tabs are widgets and the application model owns a HUD window, so these tests need a
// QApplication; the model store looks for models under a data folder of their own.
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
