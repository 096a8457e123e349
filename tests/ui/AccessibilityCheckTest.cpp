// The keyboard and screen-reader check that the tab tests rely on: it must find what it is
// meant to find.

#include "ui/AccessibilityCheck.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QToolButton>
#include <gtest/gtest.h>

namespace vocari::test {
namespace {

class AccessibilityCheckTest : public ::testing::Test
{
protected:
    template <typename T> T *add(T *widget)
    {
        m_layout->addWidget(widget);
        return widget;
    }

    QWidget m_window;
    QHBoxLayout *m_layout = new QHBoxLayout(&m_window);
};

TEST_F(AccessibilityCheckTest, NamedControlsInTheTabChainPass)
{
    add(new QPushButton(QStringLiteral("Open")));
    add(new QCheckBox(QStringLiteral("Play sounds")));
    auto *label = add(new QLabel(QStringLiteral("Microphone")));
    auto *picker = add(new QComboBox);
    label->setBuddy(picker); // an empty picker is named by its label
    auto *hidden = add(new QToolButton);
    hidden->hide();
    add(new QRadioButton(QStringLiteral("Small")))->setChecked(true);
    add(new QRadioButton(QStringLiteral("Large")));

    const KeyboardAccessReport report = checkKeyboardAccess(&m_window);
    EXPECT_TRUE(report) << report;
    EXPECT_EQ(report.controls, 5) << report;
}

TEST_F(AccessibilityCheckTest, IconButtonWithoutANameIsReported)
{
    add(new QPushButton(QStringLiteral("Open")));
    auto *icon = add(new QToolButton);
    icon->setObjectName(QStringLiteral("presets"));
    icon->setFocusPolicy(Qt::StrongFocus);

    const KeyboardAccessReport report = checkKeyboardAccess(&m_window);
    EXPECT_FALSE(report);
    EXPECT_EQ(report.unnamed, QStringList{QStringLiteral("QToolButton \"presets\"")});
    EXPECT_TRUE(report.unreachable.isEmpty()) << report;
}

TEST_F(AccessibilityCheckTest, EditorThatKeepsTabCutsOffTheControlsAfterIt)
{
    add(new QPushButton(QStringLiteral("Before")));
    auto *editor = add(new QPlainTextEdit);
    editor->setAccessibleName(QStringLiteral("Rules"));
    add(new QPushButton(QStringLiteral("After")));
    EXPECT_EQ(checkKeyboardAccess(&m_window).unreachable,
              QStringList{QStringLiteral("QPushButton (After)")});

    editor->setTabChangesFocus(true);
    const KeyboardAccessReport report = checkKeyboardAccess(&m_window);
    EXPECT_TRUE(report) << report;
}

TEST_F(AccessibilityCheckTest, ButtonsOfAnExclusiveGroupAreOneStop)
{
    add(new QPushButton(QStringLiteral("Before")));
    auto *group = new QButtonGroup(&m_window);
    for (const char *text : {"Small", "Medium", "Large"}) {
        auto *button = add(new QPushButton(QString::fromLatin1(text)));
        button->setCheckable(true);
        group->addButton(button);
    }
    group->buttons().constLast()->setChecked(true);
    add(new QPushButton(QStringLiteral("After")));

    const KeyboardAccessReport report = checkKeyboardAccess(&m_window);
    EXPECT_TRUE(report) << report;
    EXPECT_EQ(report.controls, 5);
    // Which is why: Tab passes over the group's other buttons, the arrow keys reach them.
    QAbstractButton *small = group->buttons().constFirst();
    small->setFocus();
    QTest::keyClick(small, Qt::Key_Tab);
    EXPECT_EQ(qobject_cast<QPushButton *>(QApplication::focusWidget())->text(),
              QStringLiteral("After"));
    small->setFocus();
    QTest::keyClick(small, Qt::Key_Right);
    EXPECT_EQ(QApplication::focusWidget(), group->buttons().at(1));
}

} // namespace
} // namespace vocari::test
