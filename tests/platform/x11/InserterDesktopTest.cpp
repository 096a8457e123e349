// Text insertion on a real (virtual) X server: what the focused window receives, what the
// clipboard holds afterwards, and how held keys are dealt with.

#include "DesktopSupport.h"
#include "XTestHelpers.h"
#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/ActiveWindow.h"
#include "platform/x11/InputAccess.h"
#include "platform/x11/X11KeySource.h"
#include "platform/x11/X11Keyboard.h"
#include "settings/Preferences.h"
#include "support/ScopedSettings.h"
#include "text/TextInserter.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <gtest/gtest.h>

namespace vocari::test {
namespace {

// X keycodes and modifier bits on the test server.
constexpr unsigned int xV = 55;
constexpr unsigned int xInsert = 118;
constexpr unsigned int xA = 38;

const QString mixedText = QStringLiteral("héllo wörld — ✓ 🎉 日本");

QStringList keys(std::initializer_list<const char *> words)
{
    QStringList list;
    for (const char *word : words)
        list << QString::fromLatin1(word);
    return list;
}

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
            GTEST_SKIP() << "no X display for this test: " << noDisplayReason().toStdString();
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

TEST_F(InserterOnDisplay, ErasingRemovesExactlyTheTypedCharacters)
{
    TestWindow window;
    ASSERT_TRUE(window.start());
    TextInserter::type(QStringLiteral("keep "));
    ASSERT_TRUE(window.waitForText(QStringLiteral("keep ")));

    const QString first = QStringLiteral("hello");
    const QString second = QStringLiteral(" wörld 🎉");
    TextInserter::type(first);
    TextInserter::type(second);
    ASSERT_TRUE(window.waitForText(QStringLiteral("keep hello wörld 🎉")));

    const qsizetype typed =
        TextInserter::characterCount(first) + TextInserter::characterCount(second);
    EXPECT_EQ(typed, 13);
    TextInserter::erase(typed);
    EXPECT_TRUE(window.waitForText(QStringLiteral("keep "))) << window.text().toStdString();
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
    ASSERT_TRUE(xdotool(keys({"key", "ctrl+v"})));
    EXPECT_TRUE(window.waitForText(mixedText + previous)) << window.text().toStdString();

    // Two pastes within the restore delay: the user's own content still comes back. (The
    // window reads the clipboard only when it handles the shortcut, so here it gets the second
    // text twice.)
    TextInserter::insert(QStringLiteral("one"));
    TextInserter::insert(QStringLiteral("two"));
    ASSERT_TRUE(waitUntil([] { return !TextInserter::restorePending(); }));
    EXPECT_EQ(clipboardText(), previous);
    EXPECT_EQ(clipboardBytes(QStringLiteral("image/png")), image);
}

TEST_F(InserterOnDisplay, KeepOnClipboardLeavesTheDictatedText)
{
    settings.store().setValue(QString::fromLatin1(SettingsKey::keepOnClipboard), true);
    TestWindow window;
    ASSERT_TRUE(window.start({QStringLiteral("--clipboard-text"), QStringLiteral("old")}));
    ASSERT_TRUE(waitUntil([] { return clipboardText() == QStringLiteral("old"); }));

    TextInserter::insert(QStringLiteral("kept"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("kept")));
    EXPECT_FALSE(TextInserter::restorePending());
    EXPECT_EQ(clipboardText(), QStringLiteral("kept"));
}

TEST_F(InserterOnDisplay, PasteShortcutFollowsTheTerminalAndTheSetting)
{
    TestWindow terminal;
    ASSERT_TRUE(terminal.start({QStringLiteral("--class"), QStringLiteral("xterm")}));
    EXPECT_EQ(ActiveWindow::current().className.toLower(), QStringLiteral("xterm"));

    TextInserter::insert(QStringLiteral("x"));
    ASSERT_TRUE(terminal.settle());
    const TestWindow::Key *paste = terminal.lastPress(xV);
    ASSERT_NE(paste, nullptr);
    EXPECT_EQ(paste->state & (x11::controlMask | x11::shiftMask),
              x11::controlMask | x11::shiftMask);

    settings.store().setValue(QString::fromLatin1(SettingsKey::pasteShortcut),
                              QStringLiteral("shiftInsert"));
    TextInserter::insert(QStringLiteral("y"));
    ASSERT_TRUE(terminal.settle());
    const TestWindow::Key *insert = terminal.lastPress(xInsert);
    ASSERT_NE(insert, nullptr);
    EXPECT_EQ(insert->state & (x11::controlMask | x11::shiftMask), x11::shiftMask);

    settings.store().setValue(QString::fromLatin1(SettingsKey::pasteShortcut),
                              QStringLiteral("ctrlV"));
    TextInserter::insert(QStringLiteral("z"));
    ASSERT_TRUE(terminal.settle());
    EXPECT_EQ(terminal.presses(xV), 2);
    EXPECT_EQ(terminal.lastPress(xV)->state & (x11::controlMask | x11::shiftMask),
              x11::controlMask);
}

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
    ASSERT_TRUE(xdotool(keys({"keydown", "108", "keydown", "Control_L"})));
    ASSERT_TRUE(window.settle());
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
    ASSERT_TRUE(xdotool(keys({"keyup", "108", "keyup", "Control_L"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(released, 1);

    // A held combination, and a typed character that is the combination's own key.
    ASSERT_TRUE(window.clear());
    ASSERT_TRUE(monitor.start({KeyCode::space, Modifier::control | Modifier::alt, false}));
    ASSERT_TRUE(xdotool(keys({"keydown", "ctrl", "keydown", "alt", "keydown", "space"})));
    ASSERT_TRUE(window.settle());
    ASSERT_EQ(pressed, 2);
    TextInserter::type(QStringLiteral("a b"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("a b"))) << window.text().toStdString();
    ASSERT_TRUE(window.settle());
    EXPECT_TRUE(monitor.isDown());
    EXPECT_EQ(released, 1);
    ASSERT_TRUE(xdotool(keys({"keyup", "space", "keyup", "alt", "keyup", "ctrl"})));
    ASSERT_TRUE(window.settle());
    EXPECT_EQ(released, 2);

    // Caps Lock does not shout, and stays on.
    ASSERT_TRUE(window.clear());
    ASSERT_TRUE(xdotool(keys({"key", "Caps_Lock"})));
    ASSERT_TRUE(x11::capsLockOn());
    TextInserter::type(QStringLiteral("aB é"));
    EXPECT_TRUE(window.waitForText(QStringLiteral("aB é"))) << window.text().toStdString();
    EXPECT_TRUE(x11::capsLockOn());
    ASSERT_TRUE(xdotool(keys({"key", "Caps_Lock"})));
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
