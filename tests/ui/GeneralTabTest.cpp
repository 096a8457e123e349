// The General tab and its key recorder, driven through their real controls: clicks, the
// keyboard, and key events carrying the native scan codes the X11 platform delivers.

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

// Counts the key events that reach a widget, that is, were not kept from it.
class KeyProbe : public QObject
{
public:
    int presses = 0;
    int releases = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::KeyPress)
            ++presses;
        else if (event->type() == QEvent::KeyRelease)
            ++releases;
        return false;
    }
};

// Points XDG_CONFIG_HOME at an empty folder, where the autostart entry goes, for its lifetime.
class ScopedConfigHome
{
public:
    ScopedConfigHome() : m_previous(qgetenv("XDG_CONFIG_HOME"))
    {
        m_hadPrevious = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");
        qputenv("XDG_CONFIG_HOME", m_dir.path().toUtf8());
    }
    ~ScopedConfigHome()
    {
        if (m_hadPrevious)
            qputenv("XDG_CONFIG_HOME", m_previous);
        else
            qunsetenv("XDG_CONFIG_HOME");
    }
    QString entryPath() const { return m_dir.path() + QStringLiteral("/autostart/vocari.desktop"); }

private:
    QTemporaryDir m_dir;
    QByteArray m_previous;
    bool m_hadPrevious = false;
};

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

    // A key event as the X11 platform makes it: the Linux key code plus 8 as the native scan
    // code, and the modifiers held before the key moved.
    void key(QEvent::Type type, int qtKey, std::uint16_t code, Qt::KeyboardModifiers held = {})
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

    ScopedConfigHome m_config;
    std::unique_ptr<GeneralTab> m_tab;
    HotkeyRecorder *m_recorder = nullptr;
    QPushButton *m_keyBox = nullptr;
    KeyProbe m_probe;
};

// --- The key recorder ---

TEST_F(GeneralTabTest, RightAltPressedAndReleasedAloneBecomesTheKeyAndTheMonitorResumes)
{
    m_model->setHotkey(Hotkey{KeyCode::rightCtrl, 0, true});
    QSignalSpy recording(m_recorder, &HotkeyRecorder::recordingChanged);
    ASSERT_TRUE(monitorRunning());

    clickKeyBox();
    EXPECT_TRUE(m_recorder->isRecording());
    EXPECT_EQ(m_keyBox->text(), HotkeyRecorder::kRecordingText);
    EXPECT_TRUE(m_model->recording());
    EXPECT_FALSE(monitorRunning()) << "the global monitor would take the key away";

    press(Qt::Key_Alt, KeyCode::rightAlt);
    EXPECT_TRUE(m_recorder->isRecording()) << "a modifier alone counts on release";
    release(Qt::Key_Alt, KeyCode::rightAlt, Qt::AltModifier);

    const Hotkey rightAlt{KeyCode::rightAlt, 0, true};
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Right Alt"));
    EXPECT_EQ(m_model->hotkey(), rightAlt);
    EXPECT_EQ(Preferences::hotkey(), rightAlt);
    EXPECT_FALSE(m_model->recording());
    EXPECT_TRUE(monitorRunning());
    ASSERT_EQ(recording.size(), 2);
    EXPECT_EQ(recording[0][0].toBool(), true);
    EXPECT_EQ(recording[1][0].toBool(), false);
    EXPECT_EQ(m_probe.presses + m_probe.releases, 0) << "the recorded key reached the window";
}

TEST_F(GeneralTabTest, KeyWithoutModifiersShowsTheHintThenCtrlAltDIsAccepted)
{
    clickKeyBox();
    press(Qt::Key_D, kD);
    release(Qt::Key_D, kD);
    EXPECT_TRUE(m_recorder->isRecording());
    EXPECT_EQ(m_recorder->hint(), HotkeyRecorder::kHint);
    EXPECT_EQ(m_recorder->hint(),
              QStringLiteral("Add Ctrl, Alt, Shift or Super — or use a function key."));
    auto *hint = control<QLabel>("dictationKeyHint");
    EXPECT_TRUE(hint->isVisible());
    EXPECT_EQ(hint->text(), HotkeyRecorder::kHint);
    EXPECT_EQ(m_model->hotkey(), Hotkey::defaultKey());

    press(Qt::Key_Control, KeyCode::leftCtrl);
    press(Qt::Key_Alt, KeyCode::leftAlt, Qt::ControlModifier);
    press(Qt::Key_D, kD, Qt::ControlModifier | Qt::AltModifier);

    const Hotkey ctrlAltD{kD, Modifier::control | Modifier::alt, false};
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_model->hotkey(), ctrlAltD);
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Ctrl+Alt+D"));
    EXPECT_TRUE(monitorRunning());
    // The hint stays until recording starts again.
    EXPECT_EQ(m_recorder->hint(), HotkeyRecorder::kHint);
    clickKeyBox();
    EXPECT_TRUE(m_recorder->hint().isEmpty());
    EXPECT_FALSE(hint->isVisible());
}

TEST_F(GeneralTabTest, RightAltReportedAsAltGrStillCombinesAsAlt)
{
    // In layouts where Right Alt chooses a third level, Qt reports no Alt modifier for it.
    clickKeyBox();
    press(Qt::Key_AltGr, KeyCode::rightAlt);
    press(Qt::Key_D, kD, Qt::GroupSwitchModifier);
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kD, Modifier::alt, false}));
}

TEST_F(GeneralTabTest, SecondModifierCancelsTheModifierOnlyKey)
{
    clickKeyBox();
    press(Qt::Key_Shift, KeyCode::leftShift);
    press(Qt::Key_Meta, KeyCode::leftSuper, Qt::ShiftModifier);
    release(Qt::Key_Meta, KeyCode::leftSuper, Qt::ShiftModifier | Qt::MetaModifier);
    EXPECT_TRUE(m_recorder->isRecording());
    release(Qt::Key_Shift, KeyCode::leftShift, Qt::ShiftModifier);
    EXPECT_TRUE(m_recorder->isRecording()) << "Shift was not alone while it was down";
    EXPECT_EQ(m_model->hotkey(), Hotkey::defaultKey());

    // A modifier seen alone afterwards still counts.
    press(Qt::Key_Control, KeyCode::rightCtrl);
    release(Qt::Key_Control, KeyCode::rightCtrl, Qt::ControlModifier);
    EXPECT_EQ(m_model->hotkey(), (Hotkey{KeyCode::rightCtrl, 0, true}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Right Ctrl"));
}

TEST_F(GeneralTabTest, FunctionKeyIsAcceptedWithoutModifiers)
{
    clickKeyBox();
    press(Qt::Key_F5, kF5);
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kF5, 0, false}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("F5"));
    EXPECT_TRUE(m_recorder->hint().isEmpty());
}

TEST_F(GeneralTabTest, EscapeCancelsAndIsKeptFromTheWindow)
{
    m_model->setHotkey(Hotkey{kF5, 0, false});
    clickKeyBox();
    press(Qt::Key_Escape, KeyCode::escape);
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_model->hotkey(), (Hotkey{kF5, 0, false}));
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("F5"));
    EXPECT_EQ(m_probe.presses, 0);
    EXPECT_TRUE(monitorRunning());
}

TEST_F(GeneralTabTest, CapsLockIsIgnoredAndPassedOn)
{
    clickKeyBox();
    press(Qt::Key_CapsLock, KeyCode::capsLock);
    release(Qt::Key_CapsLock, KeyCode::capsLock);
    EXPECT_TRUE(m_recorder->isRecording());
    EXPECT_TRUE(m_recorder->hint().isEmpty());
    EXPECT_EQ(m_probe.presses, 1);
    EXPECT_EQ(m_probe.releases, 1);

    // Nor does it spoil a modifier-only key around it.
    press(Qt::Key_Alt, KeyCode::rightAlt);
    press(Qt::Key_CapsLock, KeyCode::capsLock, Qt::AltModifier);
    release(Qt::Key_Alt, KeyCode::rightAlt, Qt::AltModifier);
    EXPECT_EQ(m_model->hotkey(), (Hotkey{KeyCode::rightAlt, 0, true}));
}

TEST_F(GeneralTabTest, SecondClickCancels)
{
    QSignalSpy recording(m_recorder, &HotkeyRecorder::recordingChanged);
    clickKeyBox();
    press(Qt::Key_Control, KeyCode::leftCtrl);
    clickKeyBox();
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Right Alt"));
    EXPECT_EQ(recording.size(), 2);
    EXPECT_TRUE(monitorRunning());

    // Keys after the cancel are the window's again.
    release(Qt::Key_Control, KeyCode::leftCtrl, Qt::ControlModifier);
    EXPECT_EQ(m_model->hotkey(), Hotkey::defaultKey());
    EXPECT_EQ(m_probe.releases, 1);
}

TEST_F(GeneralTabTest, RecordingStartsFromTheKeyboard)
{
    for (Qt::Key start : {Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter}) {
        QTest::keyClick(m_keyBox, start);
        EXPECT_TRUE(m_recorder->isRecording()) << QKeySequence(start).toString().toStdString();
        press(Qt::Key_Escape, KeyCode::escape);
        EXPECT_FALSE(m_recorder->isRecording());
    }
}

TEST_F(GeneralTabTest, HidingTheTabEndsRecordingAndResumesTheMonitor)
{
    clickKeyBox();
    ASSERT_FALSE(monitorRunning());
    m_tab->hide();
    EXPECT_FALSE(m_recorder->isRecording());
    EXPECT_TRUE(monitorRunning());

    // Destroyed while recording, too.
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
    EXPECT_EQ(presets->toolTip(), QStringLiteral("Presets"));
    EXPECT_EQ(accessibleName(presets), QStringLiteral("Presets"));
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
}

TEST_F(GeneralTabTest, KeyChangedElsewhereIsShown)
{
    m_settings.store().setValue(QLatin1String(SettingsKey::hotkey),
                                Hotkey{kF5, Modifier::shift, false}.toJson());
    settle();
    EXPECT_EQ(m_keyBox->text(), QStringLiteral("Shift+F5"));
}

// --- Recording mode and the Cancel line ---

TEST_F(GeneralTabTest, RecordingModeChangesTheCancelLineAndFollowsTheFile)
{
    auto *hold = control<QPushButton>("recordMode.hold");
    auto *toggle = control<QPushButton>("recordMode.toggle");
    auto *cancel = control<QLabel>("cancelHint");
    EXPECT_TRUE(hold->isChecked());
    EXPECT_EQ(cancel->text(), QStringLiteral("Press Esc, or press the dictation key again"));

    QTest::mouseClick(toggle, Qt::LeftButton);
    EXPECT_EQ(Preferences::recordMode(), RecordMode::toggle);
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_FALSE(hold->isChecked());
    EXPECT_EQ(cancel->text(), QStringLiteral("Press Esc"));

    // Space chooses the focused segment; the chosen one stays on when chosen again.
    hold->setFocus();
    QTest::keyClick(hold, Qt::Key_Space);
    EXPECT_EQ(Preferences::recordMode(), RecordMode::hold);
    QTest::keyClick(hold, Qt::Key_Space);
    EXPECT_TRUE(hold->isChecked());
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_EQ(Preferences::recordMode(), RecordMode::hold);

    m_settings.store().setValue(QStringLiteral("recordMode"), QStringLiteral("toggle"));
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(cancel->text(), QStringLiteral("Press Esc"));
    // An unknown name reads as the default.
    m_settings.store().setValue(QStringLiteral("recordMode"), QStringLiteral("sometimes"));
    EXPECT_TRUE(hold->isChecked());
    EXPECT_EQ(cancel->text(), GeneralTab::kCancelHold);
}

// --- Speech ---

QStringList items(QComboBox *combo)
{
    QStringList texts;
    for (int i = 0; i < combo->count(); ++i)
        texts.append(combo->itemText(i));
    return texts;
}

TEST_F(GeneralTabTest, AbsentMicrophoneShowsNotConnectedUntilItAppears)
{
    m_settings.store().setValue(QStringLiteral("inputDevice"), QStringLiteral("usb-mic"));
    auto *microphone = control<QComboBox>("microphone");
    EXPECT_THAT(items(microphone),
                ElementsAre(QStringLiteral("System default"), QStringLiteral("Built-in"),
                            QStringLiteral("Not connected")));
    EXPECT_EQ(microphone->currentText(), QStringLiteral("Not connected"));

    m_audio->devices.append({QStringLiteral("usb-mic"), QStringLiteral("USB Microphone")});
    emit m_audio->configurationChanged();
    EXPECT_THAT(items(microphone),
                ElementsAre(QStringLiteral("System default"), QStringLiteral("Built-in"),
                            QStringLiteral("USB Microphone")));
    EXPECT_EQ(microphone->currentText(), QStringLiteral("USB Microphone"));
    EXPECT_EQ(Preferences::inputDevice(), QStringLiteral("usb-mic")) << "reloading is no choice";

    m_audio->devices.removeLast();
    emit m_audio->configurationChanged();
    EXPECT_EQ(microphone->currentText(), QStringLiteral("Not connected"));
    EXPECT_EQ(Preferences::inputDevice(), QStringLiteral("usb-mic"));

    // Choosing another entry with the keyboard stores it, and the absent one goes.
    microphone->setFocus();
    QTest::keyClick(microphone, Qt::Key_Home);
    EXPECT_EQ(Preferences::inputDevice(), QString());
    EXPECT_THAT(items(microphone),
                ElementsAre(QStringLiteral("System default"), QStringLiteral("Built-in")));
    QTest::keyClick(microphone, Qt::Key_Down);
    EXPECT_EQ(Preferences::inputDevice(), QStringLiteral("built-in"));
}

TEST_F(GeneralTabTest, StopRecordingAfterShowsNeverForAFreshUserAndForZero)
{
    auto *limit = control<QComboBox>("maxSeconds");
    EXPECT_THAT(items(limit),
                ElementsAre(QStringLiteral("Never"), QStringLiteral("1 minute"),
                            QStringLiteral("2 minutes"), QStringLiteral("5 minutes")));
    EXPECT_EQ(limit->currentText(), QStringLiteral("Never"));

    limit->setCurrentIndex(3);
    EXPECT_EQ(m_settings.store().value(QStringLiteral("maxSeconds")), QJsonValue(300));

    const std::vector<std::pair<QJsonValue, QString>> shown{
        {0, QStringLiteral("Never")},     {120, QStringLiteral("2 minutes")},
        {-5, QStringLiteral("Never")},    {90, QStringLiteral("90 seconds")},
        {60, QStringLiteral("1 minute")}, {QStringLiteral("60"), QStringLiteral("Never")},
    };
    for (const auto &[stored, text] : shown) {
        m_settings.store().setValue(QStringLiteral("maxSeconds"), stored);
        EXPECT_EQ(limit->currentText(), text) << stored.toVariant().toString().toStdString();
    }
    EXPECT_EQ(limit->count(), 4) << "a limit of the file's own is shown only while stored";
}

TEST_F(GeneralTabTest, LanguageAndPasteShortcutStoreTheirIdentifiers)
{
    auto *language = control<QComboBox>("language");
    EXPECT_EQ(language->count(), int(Preferences::languages().size()));
    language->setCurrentIndex(language->findText(QStringLiteral("Deutsch")));
    EXPECT_EQ(m_settings.store().value(QStringLiteral("language")), QJsonValue("de-DE"));
    m_settings.store().setValue(QStringLiteral("language"), QStringLiteral("it-IT"));
    EXPECT_EQ(language->currentText(), QStringLiteral("Italiano"));

    auto *paste = control<QComboBox>("pasteShortcut");
    EXPECT_THAT(items(paste),
                ElementsAre(QStringLiteral("Automatic"), QStringLiteral("Ctrl+V"),
                            QStringLiteral("Ctrl+Shift+V"), QStringLiteral("Shift+Insert")));
    EXPECT_EQ(paste->currentText(), QStringLiteral("Automatic"));
    const QStringList stored{QStringLiteral("auto"), QStringLiteral("ctrlV"),
                             QStringLiteral("ctrlShiftV"), QStringLiteral("shiftInsert")};
    for (int i : {1, 2, 3, 0}) {
        paste->setCurrentIndex(i);
        EXPECT_EQ(m_settings.store().value(QStringLiteral("pasteShortcut")), QJsonValue(stored[i]));
    }
    m_settings.store().setValue(QStringLiteral("pasteShortcut"), QStringLiteral("ctrlV"));
    EXPECT_EQ(paste->currentText(), QStringLiteral("Ctrl+V"));
}

TEST_F(GeneralTabTest, ToggleBoxesStoreAndFollowTheirSettings)
{
    const std::vector<std::pair<const char *, const char *>> boxes{
        {"sounds", "Play sounds"}, {"keepOnClipboard", "Keep dictated text on the clipboard"}};
    for (const auto &[key, text] : boxes) {
        SCOPED_TRACE(key);
        auto *box = control<QCheckBox>(key);
        EXPECT_EQ(box->text(), QLatin1String(text));
        const bool before = m_settings.store().boolValue(QLatin1String(key));
        EXPECT_EQ(box->isChecked(), before);
        QTest::keyClick(box, Qt::Key_Space);
        EXPECT_EQ(m_settings.store().value(QLatin1String(key)), QJsonValue(!before));
        m_settings.store().setValue(QLatin1String(key), before);
        EXPECT_EQ(box->isChecked(), before);
    }
}

TEST_F(GeneralTabTest, EditsOfTheSettingsFileAreShown)
{
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

// --- Open at login ---

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

TEST_F(GeneralTabTest, OpenAtLoginWritesAndRemovesTheAutostartEntry)
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
    // The test program is not the vocari on PATH, so the entry names it by its path.
    EXPECT_EQ(fields.value(QStringLiteral("Exec")), QCoreApplication::applicationFilePath());
    const QString validator =
        QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate"));
    if (!validator.isEmpty()) {
        QProcess check;
        check.start(validator, {m_config.entryPath()});
        ASSERT_TRUE(check.waitForFinished());
        EXPECT_EQ(check.exitCode(), 0) << check.readAllStandardOutput().toStdString();
    }

    // A tab made now finds the entry.
    makeTab();
    login = control<QCheckBox>("openAtLogin");
    EXPECT_TRUE(login->isChecked());
    QTest::keyClick(login, Qt::Key_Space);
    EXPECT_FALSE(QFile::exists(m_config.entryPath()));
    EXPECT_FALSE(login->isChecked());
}

TEST_F(GeneralTabTest, OpenAtLoginKeepsTheUsersChoiceWhenTheEntryCannotBeWritten)
{
    // A file where the autostart folder belongs.
    QFile blocker(QFileInfo(m_config.entryPath()).absolutePath());
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    auto *login = control<QCheckBox>("openAtLogin");
    QTest::keyClick(login, Qt::Key_Space);
    EXPECT_TRUE(login->isChecked());
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
    EXPECT_EQ(LoginItem::command(installed, installed), QStringLiteral("vocari"));
    // The same file through a path that is not the same text.
    EXPECT_EQ(LoginItem::command(bin + QStringLiteral("/../bin/vocari"), installed),
              QStringLiteral("vocari"));
    EXPECT_EQ(LoginItem::command(installed, QString()), installed);
    EXPECT_EQ(LoginItem::command(build + QStringLiteral("/vocari"), installed),
              QStringLiteral("\"%1/my build \\\\$HOME/vocari\"").arg(dir.path()));
    EXPECT_EQ(LoginItem::command(QStringLiteral("/opt/100%/vocari"), installed),
              QStringLiteral("/opt/100%%/vocari"));
    EXPECT_EQ(LoginItem::command(QStringLiteral("/opt/a\\b/vocari"), installed),
              QStringLiteral("\"/opt/a\\\\\\\\b/vocari\""));
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

// --- Keyboard and screen readers ---

TEST_F(GeneralTabTest, EveryControlIsReachedWithTabAndNamed)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    // Key box, presets, two segments, four pickers, three boxes.
    EXPECT_EQ(report.controls, 11) << report;
    EXPECT_EQ(accessibleName(m_keyBox), QStringLiteral("Dictation key"));
    // On Linux a picker's name is its current entry; its label comes as a relation.
    EXPECT_EQ(control<QComboBox>("microphone")->accessibleName(), QStringLiteral("Microphone"));
}

} // namespace
} // namespace vocari::test
