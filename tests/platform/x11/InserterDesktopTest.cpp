// Text insertion on a real (virtual) X server: what the focused window receives, what the
// clipboard holds afterwards, and how held keys are dealt with.

#include "DesktopSupport.h"
#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/ActiveWindow.h"
#include "platform/x11/InputAccess.h"
#include "platform/x11/X11KeySource.h"
#include "platform/x11/X11Keyboard.h"
#include "settings/Preferences.h"
#include "support/MissingTool.h"
#include "support/ScopedSettings.h"
#include "text/TextInserter.h"

#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QMimeData>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace vocari::test {
namespace {

// X keycodes and modifier bits on the test server.
constexpr unsigned int xA = 38;

const QString mixedText = QStringLiteral("héllo wörld — ✓ 🎉 日本");

QString clipboardText()
{
    return QGuiApplication::clipboard()->text();
}

QByteArray clipboardBytes(const QString &format)
{
    const QMimeData *data = QGuiApplication::clipboard()->mimeData();
    return data ? data->data(format) : QByteArray();
}

class InserterOnDisplay : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!testDisplay())
            VOCARI_SKIP_FOR_MISSING(std::string("no X display for this test: ") +
                                    noDisplayReason().toStdString());
    }

    void TearDown() override
    {
        // No restore of one test may run into the next.
        waitUntil([] { return !TextInserter::restorePending(); });
        X11Keyboard::shared().restoreKeymap();
    }

    ScopedSettings settings;
};

TEST_F(InserterOnDisplay, TypedTextArrivesExactlyAndTheKeymapComesBack)
{
    TestWindow window;
    ASSERT_TRUE(window.start());
    const std::vector<unsigned long> keymapBefore = x11::keyboardMapping();

    TextInserter::type(mixedText);
    EXPECT_TRUE(window.waitForText(mixedText)) << window.text().toStdString();
    EXPECT_TRUE(X11Keyboard::shared().hasBorrowedKeycodes());

    // More distinct characters the keymap lacks than it has free keycodes, tabs and lines.
    ASSERT_TRUE(window.clear());
    const QString longText =
        QStringLiteral("日本語の文章を入力する試験です。漢字と仮名が二十字以上ある長い文\tÅß"
                       "\nΩμέγα ψυχή");
    TextInserter::type(longText);
    EXPECT_TRUE(window.waitForText(longText)) << window.text().toStdString();

    X11Keyboard::shared().restoreKeymap();
    EXPECT_FALSE(X11Keyboard::shared().hasBorrowedKeycodes());
    EXPECT_EQ(x11::keyboardMapping(), keymapBefore);

    // Nothing at all is sent for an empty text.
    const size_t keysSeen = window.keys().size();
    TextInserter::type(QString());
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(window.keys().size(), keysSeen + 2) << "only the settling key's press and release";
}

// Text whose characters one BackSpace deletes differently in Qt and GTK: emoji sequences, a
// flag, a decomposed accent, an Indic conjunct, Hangul, and a control character that typing
// skips.
class ErasingIn : public InserterOnDisplay, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(ErasingIn, RemovesExactlyWhatWasTyped)
{
    TestWindow window;
    if (GetParam() == std::string("gtk")) {
        if (!window.startGtk())
            VOCARI_SKIP_FOR_MISSING(
                std::string("the GTK 3 test field did not start (python3-gi, gir1.2-gtk-3.0)"));
    } else {
        ASSERT_TRUE(window.start());
    }
    TextInserter::type(QStringLiteral("keep "));
    ASSERT_TRUE(window.waitForText(QStringLiteral("keep ")));

    const QString phrases[] = {
        QStringLiteral("👨\u200d👩\u200d👧 family 🇫🇷"),
        QStringLiteral(" cafe\u0301 क्षमा 한국 👍🏽\u0001 ok")};
    qsizetype typed = 0;
    for (const QString &phrase : phrases)
        typed += TextInserter::type(phrase);
    const QString all =
        QStringLiteral("keep ") + phrases[0] + QString(phrases[1]).remove(u'\u0001');
    ASSERT_TRUE(window.waitForText(all)) << window.text().toStdString();

    TextInserter::erase(typed);
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(window.text(), QStringLiteral("keep "));
}

INSTANTIATE_TEST_SUITE_P(Toolkits, ErasingIn, ::testing::Values("qt", "gtk"));

TEST_F(InserterOnDisplay, AProgramThatFetchesThePasteLateStillGetsTheDictation)
{
    // A busy program reads the clipboard 1.5 s after the keys, well past the restore delay.
    const QString previous = QStringLiteral("the user's clipboard");
    TestWindow window;
    ASSERT_TRUE(window.start({QStringLiteral("--clipboard-text"), previous,
                              QStringLiteral("--paste-after"), QStringLiteral("1500")}));
    ASSERT_TRUE(waitUntil([&] { return clipboardText() == previous; }));
    TextInserter::insert(QStringLiteral("dictated words"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("dictated words")))
        << window.text().toStdString();
    ASSERT_TRUE(waitUntil([] { return !TextInserter::restorePending(); }));
    EXPECT_EQ(clipboardText(), previous);
}

TEST_F(InserterOnDisplay, PastedTextArrivesAndTheClipboardComesBack)
{
    const QString previous = QStringLiteral("what the user had copied");
    TestWindow window;
    ASSERT_TRUE(window.start(
        {QStringLiteral("--clipboard-text"), previous, QStringLiteral("--clipboard-png")}));
    ASSERT_TRUE(waitUntil([&] { return clipboardText() == previous; }));
    const QByteArray image = clipboardBytes(QStringLiteral("image/png"));
    ASSERT_FALSE(image.isEmpty());

    TextInserter::insert(mixedText);
    EXPECT_TRUE(window.waitForText(mixedText)) << window.text().toStdString();
    EXPECT_TRUE(TextInserter::restorePending());
    ASSERT_TRUE(waitUntil([] { return !TextInserter::restorePending(); }));
    EXPECT_EQ(clipboardText(), previous) << "the dictated text does not stay on the clipboard";
    EXPECT_EQ(clipboardBytes(QStringLiteral("image/png")), image);

    // The restored content is what other programs get, too.
    ASSERT_TRUE(xdotool(QStringLiteral("key ctrl+v")));
    EXPECT_TRUE(window.waitForText(mixedText + previous)) << window.text().toStdString();

    // Two pastes within the restore delay: the user's own content still comes back. (The
    // window reads the clipboard only when it handles the shortcut, so here it gets the second
    // text twice.)
    TextInserter::insert(QStringLiteral("one"));
    TextInserter::insert(QStringLiteral("two"));
    ASSERT_TRUE(waitUntil([] { return !TextInserter::restorePending(); }));
    EXPECT_EQ(clipboardText(), previous);
    EXPECT_EQ(clipboardBytes(QStringLiteral("image/png")), image);

    // With "keepOnClipboard" the dictated text stays.
    settings.store().setValue(QString::fromLatin1(SettingsKey::keepOnClipboard), true);
    TextInserter::insert(QStringLiteral("kept"));
    EXPECT_TRUE(waitUntil([&] { return window.text().endsWith(QStringLiteral("kept")); }));
    EXPECT_FALSE(TextInserter::restorePending());
    EXPECT_EQ(clipboardText(), QStringLiteral("kept"));
}

// A terminal emulator (its program and the options before a command) running a shell command
// that writes the line it reads to a file, so the test sees what reached the program in the
// terminal, not which keys were pressed.
class PastingInto : public InserterOnDisplay, public ::testing::WithParamInterface<const char *>
{
protected:
    void TearDown() override
    {
        if (m_terminal.state() != QProcess::NotRunning) {
            m_terminal.kill();
            m_terminal.waitForFinished(5000);
        }
        InserterOnDisplay::TearDown();
    }

    // Starts the terminal and gives its window the keyboard focus; the reason when it cannot.
    QString start(const QString &lineFile)
    {
        QStringList arguments = QString::fromLatin1(GetParam()).split(u' ');
        const QString program = arguments.takeFirst();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
        m_terminal.setProcessEnvironment(environment);
        m_terminal.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        const QString command =
            QStringLiteral("read -r line; printf %s \"$line\" > '%1.part' && mv '%1.part' '%1'");
        m_terminal.start(program, arguments << QStringLiteral("sh") << QStringLiteral("-c")
                                            << command.arg(lineFile));
        if (!m_terminal.waitForStarted())
            return program + QStringLiteral(" is not installed");
        const QString search =
            QStringLiteral("xdotool search --onlyvisible --pid %1").arg(m_terminal.processId());
        QString window;
        waitUntil(
            [&] {
                QProcess xdotool;
                xdotool.startCommand(search);
                xdotool.waitForFinished();
                window = QString::fromLatin1(xdotool.readAllStandardOutput()).section(u'\n', 0, 0);
                return !window.isEmpty() || m_terminal.state() == QProcess::NotRunning;
            },
            std::chrono::seconds(20));
        if (window.isEmpty())
            return program + QStringLiteral(" did not open a window on the test display");
        if (!xdotool(QStringLiteral("windowfocus --sync ") + window))
            return QStringLiteral("cannot give ") + program + QStringLiteral(" the focus");
        return {};
    }

    QProcess m_terminal;
};

TEST_P(PastingInto, TheTextReachesTheProgramAndTheSelectionsComeBack)
{
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    const QString lineFile = directory.filePath(QStringLiteral("line"));
    if (const QString reason = start(lineFile); !reason.isEmpty())
        VOCARI_SKIP_FOR_MISSING(reason.toStdString());
    EXPECT_TRUE(TextInserter::isTerminal(ActiveWindow::current().className));

    QClipboard *board = QGuiApplication::clipboard();
    board->setText(QStringLiteral("copied"));
    board->setText(QStringLiteral("selected"), QClipboard::Selection);
    const QString text = QStringLiteral("pasted héllo ✓ 日本 🎉");
    TextInserter::insert(text);
    // The shell reads the line once Return arrives; the paste is served from the event loop
    // meanwhile.
    ASSERT_TRUE(waitUntil([] { return !TextInserter::restorePending(); }));
    ASSERT_TRUE(xdotool(QStringLiteral("key Return")));
    QFile line(lineFile);
    EXPECT_TRUE(waitUntil([&] { return line.exists(); }));
    ASSERT_TRUE(line.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(line.readAll()), text);

    EXPECT_EQ(board->text(), QStringLiteral("copied"));
    EXPECT_EQ(board->text(QClipboard::Selection), QStringLiteral("selected"));
}

INSTANTIATE_TEST_SUITE_P(
    Terminals, PastingInto,
    ::testing::Values("xterm -e", "urxvt -e", "xfce4-terminal --disable-server -x", "tilix -e",
                      "kitty", "alacritty -e"),
    [](const ::testing::TestParamInfo<const char *> &info) {
        return QString::fromLatin1(info.param).section(u' ', 0, 0).remove(u'-').toStdString();
    });

TEST_F(InserterOnDisplay, HeldKeysDoNotCorruptTypedTextNorEndTheDictation)
{
    TestWindow window;
    ASSERT_TRUE(window.start());
    HotkeyMonitor monitor(std::make_unique<X11KeySource>());
    int pressed = 0, released = 0;
    monitor.onPress = [&] { ++pressed; };
    monitor.onRelease = [&] { ++released; };

    // The dictation key (Right Alt, X keycode 108) and another modifier are held while a phrase
    // is typed.
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey()));
    ASSERT_TRUE(window.send(QStringLiteral("keydown 108 keydown Control_L")));
    ASSERT_EQ(pressed, 1);
    TextInserter::type(QStringLiteral("abc"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("abc"))) << window.text().toStdString();
    const TestWindow::Key *a = window.lastPress(xA);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->state & (x11::controlMask | x11::mod1Mask), 0u);
    ASSERT_TRUE(window.settle());
    EXPECT_TRUE(monitor.isDown());
    EXPECT_EQ(released, 0);
    // The held keys are down again, so letting go of them is seen.
    ASSERT_TRUE(window.send(QStringLiteral("keyup 108 keyup Control_L")));
    EXPECT_EQ(released, 1);

    // A held combination, and a typed character that is the combination's own key.
    ASSERT_TRUE(window.clear());
    ASSERT_TRUE(monitor.start({KeyCode::space, Modifier::control | Modifier::alt, false}));
    ASSERT_TRUE(window.send(QStringLiteral("keydown ctrl keydown alt keydown space")));
    ASSERT_EQ(pressed, 2);
    TextInserter::type(QStringLiteral("a b"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("a b"))) << window.text().toStdString();
    ASSERT_TRUE(window.settle());
    EXPECT_TRUE(monitor.isDown());
    EXPECT_EQ(released, 1);
    ASSERT_TRUE(window.send(QStringLiteral("keyup space keyup alt keyup ctrl")));
    EXPECT_EQ(released, 2);

    // Caps Lock does not shout, and stays on.
    ASSERT_TRUE(window.clear());
    ASSERT_TRUE(xdotool(QStringLiteral("key Caps_Lock")));
    ASSERT_TRUE(x11::capsLockOn());
    TextInserter::type(QStringLiteral("aB é"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("aB é"))) << window.text().toStdString();
    EXPECT_TRUE(x11::capsLockOn());
    ASSERT_TRUE(xdotool(QStringLiteral("key Caps_Lock")));
}

TEST_F(InserterOnDisplay, FrontmostProcessIsTheFocusedWindowsProgram)
{
    EXPECT_TRUE(InputAccess::check().granted);
    EXPECT_TRUE(InputAccess::check().explanation.isEmpty());

    TestWindow window;
    ASSERT_TRUE(window.start());
    // Without a window manager: the window holding the focus.
    EXPECT_EQ(frontmostProcessId(), std::optional<qint64>(window.processId()));

    // With one: the window it names as active.
    TestWindow other;
    ASSERT_TRUE(other.start());
    x11::setActiveWindowProperty(window.windowId());
    EXPECT_EQ(ActiveWindow::current().window, window.windowId());
    EXPECT_EQ(frontmostProcessId(), std::optional<qint64>(window.processId()));
    x11::setActiveWindowProperty(0);
    EXPECT_EQ(frontmostProcessId(), std::optional<qint64>(other.processId()));
}

} // namespace
} // namespace vocari::test
