// The X11 rules that need no display, and what happens when there is none.

#include "hotkey/HotkeyMonitor.h"
#include "platform/x11/ActiveWindow.h"
#include "platform/x11/InputAccess.h"
#include "platform/x11/X11KeySource.h"
#include "platform/x11/X11Keymap.h"
#include "platform/x11/XConnection.h"
#include "text/TextInserter.h"

#include <gtest/gtest.h>

namespace vocari {
namespace {

using TextInserter::PasteKeys;

QStringList unitsOf(const QStringList &chunks)
{
    QStringList sizes;
    for (const QString &chunk : chunks)
        sizes << QString::number(chunk.size());
    return sizes;
}

TEST(TypingChunks, CutAtTwentyUnitsWithoutSplittingSurrogatePairs)
{
    const QString plain(45, QChar(u'a'));
    EXPECT_EQ(unitsOf(TextInserter::typingChunks(plain)),
              (QStringList{QStringLiteral("20"), QStringLiteral("20"), QStringLiteral("5")}));

    // Units 19 and 20 form one emoji: the first chunk stops before it.
    const QString pair = QString(19, QChar(u'a')) + QStringLiteral("🎉") + QString(24, QChar(u'b'));
    ASSERT_EQ(pair.size(), 45);
    const QStringList chunks = TextInserter::typingChunks(pair);
    EXPECT_EQ(unitsOf(chunks),
              (QStringList{QStringLiteral("19"), QStringLiteral("20"), QStringLiteral("6")}));
    EXPECT_EQ(chunks.join(QString()), pair);
    EXPECT_TRUE(chunks[1].startsWith(QStringLiteral("🎉")));

    EXPECT_TRUE(TextInserter::typingChunks(QString()).isEmpty());
    EXPECT_EQ(TextInserter::typingChunks(QString(20, QChar(u'x'))).size(), 1);
    // Nothing but emoji: every chunk holds whole pairs.
    QString emoji;
    for (int i = 0; i < 15; ++i)
        emoji += QStringLiteral("😀");
    for (const QString &chunk : TextInserter::typingChunks(emoji)) {
        EXPECT_EQ(chunk.size() % 2, 0);
        EXPECT_LE(chunk.size(), 20);
    }
}

TEST(PasteShortcut, TerminalsGetTheirOwnPasteUnlessTheSettingSaysOtherwise)
{
    for (const char *name :
         {"XTerm", "xterm", "gnome-terminal-server", "Gnome-terminal", "org.wezfurlong.wezterm",
          "URxvt", "kitty", "Alacritty", "xfce4-terminal", "com.gexperts.Tilix", "konsole", "foot",
          "Terminator"}) {
        EXPECT_TRUE(TextInserter::isTerminal(QString::fromLatin1(name))) << name;
    }
    for (const char *name : {"firefox", "xtermish", "terminal", "footnotes", "", "Code"})
        EXPECT_FALSE(TextInserter::isTerminal(QString::fromLatin1(name))) << name;

    const QString autoSetting = QStringLiteral("auto");
    // xterm and urxvt paste their selection with Shift+Insert.
    EXPECT_EQ(
        TextInserter::pasteKeys(autoSetting, QStringLiteral("xterm"), QStringLiteral("XTerm")),
        PasteKeys::shiftInsert);
    EXPECT_EQ(
        TextInserter::pasteKeys(autoSetting, QStringLiteral("urxvt"), QStringLiteral("URxvt")),
        PasteKeys::shiftInsert);
    EXPECT_EQ(TextInserter::pasteKeys(autoSetting, QStringLiteral("Navigator"),
                                      QStringLiteral("firefox")),
              PasteKeys::ctrlV);
    // The class alone is enough, and no window at all is not a terminal.
    EXPECT_EQ(TextInserter::pasteKeys(autoSetting, QString(), QStringLiteral("kitty")),
              PasteKeys::ctrlShiftV);
    EXPECT_EQ(TextInserter::pasteKeys(autoSetting, QString(), QString()), PasteKeys::ctrlV);
    // The setting wins over the window.
    EXPECT_EQ(TextInserter::pasteKeys(QStringLiteral("ctrlV"), QStringLiteral("xterm"), QString()),
              PasteKeys::ctrlV);
    EXPECT_EQ(TextInserter::pasteKeys(QStringLiteral("ctrlShiftV"), QString(), QString()),
              PasteKeys::ctrlShiftV);
    EXPECT_EQ(
        TextInserter::pasteKeys(QStringLiteral("shiftInsert"), QStringLiteral("xterm"), QString()),
        PasteKeys::shiftInsert);
    EXPECT_EQ(
        TextInserter::pasteKeys(QStringLiteral("bogus"), QStringLiteral("konsole"), QString()),
        PasteKeys::ctrlShiftV);
}

TEST(Keysyms, EveryTypeableCharacterHasOneAndControlsHaveNone)
{
    EXPECT_EQ(keysymForCharacter(U'a'), 0x61ul);
    EXPECT_EQ(keysymForCharacter(U'é'), 0xe9ul);
    EXPECT_EQ(keysymForCharacter(U'\u00a0'), 0xa0ul);
    EXPECT_EQ(keysymForCharacter(U'—'), 0x1002014ul);
    EXPECT_EQ(keysymForCharacter(U'日'), 0x10065e5ul);
    EXPECT_EQ(keysymForCharacter(U'🎉'), 0x101f389ul);
    EXPECT_EQ(keysymForCharacter(U'\n'), 0xff0dul); // Return
    EXPECT_EQ(keysymForCharacter(U'\t'), 0xff09ul); // Tab
    EXPECT_EQ(keysymForCharacter(U'\a'), 0ul);
    EXPECT_EQ(keysymForCharacter(U'\x7f'), 0ul);
    EXPECT_EQ(keysymForCharacter(char32_t(0x85)), 0ul);
    EXPECT_EQ(keysymForCharacter(char32_t(0xd800)), 0ul);
    EXPECT_EQ(keysymForCharacter(char32_t(0x110000)), 0ul);
}

TEST(X11ModifierMapping, TranslatesBothWaysAndCoversEveryLockCombination)
{
    constexpr unsigned int shift = 1, lock = 2, control = 4, mod1 = 8, mod2 = 16, mod3 = 32,
                           mod4 = 64;
    X11Modifiers modifiers;
    modifiers.alt = mod1;
    modifiers.super = mod4;
    modifiers.numLock = mod2;

    EXPECT_EQ(modifiers.toX(Modifier::control | Modifier::alt), control | mod1);
    EXPECT_EQ(modifiers.toX(Modifier::shift | Modifier::super), shift | mod4);
    EXPECT_EQ(modifiers.toX(0), 0u);
    EXPECT_FALSE(modifiers.toX(0x800000)) << "no such modifier";
    EXPECT_EQ(modifiers.fromX(control | mod1 | lock | mod2), Modifier::control | Modifier::alt);
    EXPECT_EQ(modifiers.fromX(shift | mod4 | mod3), Modifier::shift | Modifier::super);

    const std::vector<unsigned int> locks = modifiers.lockCombinations();
    EXPECT_EQ(locks, (std::vector<unsigned int>{0, lock, mod2, lock | mod2}));
    modifiers.scrollLock = mod3;
    EXPECT_EQ(modifiers.lockCombinations().size(), 8u);

    // A server without a Super modifier cannot grab a Super combination, and says which.
    X11Modifiers bare;
    bare.alt = mod1;
    EXPECT_FALSE(bare.toX(Modifier::super));
    EXPECT_EQ(bare.missing(Modifier::mask), Modifier::super);
    EXPECT_EQ(bare.missing(Modifier::control | Modifier::alt), 0u);
    EXPECT_EQ(bare.fromX(mod4), 0u);
}

// Runs with no usable display, whatever the environment had.
class WithoutDisplay : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_display = qgetenv("DISPLAY");
        m_session = qgetenv("XDG_SESSION_TYPE");
        qunsetenv("DISPLAY");
        qunsetenv("XDG_SESSION_TYPE");
    }
    void TearDown() override
    {
        restore("DISPLAY", m_display);
        restore("XDG_SESSION_TYPE", m_session);
    }

private:
    static void restore(const char *name, const QByteArray &value)
    {
        if (value.isEmpty())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    QByteArray m_display;
    QByteArray m_session;
};

TEST_F(WithoutDisplay, EverythingReportsTheMissingDisplayInOneLine)
{
    XConnection connection;
    EXPECT_FALSE(connection.ensureOpen());
    EXPECT_EQ(connection.errorString(),
              QStringLiteral("No X display: the DISPLAY variable is not set."));

    InputAccess access = InputAccess::check(connection);
    EXPECT_FALSE(access.granted);
    EXPECT_EQ(access.explanation, connection.errorString());

    qputenv("XDG_SESSION_TYPE", "wayland");
    access = InputAccess::check(connection);
    EXPECT_FALSE(access.granted);
    EXPECT_TRUE(access.explanation.contains(QStringLiteral("Wayland")));
    EXPECT_FALSE(access.explanation.contains(u'\n'));

    XConnection unreachable(QStringLiteral(":4093"));
    EXPECT_FALSE(unreachable.ensureOpen());
    EXPECT_EQ(unreachable.errorString(),
              QStringLiteral("Cannot connect to the X display \":4093\"."));

    HotkeyMonitor monitor(std::make_unique<X11KeySource>(connection));
    EXPECT_FALSE(monitor.start(Hotkey::defaultKey()));
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_EQ(monitor.errorString(), connection.errorString());
    monitor.refreshEscapeGrab();
    monitor.stop();
}

TEST_F(WithoutDisplay, InsertingTypingAndErasingDoNothingAndDoNotCrash)
{
    TextInserter::type(QStringLiteral("héllo 🎉"));
    TextInserter::erase(3);
    TextInserter::insert(QStringLiteral("pasted"));
    EXPECT_FALSE(TextInserter::restorePending());
    EXPECT_FALSE(frontmostProcessId().has_value());
    EXPECT_FALSE(InputAccess::check().granted);
}

} // namespace
} // namespace vocari
