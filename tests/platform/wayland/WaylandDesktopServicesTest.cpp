// Text into the window in front on Wayland, on a scripted key injector and clipboard: pasting
// through a data-control clipboard (and giving the user's content back), typing where there is
// none, erasing only what this program typed last, and what input access reports.

#include "platform/wayland/WaylandDesktopServices.h"

#include "platform/wayland/Keysyms.h"
#include "platform/wayland/SessionKind.h"
#include "support/EventLoop.h"
#include "support/ScopedSettings.h"

#include <gtest/gtest.h>
#include <set>
#include <utility>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

struct ScriptedInjector final : KeyInjector
{
    bool isReady = true;
    bool wasDeclined = false;
    int asked = 0;
    std::vector<KeysymEvent> sent;
    std::vector<SendFailed> pending; // what to call if the desktop refuses the keys later
    std::set<std::uint32_t> missingFromLayout;

    QString name() const override { return QStringLiteral("scripted keys"); }
    bool ready() override { return isReady; }
    QString errorString() const override
    {
        return isReady ? QString() : QStringLiteral("Keyboard access was declined.");
    }
    using KeyInjector::send;
    bool send(const std::vector<KeysymEvent> &events, SendFailed failed) override
    {
        if (!isReady)
            return false;
        sent.insert(sent.end(), events.begin(), events.end());
        if (failed)
            pending.push_back(std::move(failed));
        return true;
    }
    bool canType(std::uint32_t keysym) const override
    {
        return !missingFromLayout.contains(keysym);
    }
    // The desktop refuses a key after send() returned.
    void refuseLater()
    {
        for (const SendFailed &failed : std::exchange(pending, {}))
            failed();
    }
    bool declined() const override { return wasDeclined; }
    void askAgain() override { ++asked; }
};

struct ScriptedClipboard final : ClipboardAccess
{
    ClipboardContent content{QStringLiteral("image/png"), QByteArrayLiteral("\x89PNG user")};
    QString primary;
    bool readable = true;
    int saves = 0;
    int fetched = 0; // how often a window fetched the text set last

    bool slowOwner = false;         // the clipboard's owner takes its time to hand the content over
    std::function<void()> handOver; // the slow owner hands the content over
    void save(Saved done) override
    {
        ++saves;
        if (slowOwner)
            handOver = [this, done] { done(content); };
        else
            done(readable ? std::optional(content) : std::nullopt);
    }
    bool setPrimaryText(const QString &text) override
    {
        primary = text;
        return true;
    }
    bool setText(const QString &text) override
    {
        content = {QStringLiteral("text/plain;charset=utf-8"), text.toUtf8()};
        fetched = 0;
        return true;
    }
    int fetches() const override { return fetched; }
    bool restore(const ClipboardContent &saved) override
    {
        content = saved;
        return true;
    }
};

class WaylandDesktop : public ::testing::Test
{
protected:
    void make(bool withClipboard)
    {
        auto keys = std::make_unique<ScriptedInjector>();
        m_keys = keys.get();
        std::unique_ptr<ClipboardAccess> clipboard;
        if (withClipboard) {
            clipboard = std::make_unique<ScriptedClipboard>();
            m_clipboard = static_cast<ScriptedClipboard *>(clipboard.get());
        }
        m_desktop = std::make_unique<WaylandDesktopServices>(
            std::move(keys), std::move(clipboard),
            [this](const QString &text) { m_fallbackCopies.append(text); });
    }

    ScopedSettings m_settings;
    ScriptedInjector *m_keys = nullptr;
    ScriptedClipboard *m_clipboard = nullptr;
    QStringList m_fallbackCopies;
    std::unique_ptr<WaylandDesktopServices> m_desktop;
};

TEST_F(WaylandDesktop, PasteGoesThroughTheClipboardAndGivesTheUsersContentBack)
{
    make(true);
    const ClipboardContent users = m_clipboard->content;
    m_desktop->paste(QStringLiteral("first"));
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("first"));
    EXPECT_EQ(m_keys->sent, pasteKeysyms(TextInserter::PasteKeys::ctrlV));

    // A second paste within the delay keeps what the user had before the first. The user's
    // content comes back only after a window has fetched the text.
    spin(200ms);
    m_desktop->paste(QStringLiteral("second"));
    EXPECT_EQ(m_clipboard->saves, 1);
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("second"));
    spin(1s);
    EXPECT_TRUE(m_desktop->restorePending()) << "nobody fetched the text yet";
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("second"));
    m_clipboard->fetched = 1;
    ASSERT_TRUE(waitUntil([&] { return !m_desktop->restorePending(); }, 2s));
    EXPECT_EQ(m_clipboard->content.type, users.type);
    EXPECT_EQ(m_clipboard->content.bytes, users.bytes);

    // A paste no window takes (a toolkit that ignored the keys) leaves the text on the
    // clipboard for the user, instead of putting the old content back over it.
    m_desktop->paste(QStringLiteral("ignored"));
    ASSERT_TRUE(waitUntil([&] { return !m_desktop->restorePending(); }, 5s));
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("ignored"));

    // The settings' shortcut is used, and "keep on clipboard" leaves the text there.
    m_keys->sent.clear();
    m_settings.store().setValue(QStringLiteral("pasteShortcut"), QStringLiteral("ctrlShiftV"));
    m_settings.store().setValue(QStringLiteral("keepOnClipboard"), true);
    EXPECT_TRUE(m_desktop->paste(QStringLiteral("kept")));
    EXPECT_EQ(m_keys->sent, pasteKeysyms(TextInserter::PasteKeys::ctrlShiftV));
    EXPECT_FALSE(m_desktop->restorePending());
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("kept"));

    // xterm and urxvt paste the primary selection on Shift+Insert.
    m_settings.store().setValue(QStringLiteral("pasteShortcut"), QStringLiteral("shiftInsert"));
    m_desktop->paste(QStringLiteral("for xterm"));
    EXPECT_EQ(m_clipboard->primary, QStringLiteral("for xterm"));
}

TEST_F(WaylandDesktop, NoPathLosesTheText)
{
    // Keys that cannot be sent: the dictation stays on the clipboard, not restored away.
    make(true);
    m_keys->isReady = false;
    EXPECT_FALSE(m_desktop->paste(QStringLiteral("still here")));
    EXPECT_FALSE(m_desktop->restorePending());
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("still here"));

    // A clipboard that cannot be read is not cleared afterwards either.
    m_keys->isReady = true;
    m_clipboard->readable = false;
    EXPECT_TRUE(m_desktop->paste(QStringLiteral("unreadable before")));
    EXPECT_FALSE(m_desktop->restorePending());
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("unreadable before"));

    // Keys the desktop refuses after they were queued: the typing stops, the text goes to the
    // clipboard, and nothing of it is erased later.
    const qsizetype typed = m_desktop->type(QStringLiteral("half sent"));
    m_keys->refuseLater();
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("half sent"));
    m_keys->sent.clear();
    m_desktop->erase(typed);
    EXPECT_TRUE(m_keys->sent.empty());

    // Without a clipboard the text is typed; when typing fails too, it goes to the windows'
    // clipboard.
    make(false);
    m_keys->isReady = false;
    EXPECT_FALSE(m_desktop->paste(QStringLiteral("typed or kept")));
    EXPECT_EQ(m_fallbackCopies, QStringList{QStringLiteral("typed or kept")});
}

TEST_F(WaylandDesktop, PastesWaitForASlowClipboardOwnerAndKeepTheirOrder)
{
    // The user's content is read without stopping the program: what ends or is typed meanwhile
    // waits, and goes as one paste in the order it came (two pastes in a row would both fetch
    // the second text); the user's content is what comes back after it.
    make(true);
    const ClipboardContent users = m_clipboard->content;
    m_clipboard->slowOwner = true;
    EXPECT_TRUE(m_desktop->paste(QStringLiteral("first ")));
    EXPECT_EQ(m_desktop->type(QStringLiteral("typed ")), 0);
    EXPECT_TRUE(m_desktop->paste(QStringLiteral("second")));
    EXPECT_TRUE(m_keys->sent.empty());
    EXPECT_EQ(m_clipboard->content, users);
    m_clipboard->handOver();
    EXPECT_EQ(m_keys->sent, pasteKeysyms(TextInserter::PasteKeys::ctrlV));
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("first typed second"));
    EXPECT_EQ(m_clipboard->saves, 1);
    m_clipboard->fetched = 1;
    ASSERT_TRUE(waitUntil([&] { return !m_desktop->restorePending(); }, 2s));
    EXPECT_EQ(m_clipboard->content, users);
}

TEST_F(WaylandDesktop, CharactersTheLayoutLacksArePastedNotDropped)
{
    // The desktop drops keysyms its layout has no key for, silently: such a phrase is pasted
    // whole, and there is nothing typed to erase.
    make(true);
    m_keys->missingFromLayout = {0xe9}; // eacute
    EXPECT_EQ(m_desktop->type(QStringLiteral("café")), 0);
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("café"));
    EXPECT_EQ(m_keys->sent, pasteKeysyms(TextInserter::PasteKeys::ctrlV));
    EXPECT_EQ(m_desktop->type(QStringLiteral("cafe")), 4);

    // With no clipboard to paste from, what the layout has is typed and the whole text is left
    // where the user can paste it.
    make(false);
    m_keys->missingFromLayout = {0xe9};
    EXPECT_EQ(m_desktop->type(QStringLiteral("café")), 3);
    EXPECT_EQ(m_keys->sent, typingKeysyms(QStringLiteral("caf")));
    EXPECT_EQ(m_fallbackCopies, QStringList{QStringLiteral("café")});
}

TEST_F(WaylandDesktop, WithoutAClipboardTheTextIsTyped)
{
    make(false);
    m_desktop->paste(QStringLiteral("Hi ö"));
    EXPECT_EQ(m_keys->sent, typingKeysyms(QStringLiteral("Hi ö")));
    // Copying for the user falls back to the windows' clipboard.
    m_desktop->copyToClipboard(QStringLiteral("left for you"));
    EXPECT_EQ(m_fallbackCopies, QStringList{QStringLiteral("left for you")});
}

TEST_F(WaylandDesktop, EraseTakesBackOnlyWhatWasTypedLast)
{
    make(true);
    // One BackSpace per code point: the emoji is one, though two UTF-16 units.
    const qsizetype first = m_desktop->type(QStringLiteral("Hello 👋"));
    EXPECT_EQ(first, 7);
    const qsizetype second = m_desktop->type(QStringLiteral(" there\r\nfriend"));
    EXPECT_EQ(second, 13); // CR LF is one Return
    m_keys->sent.clear();
    m_desktop->erase(first + second);
    EXPECT_EQ(m_keys->sent, backspaceKeysyms(first + second));

    // Something else sent after the typing: the typed text may no longer be where it was.
    const qsizetype typed = m_desktop->type(QStringLiteral("gone"));
    m_desktop->paste(QStringLiteral("other"));
    m_keys->sent.clear();
    m_desktop->erase(typed);
    EXPECT_TRUE(m_keys->sent.empty());
}

TEST_F(WaylandDesktop, DeclinedKeysLeaveTheKeyWatchedAndTheTextCopyable)
{
    make(true);
    m_keys->isReady = false;
    m_keys->wasDeclined = true;
    const InputAccessState access = m_desktop->inputAccess();
    EXPECT_FALSE(access.granted);
    EXPECT_EQ(access.explanation, QStringLiteral("Keyboard access was declined."));
    EXPECT_TRUE(access.keysWithoutAccess);
    EXPECT_TRUE(m_desktop->declined());
    m_desktop->askAgain();
    EXPECT_EQ(m_keys->asked, 1);

    // Typing fails without losing count of what is on screen; copying still works.
    EXPECT_EQ(m_desktop->type(QStringLiteral("lost")), 0);
    m_desktop->copyToClipboard(QStringLiteral("safe"));
    EXPECT_EQ(m_clipboard->content.bytes, QByteArray("safe"));
    EXPECT_TRUE(m_fallbackCopies.isEmpty());
}

TEST(SessionKindTest, TheSessionTypeDecidesThenTheDisplays)
{
    const auto detect = [](std::initializer_list<std::pair<const char *, const char *>> vars) {
        QProcessEnvironment environment;
        for (const auto &[name, value] : vars)
            environment.insert(QLatin1String(name), QLatin1String(value));
        return SessionKind::detect(environment);
    };
    EXPECT_TRUE(detect({{"XDG_SESSION_TYPE", "wayland"}, {"DISPLAY", ":0"}}).isWayland());
    EXPECT_TRUE(detect({{"XDG_SESSION_TYPE", "Wayland"}}).isWayland());
    // An X11 session of a desktop that also runs a Wayland compositor nested somewhere.
    EXPECT_FALSE(
        detect({{"XDG_SESSION_TYPE", "x11"}, {"WAYLAND_DISPLAY", "wayland-0"}}).isWayland());
    const SessionKind tty = detect({{"XDG_SESSION_TYPE", "tty"}, {"WAYLAND_DISPLAY", "wayland-1"}});
    EXPECT_TRUE(tty.isWayland());
    EXPECT_EQ(tty.reason, QStringLiteral("WAYLAND_DISPLAY is wayland-1"));
    EXPECT_FALSE(detect({{"DISPLAY", ":1"}}).isWayland());
    EXPECT_FALSE(detect({}).isWayland());
}

} // namespace
} // namespace vocari::test
