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

TEST(TypingChunks, CutAtTwentyUnitsWithoutSplittingSurrogatePairs)
{
    const auto sizesOf = [](const QStringList &chunks) {
        std::vector<qsizetype> sizes;
        for (const QString &chunk : chunks)
            sizes.push_back(chunk.size());
        return sizes;
    };
    EXPECT_EQ(sizesOf(TextInserter::typingChunks(QString(45, u'a'))),
              (std::vector<qsizetype>{20, 20, 5}));

    // Units 19 and 20 form one emoji: the first chunk stops before it.
    const QString pair = QString(19, u'a') + QStringLiteral("🎉") + QString(24, u'b');
    const QStringList chunks = TextInserter::typingChunks(pair);
    EXPECT_EQ(sizesOf(chunks), (std::vector<qsizetype>{19, 20, 6}));
    EXPECT_EQ(chunks.join(QString()), pair);

    EXPECT_TRUE(TextInserter::typingChunks(QString()).isEmpty());
    EXPECT_EQ(TextInserter::typingChunks(QString(20, u'x')).size(), 1);
}

TEST(PasteShortcut, TerminalsGetTheirOwnPasteUnlessTheSettingSaysOtherwise)
{
    // Instance or class names, any case, reverse-domain ids; never a name that merely starts
    // or ends like one.
    for (const char *name : {"XTerm", "gnome-terminal-server", "org.wezfurlong.wezterm", "kitty",
                             "com.gexperts.Tilix", "foot", "Terminator"})
        EXPECT_TRUE(TextInserter::isTerminal(QString::fromLatin1(name))) << name;
    for (const char *name : {"firefox", "xtermish", "terminal", "footnotes", ""})
        EXPECT_FALSE(TextInserter::isTerminal(QString::fromLatin1(name))) << name;

    struct Case
    {
        const char *setting, *instance, *windowClass;
        PasteKeys keys;
    };
    const Case cases[] = {
        {"auto", "xterm", "XTerm", PasteKeys::shiftInsert}, // their selection paste
        {"auto", "urxvt", "URxvt", PasteKeys::shiftInsert},
        {"auto", "Navigator", "firefox", PasteKeys::ctrlV},
        {"auto", "", "kitty", PasteKeys::ctrlShiftV}, // the class alone is enough
        {"auto", "", "", PasteKeys::ctrlV},           // no window is not a terminal
        {"ctrlV", "xterm", "", PasteKeys::ctrlV},     // the setting wins over the window
        {"shiftInsert", "xterm", "", PasteKeys::shiftInsert},
        {"bogus", "konsole", "", PasteKeys::ctrlShiftV},
    };
    for (const Case &c : cases)
        EXPECT_EQ(TextInserter::pasteKeys(QString::fromLatin1(c.setting),
                                          QString::fromLatin1(c.instance),
                                          QString::fromLatin1(c.windowClass)),
                  c.keys)
            << c.setting << ' ' << c.instance;
}

TEST(BackspaceCount, MatchesWhatEachKindOfProgramWasMeasuredToNeed)
{
    using TextInserter::BackspaceRule;
    // BackSpace presses that delete each cluster, counted by hand in Qt, GTK 3, Chromium 156
    // and Firefox ESR 153.
    struct Case
    {
        const char16_t *cluster;
        qsizetype codePoint, gtk, chromium, firefox;
    };
    const Case cases[] = {
        {u"a", 1, 1, 1, 1},
        {u"\u00e9", 1, 1, 1, 1},                                     // é, composed
        {u"n\u0304", 2, 1, 2, 2},                                    // n̄, a combining mark
        {u"\U0001F44B\U0001F3FD", 2, 1, 1, 1},                       // 👋🏽, a skin tone
        {u"\U0001F468\u200D\U0001F469\u200D\U0001F467", 5, 1, 1, 4}, // 👨‍👩‍👧, joined
        {u"\U0001F1EB\U0001F1F7", 2, 1, 1, 1},                       // 🇫🇷
        {u"\u2764\uFE0F", 2, 1, 1, 1},                               // ❤️
        {u"\U0001F3F3\uFE0F\u200D\U0001F308", 4, 1, 1, 2},           // 🏳️‍🌈
        {u"\u0915\u094D\u0937\u093F", 4, 4, 4, 4},                   // क्षि
        {u"\u0E01\u0E33", 2, 2, 2, 2},                               // กำ
    };
    for (const Case &c : cases) {
        const QString cluster = QString::fromUtf16(c.cluster);
        // Behind other text, as typed text is.
        const QString text = QStringLiteral("x ") + cluster;
        const auto count = [&](BackspaceRule rule) {
            return TextInserter::backspaceCount(text, rule) - 2;
        };
        EXPECT_EQ(count(BackspaceRule::codePoint), c.codePoint) << qPrintable(cluster);
        EXPECT_EQ(count(BackspaceRule::gtk), c.gtk) << qPrintable(cluster);
        EXPECT_EQ(count(BackspaceRule::chromium), c.chromium) << qPrintable(cluster);
        EXPECT_EQ(count(BackspaceRule::firefox), c.firefox) << qPrintable(cluster);
    }

    // Browsers are known by their window class, whatever toolkit they load.
    const auto ruleOf = [](const char *instance, const char *className) {
        ActiveWindow window;
        window.instanceName = QString::fromLatin1(instance);
        window.className = QString::fromLatin1(className);
        return TextInserter::backspaceRule(window);
    };
    EXPECT_EQ(ruleOf("chromium", "Chromium"), BackspaceRule::chromium);
    EXPECT_EQ(ruleOf("google-chrome", "Google-chrome"), BackspaceRule::chromium);
    EXPECT_EQ(ruleOf("Navigator", "firefox-esr"), BackspaceRule::firefox);
    EXPECT_EQ(ruleOf("Navigator", "Firefox"), BackspaceRule::firefox);
    EXPECT_EQ(ruleOf("xterm", "XTerm"), BackspaceRule::codePoint);
}

TEST(Keysyms, EveryTypeableCharacterHasOneAndControlsHaveNone)
{
    // Latin-1 maps to itself, the rest of Unicode to 0x1000000 + code point; Return and Tab
    // have their function keysyms; controls, surrogates and non-characters have none.
    EXPECT_EQ(keysymForCharacter(U'\u00a0'), 0xa0ul);
    EXPECT_EQ(keysymForCharacter(U'—'), 0x1002014ul);
    EXPECT_EQ(keysymForCharacter(U'🎉'), 0x101f389ul);
    EXPECT_EQ(keysymForCharacter(U'\n'), 0xff0dul);
    EXPECT_EQ(keysymForCharacter(U'\t'), 0xff09ul);
    for (const char32_t control : {U'\a', U'\x7f', U'\x85', char32_t(0xd800), char32_t(0x110000)})
        EXPECT_EQ(keysymForCharacter(control), 0ul) << unsigned(control);
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
        for (const char *name : names) {
            saved.push_back(qgetenv(name));
            qunsetenv(name);
        }
    }
    void TearDown() override
    {
        for (size_t i = 0; i < saved.size(); ++i) {
            if (saved[i].isEmpty())
                qunsetenv(names[i]);
            else
                qputenv(names[i], saved[i]);
        }
    }

private:
    static constexpr const char *names[] = {"DISPLAY", "XDG_SESSION_TYPE"};
    std::vector<QByteArray> saved;
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
