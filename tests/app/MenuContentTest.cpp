#include "ui/MenuContent.h"

#include "AppFixture.h"
#include "hud/HUDController.h"
#include "hud/HUDView.h"
#include "settings/Preferences.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMenu>

namespace vocari::test {
namespace {

class MenuContentTest : public AppFixture
{
protected:
    void SetUp() override
    {
        AppFixture::SetUp();
        m_content = std::make_unique<MenuContent>(
            *m_model, m_menu, [this] { ++m_settingsOpened; }, [] {});
    }
    void TearDown() override
    {
        m_content.reset();
        AppFixture::TearDown();
    }

    // The menu as the user sees it: one text per item, "-" for a separator, disabled lines
    // in brackets.
    QStringList items()
    {
        settle();
        emit m_menu.aboutToShow();
        QStringList texts;
        for (QAction *action : m_menu.actions()) {
            if (action->isSeparator())
                texts.append(QStringLiteral("-"));
            else if (!action->isEnabled())
                texts.append(u'[' + action->text() + u']');
            else
                texts.append(action->text());
        }
        return texts;
    }
    QAction *item(const QString &text)
    {
        items();
        for (QAction *action : m_menu.actions()) {
            if (action->text() == text)
                return action;
        }
        return nullptr;
    }

    QMenu m_menu;
    std::unique_ptr<MenuContent> m_content;
    int m_settingsOpened = 0;
};

TEST_F(MenuContentTest, DefaultMenu)
{
    EXPECT_EQ(items(), (QStringList{
                           "[Hold Right Alt to dictate]",
                           "[Esc, or press again, to cancel]",
                           "-",
                           "[Speech: Built-in Speech]",
                           "-",
                           "[Copy Last Dictation]",
                           "Language (Built-in Speech)",
                           "-",
                           "Settings…",
                           "Quit Vocari",
                       }));
    EXPECT_EQ(item(QStringLiteral("Settings…"))->shortcut(),
              QKeySequence(QStringLiteral("Ctrl+,")));
    EXPECT_EQ(item(QStringLiteral("Quit Vocari"))->shortcut(),
              QKeySequence(QStringLiteral("Ctrl+Q")));

    // The language submenu lists every language, the stored one checked; choosing stores it.
    QMenu *languages = item(QStringLiteral("Language (Built-in Speech)"))->menu();
    ASSERT_NE(languages, nullptr);
    EXPECT_EQ(languages->actions().size(), qsizetype(Preferences::languages().size()));
    QAction *german = nullptr;
    for (QAction *action : languages->actions()) {
        if (action->text().startsWith(QStringLiteral("Deutsch")))
            german = action;
    }
    ASSERT_NE(german, nullptr);
    german->trigger();
    EXPECT_EQ(Preferences::language(), QStringLiteral("de-DE"));
    const QList<QAction *> choices =
        item(QStringLiteral("Language (Built-in Speech)"))->menu()->actions();
    const auto checked = std::count_if(choices.begin(), choices.end(),
                                       [](QAction *action) { return action->isChecked(); });
    EXPECT_EQ(checked, 1);
}

TEST_F(MenuContentTest, LinesFollowTheSettings)
{
    m_settings.store().setValue(SettingsKey::recordMode, QStringLiteral("toggle"));
    m_model->setHotkey(Hotkey{57, 0x40000 | 0x80000, false});
    m_settings.store().setValue(SettingsKey::aiTidy, true);
    // An engine that no longer exists reads as the built-in one.
    m_settings.store().setValue(SettingsKey::engine, QStringLiteral("gone-model"));
    const QStringList shown = items();
    EXPECT_EQ(shown.mid(0, 5),
              (QStringList{"[Press Ctrl+Alt+Space to start, again to stop]", "[Esc to cancel]", "-",
                           "[Speech: Built-in Speech]", "[Tidy-up: on]"}));

    // Tidy-up does not apply to live typing.
    m_settings.store().setValue(SettingsKey::liveTyping, true);
    EXPECT_FALSE(items().contains(QStringLiteral("[Tidy-up: on]")));
}

TEST_F(MenuContentTest, EscapeIsPromisedOnlyWhereItCancels)
{
    // A desktop that will not let Escape be taken (a shortcut service that refused it): once a
    // dictation has met the refusal, neither the menu nor the HUD offers Escape.
    m_keys->refuseEscape = true;
    next().holdFinish = true;
    press();
    ASSERT_NE(phase(), Dictation::Phase::idle);
    EXPECT_FALSE(m_model->hud().view()->content().showEsc);
    m_model->cancelDictation();
    release();
    EXPECT_EQ(items().mid(0, 2),
              (QStringList{"[Hold Right Alt to dictate]", "[Press again to cancel]"}));
    m_settings.store().setValue(SettingsKey::recordMode, QStringLiteral("toggle"));
    EXPECT_EQ(items().at(1), QStringLiteral("[“vocari cancel” cancels]"));

    // Where Escape is taken, the HUD shows its hint while a dictation runs.
    m_keys->refuseEscape = false;
    m_settings.store().setValue(SettingsKey::recordMode, QStringLiteral("hold"));
    press();
    EXPECT_TRUE(m_model->hud().view()->content().showEsc);
    m_model->cancelDictation();
    release();
    EXPECT_EQ(items().at(1), QStringLiteral("[Esc, or press again, to cancel]"));
}

TEST_F(MenuContentTest, LanguagesWithoutAModelAreMarked)
{
    // Debian's English model is installed (scripts/setup); no German one is, in the test's
    // empty data folder or the system's.
    QStringList lines;
    for (QAction *action : item(QStringLiteral("Language (Built-in Speech)"))->menu()->actions())
        lines << action->text();
    EXPECT_TRUE(lines.contains(QStringLiteral("English (US)"))) << qPrintable(lines.join(u'|'));
    EXPECT_TRUE(lines.contains(QStringLiteral("English (UK)")));
    EXPECT_TRUE(lines.contains(QStringLiteral("Deutsch (no speech model installed)")));
}

TEST_F(MenuContentTest, FinishSetupWhileInputAccessIsMissing)
{
    EXPECT_FALSE(items().contains(QStringLiteral("Finish setup…")));
    m_desktop->access = {false, QStringLiteral("No X display.")};
    m_model->refreshPermissions();
    const QStringList shown = items();
    const auto at = shown.indexOf(QStringLiteral("Finish setup…"));
    ASSERT_GT(at, 0);
    EXPECT_EQ(shown[at - 1], QStringLiteral("-"));
    item(QStringLiteral("Finish setup…"))->trigger();
    EXPECT_EQ(m_settingsOpened, 1);
}

TEST_F(MenuContentTest, CopyLastDictationPutsItOnTheClipboard)
{
    next().finalText = QStringLiteral("remember me");
    press();
    release();
    QAction *copy = item(QStringLiteral("Copy Last Dictation"));
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(copy->isEnabled());
    QGuiApplication::clipboard()->setText(QStringLiteral("something else"));
    copy->trigger();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("Remember me"));
}

} // namespace
} // namespace vocari::test
