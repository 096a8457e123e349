// The General tab and its key recorder, driven through clicks, the keyboard, and key events
// carrying the native scan codes the X11 platform delivers.

#include "ui/GeneralTab.h"

#include "app/AppFixture.h"
#include "hotkey/HotkeyRecorder.h"
#include "settings/Preferences.h"
#include "ui/AccessibilityCheck.h"
#include "ui/LoginItem.h"
#include "ui/MenuContent.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>
#include <gmock/gmock.h>

namespace vocari::test {
namespace {

using ::testing::ElementsAre;

constexpr std::uint16_t kD = 32;
constexpr std::uint16_t kF5 = 63;

// Counts the key events that reach a widget.
class KeyProbe : public QObject
{
public:
    int presses = 0;
    int releases = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        presses += event->type() == QEvent::KeyPress;
        releases += event->type() == QEvent::KeyRelease;
        return false;
    }
};

// Points XDG_CONFIG_HOME, where the autostart entry goes, at an empty folder.
class ScopedConfigHome
{
public:
    ScopedConfigHome() { qputenv("XDG_CONFIG_HOME", m_dir.path().toUtf8()); }
    ~ScopedConfigHome()
    {
        if (m_hadPrevious)
            qputenv("XDG_CONFIG_HOME", m_previous);
        else
            qunsetenv("XDG_CONFIG_HOME");
    }
    QString entryPath() const { return m_dir.path() + QStringLiteral("/autostart/vocari.desktop"); }

private:
    QByteArray m_previous = qgetenv("XDG_CONFIG_HOME");
    bool m_hadPrevious = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");
    QTemporaryDir m_dir;
};

QStringList items(QComboBox *combo)
{
    QStringList texts;
    for (int i = 0; i < combo->count(); ++i)
        texts.append(combo->itemText(i));
    return texts;
}

QMap<QString, QString> entryFields(const QByteArray &entry)
{
    QMap<QString, QString> fields;
    for (const QByteArray &line : entry.split('\n')) {
        const qsizetype equals = line.indexOf('=');
        if (equals > 0)
            fields.insert(QString::fromUtf8(line.left(equals)),
                          QString::fromUtf8(line.mid(equals + 1)));
    }
    return fields;
}

class GeneralTabTest : public AppFixture
{
protected:
    void SetUp() override
    {
        AppFixture::SetUp();
        makeTab();
    }
    void TearDown() override
    {
        m_tab.reset();
        AppFixture::TearDown();
    }

    void makeTab()
    {
        m_tab.reset();
        m_tab = std::make_unique<GeneralTab>(*m_model);
        m_tab->show();
        m_tab->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(m_tab.get()));
        m_recorder = m_tab->findChild<HotkeyRecorder *>();
        ASSERT_NE(m_recorder, nullptr);
        m_keyBox = m_recorder->keyBox();
        m_keyBox->installEventFilter(&m_probe);
    }

    template <typename T> T *control(const char *name)
    {
        T *found = m_tab->findChild<T *>(QLatin1String(name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    // As X11 delivers it: the Linux key code plus 8, and the modifiers held before the key moved.
    void key(QEvent::Type type, int qtKey, std::uint16_t code, Qt::KeyboardModifiers held)
    {
        QKeyEvent event(type, qtKey, held, code + 8, 0, 0);
        QApplication::sendEvent(m_keyBox, &event);
    }
    void press(int qtKey, std::uint16_t code, Qt::KeyboardModifiers held = {})
    {
        key(QEvent::KeyPress, qtKey, code, held);
    }
    void release(int qtKey, std::uint16_t code, Qt::KeyboardModifiers held = {})
    {
        key(QEvent::KeyRelease, qtKey, code, held);
    }

    void clickKeyBox() { QTest::mouseClick(m_keyBox, Qt::LeftButton); }
    bool monitorRunning() { return m_model->monitor().isRunning(); }
    void store(const char *key, const QJsonValue &value)
    {
        m_settings.store().setValue(QLatin1String(key), value);
    }
    QJsonValue stored(const char *key) { return m_settings.store().value(QLatin1String(key)); }

    ScopedConfigHome m_config;
    std::unique_ptr<GeneralTab> m_tab;
    HotkeyRecorder *m_recorder = nullptr;
    QPushButton *m_keyBox = nullptr;
    KeyProbe m_probe;
};

TEST_F(GeneralTabTest, RightAltAloneBecomesTheKeyWhileTheMonitorIsPaused)
{
    m_model->setHotkey(Hotkey{KeyCode::rightCtrl, 0, true});
    QSignalSpy recording(m_recorder, &HotkeyRecorder::recordingChanged);
    clickKeyBox();
    EXPECT_TRUE(m_model->recording());
    EXPECT_FALSE(monitorRunning()) << "the global monitor would take the key away";

    press(Qt::Key_Alt, KeyCode::rightAlt);
    EXPECT_TRUE(m_recorder->isRecording()) << "a modifier alone counts on release";
    release(Qt::Key_Alt, KeyCode::rightAlt, Qt::AltModifier);

    const Hotkey rightAlt{KeyCode::rightAlt, 0, true};
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Right Alt"));
    EXPECT_EQ(Preferences::hotkey(), rightAlt);
    EXPECT_EQ(m_model->hotkey(), rightAlt);
    EXPECT_FALSE(m_model->recording());
    EXPECT_TRUE(monitorRunning());
    ASSERT_EQ(recording.size(), 2);
    EXPECT_TRUE(recording[0][0].toBool());
    EXPECT_FALSE(recording[1][0].toBool());
    EXPECT_EQ(m_probe.presses + m_probe.releases, 0) << "the recorded key reached the window";
}

TEST_F(GeneralTabTest, PlainDShowsTheHintThenCtrlAltDAndAltGrDAreAccepted)
{
    clickKeyBox();
    press(Qt::Key_D, kD);
    release(Qt::Key_D, kD);
    auto *hint = control<QLabel>("dictationKeyHint");
    EXPECT_TRUE(m_recorder->isRecording());
    EXPECT_TRUE(hint->isVisible());
    EXPECT_EQ(hint->text(), HotkeyRecorder::kHint);
    EXPECT_EQ(m_model->hotkey(), Hotkey::defaultKey());

    press(Qt::Key_Control, KeyCode::leftCtrl);
    press(Qt::Key_Alt, KeyCode::leftAlt, Qt::ControlModifier);
    press(Qt::Key_D, kD, Qt::ControlModifier | Qt::AltModifier);
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kD, Modifier::control | Modifier::alt, false}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Ctrl+Alt+D"));
    EXPECT_TRUE(monitorRunning());
    EXPECT_EQ(m_recorder->hint(), HotkeyRecorder::kHint) << "kept until recording starts again";

    clickKeyBox();
    EXPECT_TRUE(m_recorder->hint().isEmpty());
    EXPECT_FALSE(hint->isVisible());
    // Where Right Alt chooses a third level, Qt reports no Alt modifier for it.
    press(Qt::Key_AltGr, KeyCode::rightAlt);
    press(Qt::Key_D, kD, Qt::GroupSwitchModifier);
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kD, Modifier::alt, false}));
}

TEST_F(GeneralTabTest, SecondModifierCancelsTheModifierOnlyKeyAndCapsLockIsPassedOn)
{
    clickKeyBox();
    press(Qt::Key_Shift, KeyCode::leftShift);
    press(Qt::Key_Meta, KeyCode::leftSuper, Qt::ShiftModifier);
    release(Qt::Key_Meta, KeyCode::leftSuper, Qt::ShiftModifier | Qt::MetaModifier);
    release(Qt::Key_Shift, KeyCode::leftShift, Qt::ShiftModifier);
    EXPECT_TRUE(m_recorder->isRecording()) << "neither modifier was alone";
    EXPECT_EQ(m_model->hotkey(), Hotkey::defaultKey());

    press(Qt::Key_Control, KeyCode::rightCtrl);
    release(Qt::Key_Control, KeyCode::rightCtrl, Qt::ControlModifier);
    EXPECT_EQ(m_model->hotkey(), (Hotkey{KeyCode::rightCtrl, 0, true}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Right Ctrl"));

    clickKeyBox();
    press(Qt::Key_CapsLock, KeyCode::capsLock);
    release(Qt::Key_CapsLock, KeyCode::capsLock);
    EXPECT_TRUE(m_recorder->isRecording());
    EXPECT_TRUE(m_recorder->hint().isEmpty());
    EXPECT_EQ(m_probe.presses, 1);
    EXPECT_EQ(m_probe.releases, 1);

    press(Qt::Key_Alt, KeyCode::rightAlt);
    press(Qt::Key_CapsLock, KeyCode::capsLock, Qt::AltModifier);
    release(Qt::Key_Alt, KeyCode::rightAlt, Qt::AltModifier);
    EXPECT_EQ(m_model->hotkey(), (Hotkey{KeyCode::rightAlt, 0, true})) << "Alt still alone";
}

TEST_F(GeneralTabTest, F5IsAcceptedAloneAndEscapeCancelsUnseenByTheWindow)
{
    clickKeyBox();
    press(Qt::Key_F5, kF5);
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kF5, 0, false}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("F5"));
    EXPECT_TRUE(m_recorder->hint().isEmpty());

    clickKeyBox();
    press(Qt::Key_Escape, KeyCode::escape);
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kF5, 0, false}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("F5"));
    EXPECT_EQ(m_probe.presses, 0);
    EXPECT_TRUE(monitorRunning());
}

TEST_F(GeneralTabTest, SecondClickKeyboardStartHidingAndDestroyingEndRecording)
{
    QSignalSpy recording(m_recorder, &HotkeyRecorder::recordingChanged);
    clickKeyBox();
    press(Qt::Key_Control, KeyCode::leftCtrl);
    clickKeyBox();
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Right Alt"));
    EXPECT_EQ(recording.size(), 2);
    EXPECT_TRUE(monitorRunning());
    release(Qt::Key_Control, KeyCode::leftCtrl, Qt::ControlModifier);
    EXPECT_EQ(m_model->hotkey(), Hotkey::defaultKey());
    EXPECT_EQ(m_probe.releases, 1) << "keys after the cancel are the window's again";

    for (Qt::Key start : {Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter}) {
        QTest::keyClick(m_keyBox, start);
        EXPECT_TRUE(m_recorder->isRecording()) << QKeySequence(start).toString().toStdString();
        press(Qt::Key_Escape, KeyCode::escape);
    }

    clickKeyBox();
    ASSERT_FALSE(monitorRunning());
    m_tab->hide();
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_TRUE(monitorRunning());
    m_tab->show();
    clickKeyBox();
    m_tab.reset();
    EXPECT_FALSE(m_model->recording());
    EXPECT_TRUE(monitorRunning());
}

TEST_F(GeneralTabTest, PresetSetsTheKeyAndTheMenuFollowsInToggleMode)
{
    QMenu trayMenu;
    MenuContent menuContent(
        *m_model, trayMenu, [] {}, [] {});
    auto *presets = control<QToolButton>("presets");
    EXPECT_FALSE(accessibleName(presets).isEmpty());
    QStringList offered;
    for (QAction *action : presets->menu()->actions())
        offered.append(action->text());
    EXPECT_THAT(offered,
                ElementsAre(QStringLiteral("Right Alt"), QStringLiteral("Right Ctrl"),
                            QStringLiteral("Right Super"), QStringLiteral("Ctrl+Alt+Space")));

    presets->menu()->actions().last()->trigger();
    const Hotkey ctrlAltSpace{KeyCode::space, Modifier::control | Modifier::alt, false};
    EXPECT_EQ(m_model->hotkey(), ctrlAltSpace);
    EXPECT_EQ(Preferences::hotkey(), ctrlAltSpace);
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Ctrl+Alt+Space"));

    QTest::mouseClick(control<QPushButton>("recordMode.toggle"), Qt::LeftButton);
    settle();
    QStringList lines;
    for (QAction *action : trayMenu.actions())
        lines.append(action->text());
    EXPECT_TRUE(lines.contains(QStringLiteral("Press Ctrl+Alt+Space to start, again to stop")))
        << lines.join(QStringLiteral(" | ")).toStdString();

    store(SettingsKey::hotkey, Hotkey{kF5, Modifier::shift, false}.toJson());
    settle();
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Shift+F5")) << "a key stored elsewhere is shown";
}

TEST_F(GeneralTabTest, RecordingModeChangesTheCancelLineAndFollowsTheFile)
{
    auto *hold = control<QPushButton>("recordMode.hold");
    auto *toggle = control<QPushButton>("recordMode.toggle");
    auto *cancel = control<QLabel>("cancelHint");
    EXPECT_TRUE(hold->isChecked());
    EXPECT_EQ(cancel->text(), GeneralTab::kCancelHold);

    QTest::mouseClick(toggle, Qt::LeftButton);
    EXPECT_EQ(Preferences::recordMode(), RecordMode::toggle);
    EXPECT_FALSE(hold->isChecked());
    EXPECT_EQ(cancel->text(), GeneralTab::kCancelToggle);
    EXPECT_NE(GeneralTab::kCancelToggle, GeneralTab::kCancelHold);

    // Space chooses the focused segment; choosing it again keeps it on.
    hold->setFocus();
    QTest::keyClick(hold, Qt::Key_Space);
    QTest::keyClick(hold, Qt::Key_Space);
    EXPECT_TRUE(hold->isChecked());
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_EQ(Preferences::recordMode(), RecordMode::hold);

    store("recordMode", QStringLiteral("toggle"));
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(cancel->text(), GeneralTab::kCancelToggle);
    store("recordMode", QStringLiteral("sometimes"));
    EXPECT_TRUE(hold->isChecked()) << "an unknown name reads as the default";
    EXPECT_EQ(cancel->text(), GeneralTab::kCancelHold);
}

TEST_F(GeneralTabTest, AbsentMicrophoneShowsNotConnectedUntilItAppears)
{
    const QString systemDefault = QStringLiteral("System default");
    const QString builtIn = QStringLiteral("Built-in");
    const QString notConnected = QStringLiteral("Not connected");
    store("inputDevice", QStringLiteral("usb-mic"));
    auto *microphone = control<QComboBox>("microphone");
    EXPECT_THAT(items(microphone), ElementsAre(systemDefault, builtIn, notConnected));
    EXPECT_EQ(microphone->currentText(), notConnected);

    m_audio->devices.append({QStringLiteral("usb-mic"), QStringLiteral("USB Microphone")});
    emit m_audio->configurationChanged();
    EXPECT_THAT(items(microphone),
                ElementsAre(systemDefault, builtIn, QStringLiteral("USB Microphone")));
    EXPECT_EQ(microphone->currentText(), QStringLiteral("USB Microphone"));
    EXPECT_EQ(Preferences::inputDevice(), QStringLiteral("usb-mic")) << "reloading is no choice";

    m_audio->devices.removeLast();
    emit m_audio->configurationChanged();
    EXPECT_EQ(microphone->currentText(), notConnected);
    EXPECT_EQ(Preferences::inputDevice(), QStringLiteral("usb-mic"));

    // Choosing another entry stores it, and the absent one goes.
    microphone->setFocus();
    QTest::keyClick(microphone, Qt::Key_Home);
    EXPECT_EQ(Preferences::inputDevice(), QString());
    EXPECT_THAT(items(microphone), ElementsAre(systemDefault, builtIn));
    QTest::keyClick(microphone, Qt::Key_Down);
    EXPECT_EQ(Preferences::inputDevice(), QStringLiteral("built-in"));
}

TEST_F(GeneralTabTest, StopRecordingAfterShowsNeverForAFreshUserAndForZero)
{
    auto *limit = control<QComboBox>("maxSeconds");
    EXPECT_EQ(limit->currentText(), QStringLiteral("Never"));
    limit->setCurrentIndex(3);
    EXPECT_EQ(stored("maxSeconds"), QJsonValue(300));

    const std::vector<std::pair<QJsonValue, QString>> shown{
        {0, QStringLiteral("Never")},     {120, QStringLiteral("2 minutes")},
        {-5, QStringLiteral("Never")},    {90, QStringLiteral("90 seconds")},
        {60, QStringLiteral("1 minute")}, {QStringLiteral("60"), QStringLiteral("Never")},
    };
    for (const auto &[value, text] : shown) {
        store("maxSeconds", value);
        EXPECT_EQ(limit->currentText(), text) << value.toVariant().toString().toStdString();
    }
    EXPECT_EQ(limit->count(), 4) << "a limit of the file's own is shown only while stored";
}

TEST_F(GeneralTabTest, PickersAndBoxesStoreAndFollowTheirSettingsAndFileEdits)
{
    auto *language = control<QComboBox>("language");
    language->setCurrentIndex(language->findText(QStringLiteral("Deutsch")));
    EXPECT_EQ(stored("language"), QJsonValue("de-DE"));
    store("language", QStringLiteral("it-IT"));
    EXPECT_EQ(language->currentText(), QStringLiteral("Italiano"));

    auto *paste = control<QComboBox>("pasteShortcut");
    const std::vector<std::pair<QString, QString>> shortcuts{
        {QStringLiteral("ctrlV"), QStringLiteral("Ctrl+V")},
        {QStringLiteral("ctrlShiftV"), QStringLiteral("Ctrl+Shift+V")},
        {QStringLiteral("shiftInsert"), QStringLiteral("Shift+Insert")},
        {QStringLiteral("auto"), QStringLiteral("Automatic")}};
    EXPECT_EQ(paste->currentText(), QStringLiteral("Automatic"));
    for (const auto &[id, text] : shortcuts) {
        paste->setCurrentIndex(paste->findText(text));
        EXPECT_EQ(stored("pasteShortcut"), QJsonValue(id)) << text.toStdString();
    }
    store("pasteShortcut", QStringLiteral("ctrlV"));
    EXPECT_EQ(paste->currentText(), QStringLiteral("Ctrl+V"));

    for (const char *key : {"sounds", "keepOnClipboard"}) {
        SCOPED_TRACE(key);
        auto *box = control<QCheckBox>(key);
        const bool before = m_settings.store().boolValue(QLatin1String(key));
        EXPECT_EQ(box->isChecked(), before);
        QTest::keyClick(box, Qt::Key_Space);
        EXPECT_EQ(stored(key), QJsonValue(!before));
        store(key, before);
        EXPECT_EQ(box->isChecked(), before);
    }

    QFile file(m_settings.store().filePath());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(R"({"recordMode": "toggle", "maxSeconds": 120, "sounds": false,
                   "pasteShortcut": "shiftInsert", "language": "es-ES"})");
    file.close();
    m_settings.store().reload();
    EXPECT_EQ(control<QLabel>("cancelHint")->text(), GeneralTab::kCancelToggle);
    EXPECT_EQ(control<QComboBox>("maxSeconds")->currentText(), QStringLiteral("2 minutes"));
    EXPECT_FALSE(control<QCheckBox>("sounds")->isChecked());
    EXPECT_EQ(control<QComboBox>("pasteShortcut")->currentText(), QStringLiteral("Shift+Insert"));
    EXPECT_EQ(control<QComboBox>("language")->currentText(), QStringLiteral("Español"));
}

TEST_F(GeneralTabTest, OpenAtLoginWritesAndRemovesTheEntryAndKeepsTheChoiceOnFailure)
{
    ASSERT_EQ(LoginItem::entryPath(), m_config.entryPath());
    auto *login = control<QCheckBox>("openAtLogin");
    EXPECT_FALSE(login->isChecked());
    QTest::keyClick(login, Qt::Key_Space);

    QFile entry(m_config.entryPath());
    ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
    const QByteArray content = entry.readAll();
    entry.close();
    EXPECT_TRUE(content.startsWith("[Desktop Entry]\n"));
    const QMap<QString, QString> fields = entryFields(content);
    EXPECT_EQ(fields.value(QStringLiteral("Type")), QStringLiteral("Application"));
    // The test program is not the one on PATH, so the entry names it by its path.
    EXPECT_EQ(fields.value(QStringLiteral("Exec")), QCoreApplication::applicationFilePath());
    const QString validator =
        QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate"));
    if (!validator.isEmpty()) {
        QProcess check;
        check.start(validator, {m_config.entryPath()});
        ASSERT_TRUE(check.waitForFinished());
        EXPECT_EQ(check.exitCode(), 0) << check.readAllStandardOutput().toStdString();
    }

    makeTab();
    login = control<QCheckBox>("openAtLogin");
    EXPECT_TRUE(login->isChecked()) << "a new tab finds the entry";
    QTest::keyClick(login, Qt::Key_Space);
    EXPECT_FALSE(QFile::exists(m_config.entryPath()));
    EXPECT_FALSE(login->isChecked());

    const QString folder = QFileInfo(m_config.entryPath()).absolutePath();
    ASSERT_TRUE(QDir(folder).removeRecursively());
    QFile blocker(folder);
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly)) << "a file where the folder belongs";
    blocker.close();
    QTest::keyClick(login, Qt::Key_Space);
    EXPECT_TRUE(login->isChecked()) << "the choice stays when the entry cannot be written";
    EXPECT_FALSE(QFile::exists(m_config.entryPath()));
}

TEST(LoginItemTest, EntryStartsTheInstalledProgramByNameAndAnyOtherByItsPath)
{
    QTemporaryDir dir;
    const QString bin = dir.path() + QStringLiteral("/bin");
    const QString build = dir.path() + QStringLiteral("/my build $HOME");
    ASSERT_TRUE(QDir().mkpath(bin) && QDir().mkpath(build));
    for (const QString &folder : {bin, build}) {
        QFile program(folder + QStringLiteral("/vocari"));
        ASSERT_TRUE(program.open(QIODevice::WriteOnly));
    }
    const QString installed = bin + QStringLiteral("/vocari");
    const std::vector<std::pair<QString, QString>> commands{
        {installed, QStringLiteral("vocari")},
        {bin + QStringLiteral("/../bin/vocari"), QStringLiteral("vocari")},
        {build + QStringLiteral("/vocari"),
         QStringLiteral("\"%1/my build \\\\$HOME/vocari\"").arg(dir.path())},
        {QStringLiteral("/opt/100%/vocari"), QStringLiteral("/opt/100%%/vocari")},
        {QStringLiteral("/opt/a\\b/vocari"), QStringLiteral("\"/opt/a\\\\\\\\b/vocari\"")}};
    for (const auto &[program, command] : commands)
        EXPECT_EQ(LoginItem::command(program, installed), command) << program.toStdString();
    EXPECT_EQ(LoginItem::command(installed, QString()), installed);
}

TEST(LoginItemTest, EntryKeepsTheNameAndIconOfTheApplicationsDesktopEntry)
{
    QFile packaged(QStringLiteral(VOCARI_PACKAGED_DESKTOP_ENTRY));
    ASSERT_TRUE(packaged.open(QIODevice::ReadOnly));
    const QMap<QString, QString> application = entryFields(packaged.readAll());
    const QMap<QString, QString> login = entryFields(LoginItem::entry(QStringLiteral("vocari")));
    for (const QString &field : {QStringLiteral("Name"), QStringLiteral("Icon")})
        EXPECT_EQ(login.value(field), application.value(field)) << field.toStdString();
    EXPECT_EQ(login.value(QStringLiteral("Exec")), QStringLiteral("vocari"));
}

TEST_F(GeneralTabTest, EveryControlIsReachedWithTabAndNamed)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_FALSE(accessibleName(m_keyBox).isEmpty());
    // On Linux a picker's name is its current entry; its label comes as a relation.
    EXPECT_EQ(control<QComboBox>("microphone")->accessibleName(), QStringLiteral("Microphone"));
}

} // namespace
} // namespace vocari::test
