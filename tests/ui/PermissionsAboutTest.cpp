#include "ui/AboutTab.h"
#include "ui/PermissionRow.h"
#include "ui/PermissionsTab.h"
#include "ui/SoundSettings.h"
#include "ui/TabTestSupport.h"

#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QPushButton>
#include <QTemporaryDir>

using namespace vocari;
using namespace vocari::test;

namespace {

// Puts PATH on a folder of the test's own for as long as it lives, where the test lays out
// stand-ins for the desktops' settings programs.
class ScopedPath
{
public:
    ScopedPath() : m_saved(qgetenv("PATH")) { qputenv("PATH", m_dir.path().toUtf8()); }
    ~ScopedPath() { qputenv("PATH", m_saved); }

    // A program that notes its arguments in `<name>.ran` beside itself.
    void addProgram(const QString &name)
    {
        QFile program(m_dir.filePath(name));
        ASSERT_TRUE(program.open(QIODevice::WriteOnly));
        program.write(QStringLiteral("#!/bin/sh\necho \"$@\" > '%1.ran'\n")
                          .arg(m_dir.filePath(name))
                          .toUtf8());
        program.close();
        program.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QString ranFile(const QString &name) const { return m_dir.filePath(name + ".ran"); }

private:
    QByteArray m_saved;
    QTemporaryDir m_dir;
};

// ----- Permissions tab --------------------------------------------------------------------

class PermissionsTabTest : public TabFixture<PermissionsTab>
{
protected:
    PermissionRow *row(const QString &title) { return named<PermissionRow>(m_tab.get(), title); }
    PermissionRow *microphone() { return row(QStringLiteral("Microphone")); }
    PermissionRow *inputAccess() { return row(QStringLiteral("Input access")); }
    QPushButton *openSettings()
    {
        return named<QPushButton>(m_tab.get(), QStringLiteral("Open Settings"));
    }

    void loseInputAccess(const QString &why)
    {
        m_desktop->access = {false, why};
        m_model->refreshPermissions();
    }
};

TEST_F(PermissionsTabTest, MissingInputAccessIsExplainedInPlainWordsWithoutASettingsButton)
{
    EXPECT_TRUE(inputAccess()->granted());
    EXPECT_EQ(inputAccess()->note(), QString());

    const QString why = QStringLiteral("No X display is reachable (DISPLAY is not set).");
    loseInputAccess(why);
    EXPECT_FALSE(inputAccess()->granted());
    EXPECT_EQ(inputAccess()->accessibleDescription(), "Missing");
    EXPECT_TRUE(inputAccess()->note().startsWith(why)) << inputAccess()->note().toStdString();
    EXPECT_TRUE(inputAccess()->note().contains(QStringLiteral("vocari toggle")));
    // Only the microphone row has a button: there is no settings page to open for this.
    EXPECT_EQ(m_tab->findChildren<QPushButton *>().size(), 1);

    // Given back while the tab is open, the row turns green by itself.
    m_desktop->access = {true, {}};
    m_model->refreshPermissions();
    EXPECT_TRUE(inputAccess()->granted());
    EXPECT_EQ(inputAccess()->note(), QString());
    EXPECT_EQ(inputAccess()->accessibleDescription(), "Granted");
}

TEST_F(PermissionsTabTest, TheMicrophoneRowNamesTheDeviceInUseAndFollowsDevices)
{
    EXPECT_TRUE(microphone()->granted());
    EXPECT_EQ(microphone()->note(), "Using the system default microphone.");

    store(SettingsKey::inputDevice, QStringLiteral("built-in"));
    EXPECT_EQ(microphone()->note(), "Using \u201C"
                                    "Built-in\u201D.");

    editFile(SettingsKey::inputDevice, QStringLiteral("usb-mic"));
    EXPECT_EQ(microphone()->note(),
              "The chosen microphone is not connected. Using the system default microphone.");

    // Plugged in: the row names it without any action of the user's.
    m_audio->devices.append({QStringLiteral("usb-mic"), QStringLiteral("USB Microphone")});
    emit m_audio->configurationChanged();
    EXPECT_EQ(microphone()->note(), "Using \u201CUSB Microphone\u201D.");

    m_audio->devices.clear();
    m_audio->defaultInput = false;
    emit m_audio->configurationChanged();
    EXPECT_EQ(microphone()->note(), kNoInputMessage);
}

TEST(PermissionsDevice, TheSystemDefaultIsNamedWhenKnown)
{
    const QList<InputDevices::Device> inputs{{"a", "Headset"}, {"b", "Webcam"}};
    EXPECT_EQ(PermissionsTab::deviceInUse(inputs, QString(), true, QStringLiteral("Webcam")),
              "Using the system default, \u201CWebcam\u201D.");
    EXPECT_EQ(
        PermissionsTab::deviceInUse(inputs, QStringLiteral("gone"), true, QStringLiteral("Webcam")),
        "The chosen microphone is not connected. Using the system default, "
        "\u201CWebcam\u201D.");
    EXPECT_EQ(PermissionsTab::deviceInUse(inputs, QStringLiteral("a"), false, QString()),
              "Using \u201CHeadset\u201D.");
}

TEST_F(PermissionsTabTest, OpenSettingsStartsTheFirstSoundSettingsProgramFound)
{
    ScopedPath path;
    path.addProgram(QStringLiteral("pavucontrol"));
    path.addProgram(QStringLiteral("gnome-control-center"));
    makeTab();
    QPushButton *open = openSettings();
    ASSERT_TRUE(open->isEnabled());
    open->setFocus(Qt::TabFocusReason);
    QTest::keyClick(open, Qt::Key_Space);
    // GNOME's settings come first, opened on their sound page; the mixer is left alone.
    ASSERT_TRUE(waitUntil([&] { return QFile::exists(path.ranFile("gnome-control-center")); }));
    ASSERT_TRUE(
        waitUntil([&] { return QFileInfo(path.ranFile("gnome-control-center")).size() > 0; }));
    QFile ran(path.ranFile("gnome-control-center"));
    ASSERT_TRUE(ran.open(QIODevice::ReadOnly));
    EXPECT_EQ(ran.readAll().trimmed(), "sound");
    EXPECT_FALSE(QFile::exists(path.ranFile("pavucontrol")));
}

TEST_F(PermissionsTabTest, WithoutSoundSettingsTheButtonIsDisabledAndSaysWhy)
{
    ScopedPath path;
    makeTab();
    EXPECT_FALSE(openSettings()->isEnabled());
    EXPECT_EQ(openSettings()->toolTip(), SoundSettings::missingMessage());

    // Installed later: the tab looks again when it is shown.
    path.addProgram(QStringLiteral("pavucontrol"));
    m_tab->hide();
    m_tab->show();
    EXPECT_TRUE(openSettings()->isEnabled());
    const std::optional<SoundSettings::Command> command = SoundSettings::find();
    ASSERT_TRUE(command);
    EXPECT_TRUE(command->program.endsWith(QStringLiteral("/pavucontrol")));
    EXPECT_TRUE(command->arguments.isEmpty());
}

TEST_F(PermissionsTabTest, TheFooterSaysAudioStaysOnThisComputer)
{
    EXPECT_TRUE(showsText(m_tab.get(), PermissionsTab::kFooter));
}

TEST_F(PermissionsTabTest, EveryControlIsReachedWithTabAndNamed)
{
    ScopedPath path;
    path.addProgram(QStringLiteral("pavucontrol"));
    makeTab();
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_EQ(report.controls, 1); // "Open Settings"
}

// ----- About tab --------------------------------------------------------------------------

// Receives the addresses the tab asks the desktop to open.
class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
public slots:
    void open(const QUrl &url) { opened.append(url); }
};

class AboutTabTest : public TabFixture<AboutTab>
{
};

TEST_F(AboutTabTest, ShowsTheLogoNameVersionAndDescription)
{
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("Vocari")));
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("Version " VOCARI_TEST_VERSION)));
    EXPECT_TRUE(showsText(m_tab.get(), AboutTab::kDescription));
    auto *logo = named<QLabel>(m_tab.get(), QStringLiteral("Vocari logo"));
    const QImage picture = logo->pixmap().toImage();
    ASSERT_FALSE(picture.isNull());
    // Drawn from the SVG: the badge's colour fills the middle, the corners stay clear.
    EXPECT_GT(qAlpha(picture.pixel(picture.width() / 2, picture.height() / 4)), 200);
    EXPECT_EQ(qAlpha(picture.pixel(0, 0)), 0);
}

TEST_F(AboutTabTest, TheProjectLinkOpensWithTheKeyboard)
{
    UrlCatcher catcher;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");
    auto *link = named<QPushButton>(m_tab.get(), QStringLiteral("Project page"));
    EXPECT_TRUE(link->focusPolicy() & Qt::TabFocus);
    EXPECT_EQ(link->cursor().shape(), Qt::PointingHandCursor);
    link->setFocus(Qt::TabFocusReason);
    QTest::keyClick(link, Qt::Key_Return);
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    ASSERT_EQ(catcher.opened.size(), 1);
    EXPECT_EQ(catcher.opened.front(), AboutTab::projectPage());
}

TEST_F(AboutTabTest, EveryControlIsReachedWithTabAndNamed)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_EQ(report.controls, 1); // the project link
}

} // namespace

#include "PermissionsAboutTest.moc"
