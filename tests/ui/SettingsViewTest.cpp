// The settings window: its tabs, its size, how it comes to the front, and keyboard access.

#include "ui/SettingsView.h"

#include "app/AppFixture.h"
#include "ui/AccessibilityCheck.h"

#include <QTabBar>
#include <QTabWidget>
#include <gmock/gmock.h>

namespace vocari::test {
namespace {

using ::testing::ElementsAre;

class SettingsViewTest : public AppFixture
{
protected:
    void SetUp() override
    {
        AppFixture::SetUp();
        m_view = std::make_unique<SettingsView>(*m_model);
    }
    void TearDown() override
    {
        m_view.reset();
        AppFixture::TearDown();
    }

    std::unique_ptr<SettingsView> m_view;
};

TEST_F(SettingsViewTest, OneWindowOfFixedSizeWithTheSixTabsInOrder)
{
    EXPECT_TRUE(m_view->isWindow());
    EXPECT_EQ(m_view->minimumSize(), QSize(560, 560));
    EXPECT_EQ(m_view->maximumSize(), QSize(560, 560));

    QTabWidget *tabs = m_view->tabs();
    QStringList titles;
    for (int i = 0; i < tabs->count(); ++i) {
        titles.append(tabs->tabText(i));
        EXPECT_FALSE(tabs->tabIcon(i).pixmap(16, 16).isNull()) << tabs->tabText(i).toStdString();
    }
    EXPECT_THAT(titles, ElementsAre(QStringLiteral("General"), QStringLiteral("Text"),
                                    QStringLiteral("Models"), QStringLiteral("Popup"),
                                    QStringLiteral("Permissions"), QStringLiteral("About")));
}

TEST_F(SettingsViewTest, PresentShowsFocusesAndRaisesAgainAndEveryTabIsKeyboardAccessible)
{
    m_view->present();
    ASSERT_TRUE(QTest::qWaitForWindowActive(m_view.get()));
    EXPECT_NE(m_view->focusWidget(), nullptr) << "the keyboard has somewhere to go";
    QTabWidget *tabs = m_view->tabs();
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        const KeyboardAccessReport report = checkKeyboardAccess(m_view.get());
        EXPECT_TRUE(report) << tabs->tabText(i).toStdString() << ": " << report;
        EXPECT_GT(report.controls, 0) << tabs->tabText(i).toStdString();
    }

    m_view->showMinimized();
    QWidget other;
    other.show();
    other.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&other));

    m_view->present();
    ASSERT_TRUE(QTest::qWaitForWindowActive(m_view.get()));
    EXPECT_FALSE(m_view->isMinimized());

    m_view->close();
    m_view->present();
    EXPECT_TRUE(QTest::qWaitForWindowActive(m_view.get()));
}

} // namespace
} // namespace vocari::test
