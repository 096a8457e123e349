#include "ui/AboutTab.h"
#include "ui/PermissionRow.h"
#include "ui/PermissionsTab.h"
#include "ui/SoundSettings.h"
#include "ui/TabTestSupport.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QPushButton>
#include <QTemporaryDir>

using namespace vocari;
using namespace vocari::test;

namespace {

// PATH on a folder of the test's own, holding programs that note their arguments.
class ScopedPath
{
public:
    ScopedPath() : m_saved(qgetenv("PATH")) { qputenv("PATH", m_dir.path().toUtf8()); }
    ~ScopedPath() { qputenv("PATH", m_saved); }

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

class PermissionsTabTest : public TabFixture<PermissionsTab>
{
protected:
    PermissionRow *microphone() { return named<PermissionRow>(m_tab.get(), "Microphone"); }
    PermissionRow *inputAccess() { return named<PermissionRow>(m_tab.get(), "Input access"); }
    QPushButton *openSettings() { return named<QPushButton>(m_tab.get(), "Open Settings"); }
    void setAccess(bool granted, const QString &why = {})
    {
        m_desktop->access = {granted, why};
        m_model->refreshPermissions();
    }
};

TEST_F(PermissionsTabTest, MissingInputAccessIsExplainedWithoutASettingsButton)
{
    EXPECT_TRUE(showsText(m_tab.get(), PermissionsTab::kFooter));
    EXPECT_TRUE(inputAccess()->granted());
    EXPECT_EQ(inputAccess()->note(), QString());

    const QString why = QStringLiteral("No X display is reachable (DISPLAY is not set).");
    setAccess(false, why);
    EXPECT_FALSE(inputAccess()->granted());
    EXPECT_EQ(inputAccess()->accessibleDescription(), "Missing");
    EXPECT_TRUE(inputAccess()->note().startsWith(why)) << inputAccess()->note().toStdString();
    EXPECT_TRUE(inputAccess()->note().contains(QStringLiteral("vocari toggle")));
    const auto visibleButtons = [this] {
        qsizetype count = 0;
        for (const QPushButton *button : m_tab->findChildren<QPushButton *>())
            count += button->isVisibleTo(m_tab.get());
        return count;
    };
    EXPECT_EQ(visibleButtons(), 1); // the microphone's only

    // A desktop prompt the user declined is not shown again until asked for.
    m_desktop->wasDeclined = true;
    setAccess(false, QStringLiteral("Keyboard access was declined on the desktop's prompt."));
    QPushButton *askAgain = named<QPushButton>(m_tab.get(), "Ask again for input access");
    ASSERT_TRUE(askAgain);
    EXPECT_TRUE(askAgain->isVisibleTo(m_tab.get()));
    askAgain->click();
    EXPECT_EQ(m_desktop->askedAgain, 1);
    EXPECT_FALSE(askAgain->isVisibleTo(m_tab.get()));

    setAccess(true);
    EXPECT_TRUE(inputAccess()->granted());
    EXPECT_EQ(inputAccess()->note(), QString());
    EXPECT_EQ(inputAccess()->accessibleDescription(), "Granted");

    // A desktop that binds the key itself says which key it chose; the tab follows.
    m_keys->trigger = QStringLiteral("Ctrl+Alt+D");
    m_model->refreshPermissions();
    EXPECT_EQ(inputAccess()->note(),
              QStringLiteral("The desktop starts a dictation with Ctrl+Alt+D."));
    // ...and what is wrong with it.
    m_keys->warning = QStringLiteral("The desktop starts a dictation with Ctrl+Alt+D, not F8.");
    m_model->refreshPermissions();
    EXPECT_EQ(inputAccess()->note(),
              QStringLiteral("The desktop starts a dictation with Ctrl+Alt+D.\nThe desktop starts "
                             "a dictation with Ctrl+Alt+D, not F8."));
}

TEST_F(PermissionsTabTest, ReadingTheKeyboardsIsOfferedOnWaylandAndOffUntilChosen)
{
    const auto option = [this] { return m_tab->findChild<QCheckBox *>("readKeyboards"); };
    ASSERT_TRUE(option());
    EXPECT_FALSE(option()->isVisibleTo(m_tab.get())) << "an X11 session sees every key anyway";

    m_tab.reset();
    m_offersKeyboardReading = true;
    makeModel();
    makeTab();
    ASSERT_TRUE(option()->isVisibleTo(m_tab.get()));
    EXPECT_FALSE(option()->isChecked());
    EXPECT_TRUE(option()->accessibleDescription().contains(QStringLiteral("every key you press")));
    // Chosen with the keyboard, it is kept for the next start.
    option()->setFocus();
    QTest::keyClick(option(), Qt::Key_Space);
    EXPECT_TRUE(option()->isChecked());
    EXPECT_TRUE(m_settings.store().value(QStringLiteral("keys.readKeyboards")).toBool());
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
    EXPECT_EQ(PermissionsTab::deviceInUse(inputs, QString(), true, "Webcam"),
              "Using the system default, \u201CWebcam\u201D.");
    EXPECT_EQ(PermissionsTab::deviceInUse(inputs, "gone", true, "Webcam"),
              "The chosen microphone is not connected. Using the system default, "
              "\u201CWebcam\u201D.");
    EXPECT_EQ(PermissionsTab::deviceInUse(inputs, "a", false, QString()),
              "Using \u201CHeadset\u201D.");
}

TEST_F(PermissionsTabTest, OpenSettingsStartsTheFirstSoundSettingsProgramFound)
{
    ScopedPath path;
    path.addProgram(QStringLiteral("pavucontrol"));
    path.addProgram(QStringLiteral("gnome-control-center"));
    makeTab();
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_EQ(report.controls, 1);

    QPushButton *open = openSettings();
    ASSERT_TRUE(open->isEnabled());
    open->setFocus(Qt::TabFocusReason);
    QTest::keyClick(open, Qt::Key_Space);
    const QString ran = path.ranFile("gnome-control-center");
    ASSERT_TRUE(waitUntil([&] { return QFileInfo(ran).size() > 0; }));
    QFile file(ran);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll().trimmed(), "sound");
    EXPECT_FALSE(QFile::exists(path.ranFile("pavucontrol")));
}

TEST_F(PermissionsTabTest, WithoutSoundSettingsTheButtonIsDisabledUntilOneIsInstalled)
{
    ScopedPath path;
    makeTab();
    EXPECT_FALSE(openSettings()->isEnabled());
    EXPECT_EQ(openSettings()->toolTip(), SoundSettings::missingMessage());

    path.addProgram(QStringLiteral("pavucontrol"));
    m_tab->hide();
    m_tab->show();
    EXPECT_TRUE(openSettings()->isEnabled());
    const std::optional<SoundSettings::Command> command = SoundSettings::find();
    ASSERT_TRUE(command);
    EXPECT_TRUE(command->program.endsWith(QStringLiteral("/pavucontrol")));
    EXPECT_TRUE(command->arguments.isEmpty());
}

class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
public slots:
    void open(const QUrl &url) { opened.append(url); }
};

using AboutTabTest = TabFixture<AboutTab>;

TEST_F(AboutTabTest, ShowsTheLogoAndVersion)
{
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("Version " VOCARI_TEST_VERSION)));
    const QImage picture = named<QLabel>(m_tab.get(), "Vocari logo")->pixmap().toImage();
    ASSERT_FALSE(picture.isNull());
    EXPECT_GT(qAlpha(picture.pixel(picture.width() / 2, picture.height() / 4)), 200);
    EXPECT_EQ(qAlpha(picture.pixel(0, 0)), 0);
}

TEST_F(AboutTabTest, TheProjectLinkIsReachedAndOpensWithTheKeyboard)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_EQ(report.controls, 1);

    UrlCatcher catcher;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");
    auto *link = named<QPushButton>(m_tab.get(), "Project page");
    link->setFocus(Qt::TabFocusReason);
    QTest::keyClick(link, Qt::Key_Return);
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    ASSERT_EQ(catcher.opened.size(), 1);
    EXPECT_EQ(catcher.opened.front(), AboutTab::projectPage());
}

} // namespace

#include "PermissionsAboutTest.moc"
