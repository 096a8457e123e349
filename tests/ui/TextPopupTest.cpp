#include "ui/PopupTab.h"
#include "ui/PositionGrid.h"
#include "ui/SegmentedPicker.h"
#include "ui/TabTestSupport.h"
#include "ui/TextTab.h"

#include <QCheckBox>
#include <QComboBox>
#include <QPlainTextEdit>
#include <QSlider>

using namespace vocari;
using namespace vocari::test;

namespace {

class TextTabTest : public TabFixture<TextTab>
{
protected:
    QAbstractButton *segment(const char *label) { return button(m_tab.get(), label); }
    QCheckBox *box(const char *name) { return named<QCheckBox>(m_tab.get(), name); }
    QCheckBox *tidy() { return box("Tidy up filler words and stutters"); }
    QPlainTextEdit *editor(const char *name) { return named<QPlainTextEdit>(m_tab.get(), name); }
    bool shows(const QString &text) { return showsText(m_tab.get(), text); }
};

TEST_F(TextTabTest, LiveTypingDisablesTidyUpWithoutChangingIt)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_GE(report.controls, 7);
    const auto expectLive = [&](bool live, bool tidied) {
        EXPECT_EQ(segment("As I speak")->isChecked(), live);
        EXPECT_EQ(tidy()->isEnabled(), !live);
        EXPECT_EQ(tidy()->isChecked(), tidied);
        EXPECT_TRUE(shows(live ? TextTab::kLiveTypingFooter : TextTab::kPasteFooter));
        EXPECT_EQ(shows(TextTab::kTidyNotLiveFooter), live);
        EXPECT_EQ(shows(TextTab::kTidyFooter), !live);
    };
    expectLive(false, false);
    click(tidy());
    EXPECT_EQ(stored(SettingsKey::aiTidy), "true");
    click(segment("As I speak"));
    EXPECT_EQ(stored(SettingsKey::liveTyping), "true");
    expectLive(true, true);
    EXPECT_EQ(stored(SettingsKey::aiTidy), "true");
    segment("When I stop")->setFocus(Qt::TabFocusReason);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
    EXPECT_EQ(stored(SettingsKey::liveTyping), "false");
    expectLive(false, true);
}

TEST_F(TextTabTest, EditsOfTheSettingsFileShowInTheControls)
{
    EXPECT_FALSE(box("Add a space after the text")->isChecked());
    editFile({{SettingsKey::liveTyping, true},
              {SettingsKey::trailingSpace, true},
              {SettingsKey::autoCapitalize, false},
              {SettingsKey::replacements, "vo cari = Vocari"},
              {SettingsKey::vocabulary, "Kubernetes"}});

    EXPECT_TRUE(segment("As I speak")->isChecked());
    EXPECT_FALSE(tidy()->isEnabled());
    EXPECT_TRUE(box("Add a space after the text")->isChecked());
    EXPECT_FALSE(box("Capitalise the first letter")->isChecked());
    EXPECT_EQ(editor("Replacements")->toPlainText(), "vo cari = Vocari");
    EXPECT_EQ(editor("Vocabulary")->toPlainText(), "Kubernetes");
    // Showing a value writes nothing back.
    EXPECT_EQ(stored(SettingsKey::liveTyping), "true");
    EXPECT_EQ(stored(SettingsKey::autoCapitalize), "false");

    editFile(SettingsKey::liveTyping, QStringLiteral("true")); // a string is no boolean
    EXPECT_TRUE(segment("When I stop")->isChecked());
    EXPECT_TRUE(tidy()->isEnabled());
}

TEST_F(TextTabTest, TypedRulesAreStoredAtOnceAndTabLeavesTheEditor)
{
    const QString problem =
        QStringLiteral("\u201Cvo cari\u201D is not a rule: write heard = replacement.");
    QPlainTextEdit *rules = editor("Replacements");
    rules->setFocus(Qt::TabFocusReason);
    QTest::keyClicks(rules, QStringLiteral("vo cari"));
    EXPECT_EQ(stored(SettingsKey::replacements), "\"vo cari\"");
    EXPECT_TRUE(shows(problem));
    QTest::keyClicks(rules, QStringLiteral(" = Vocari"));
    EXPECT_EQ(stored(SettingsKey::replacements), "\"vo cari = Vocari\"");
    EXPECT_FALSE(shows(problem));

    QTest::keyClick(rules, Qt::Key_Tab);
    EXPECT_EQ(QApplication::focusWidget(), editor("Vocabulary"));
    EXPECT_EQ(rules->toPlainText(), "vo cari = Vocari");
    QTest::keyClicks(QApplication::focusWidget(), QStringLiteral("GitHub"));
    EXPECT_EQ(stored(SettingsKey::vocabulary), "\"GitHub\"");
    EXPECT_EQ(editor("Vocabulary")->textCursor().position(), 6);
}

TEST(TextTabRules, OneLineNamesTheFirstLineThatIsNotARule)
{
    const std::pair<const char *, QString> cases[] = {
        {"", QString()},
        {"a = b\n\n  \nfoo =\nx => y", QString()},
        {"a = b\n=foo\nbar", "\u201C=foo\u201D is not a rule: nothing comes before \u201C=\u201D."},
        {"a = b\r\n  bar  ", "\u201C"
                             "bar\u201D is not a rule: write heard = replacement."},
    };
    for (const auto &[rules, problem] : cases)
        EXPECT_EQ(TextTab::ruleProblem(QString::fromUtf8(rules)), problem) << rules;
    const QString problem = TextTab::ruleProblem(QString(200, u'x'));
    EXPECT_TRUE(problem.startsWith(QStringLiteral("\u201C") + QString(39, u'x') + u'\u2026'))
        << problem.toStdString();
}

class PopupTabTest : public TabFixture<PopupTab>
{
protected:
    PositionGrid *grid() { return m_tab->findChild<PositionGrid *>(); }
    QAbstractButton *cell(HUDPosition position) { return grid()->cell(position); }
    QSlider *margin() { return named<QSlider>(m_tab.get(), "Distance from edge"); }
    SegmentedPicker *picker(const char *title)
    {
        return named<SegmentedPicker>(m_tab.get(), title);
    }
    bool previewing() { return m_model->dictation().isDemo(); }
    bool previewed() // and ends the preview
    {
        const bool was = previewing();
        m_model->dictation().endDemo();
        return was && !previewing();
    }
    void press(Qt::Key key) { QTest::keyClick(QApplication::focusWidget(), key); }
};

TEST_F(PopupTabTest, TheGridIsNamedAndArrowKeysMoveTheSelectionWithAPreview)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    const QStringList names{"Top left",     "Top center",  "Top right",     "Middle left", "Center",
                            "Middle right", "Bottom left", "Bottom center", "Bottom right"};
    for (const HUDPosition position : kHUDPositions) {
        QAccessibleInterface *face = QAccessible::queryAccessibleInterface(cell(position));
        ASSERT_TRUE(face);
        EXPECT_EQ(face->text(QAccessible::Name), names[int(position)]);
        EXPECT_EQ(face->role(), QAccessible::RadioButton);
        EXPECT_EQ(face->state().checked, position == HUDPosition::bottomCenter)
            << names[int(position)].toStdString();
    }

    // Tab reaches the grid at its selected cell only, like any radio group.
    margin()->setFocus(Qt::TabFocusReason);
    QTest::keyClick(margin(), Qt::Key_Backtab, Qt::ShiftModifier);
    ASSERT_EQ(QApplication::focusWidget(), cell(HUDPosition::bottomCenter))
        << "focus: " << QApplication::focusWidget()->accessibleName().toStdString();
    press(Qt::Key_Left);
    EXPECT_EQ(stored(SettingsKey::hudPosition), "\"bottomLeft\"");
    EXPECT_TRUE(cell(HUDPosition::bottomLeft)->isChecked());
    EXPECT_TRUE(cell(HUDPosition::bottomLeft)->hasFocus());
    EXPECT_TRUE(previewing());
    for (const Qt::Key key : {Qt::Key_Up, Qt::Key_Up, Qt::Key_Right})
        press(key);
    EXPECT_EQ(stored(SettingsKey::hudPosition), "\"topCenter\"");
    EXPECT_EQ(grid()->selection(), HUDPosition::topCenter);
}

TEST_F(PopupTabTest, TheDistanceIsOffAtTheCentreAndTheSliderStoresAndPreviewsIt)
{
    EXPECT_TRUE(margin()->isEnabled());
    EXPECT_FALSE(showsText(m_tab.get(), PopupTab::kCentredCaption));
    click(cell(HUDPosition::middleCenter));
    EXPECT_EQ(stored(SettingsKey::hudPosition), "\"middleCenter\"");
    EXPECT_FALSE(margin()->isEnabled());
    EXPECT_TRUE(showsText(m_tab.get(), PopupTab::kCentredCaption));
    EXPECT_TRUE(previewing());
    click(cell(HUDPosition::middleLeft));
    EXPECT_TRUE(margin()->isEnabled());
    EXPECT_FALSE(showsText(m_tab.get(), PopupTab::kCentredCaption));
    EXPECT_TRUE(previewed());

    EXPECT_EQ(margin()->value(), 56);
    margin()->setFocus(Qt::TabFocusReason);
    QTest::keyClick(margin(), Qt::Key_Right);
    EXPECT_EQ(stored(SettingsKey::hudMargin), "57");
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("57 pt")));
    EXPECT_TRUE(previewed());
    QTest::keyClick(margin(), Qt::Key_End);
    EXPECT_EQ(stored(SettingsKey::hudMargin), QString::number(PopupTab::kMaxMargin));

    // Stored by hand beyond the range: the caption keeps the number.
    editFile(SettingsKey::hudMargin, 300.4);
    EXPECT_EQ(margin()->value(), PopupTab::kMaxMargin);
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("300 pt")));
    EXPECT_EQ(stored(SettingsKey::hudMargin), "300.4");
}

TEST_F(PopupTabTest, EachSettingPreviewsButHidingTheTextDoesNot)
{
    SegmentedPicker *size = picker("Size");
    EXPECT_EQ(size->current(), 1);
    click(button(m_tab.get(), "Large"));
    EXPECT_EQ(stored(SettingsKey::hudScale), "1.3");
    EXPECT_TRUE(previewed());
    editFile(SettingsKey::hudScale, 1.1);
    EXPECT_EQ(size->current(), -1);
    editFile(SettingsKey::hudScale, 0.85);
    EXPECT_EQ(size->current(), 0);

    auto *display = named<QComboBox>(m_tab.get(), "Display");
    display->setFocus(Qt::TabFocusReason);
    QTest::keyClick(display, Qt::Key_Down);
    EXPECT_EQ(stored(SettingsKey::hudDisplay), "\"main\"");
    EXPECT_TRUE(previewed());

    auto *showText = named<QCheckBox>(m_tab.get(), "Show live text while speaking");
    SegmentedPicker *longText = picker("Long text");
    EXPECT_TRUE(longText->isEnabled());
    click(showText);
    EXPECT_EQ(stored(SettingsKey::hudShowText), "false");
    EXPECT_FALSE(longText->isEnabled());
    EXPECT_FALSE(previewing());
    click(showText);
    EXPECT_TRUE(longText->isEnabled());

    click(button(m_tab.get(), "Show in full"));
    EXPECT_EQ(stored(SettingsKey::hudTextMode), "\"full\"");
    EXPECT_TRUE(previewed());

    click(named<QCheckBox>(m_tab.get(), "Show the \u201C"
                                        "esc\u201D cancel hint"));
    EXPECT_EQ(stored(SettingsKey::hudShowEsc), "false");
    EXPECT_TRUE(previewed());

    QAbstractButton *preview = named<QAbstractButton>(m_tab.get(), "Preview");
    preview->setFocus(Qt::TabFocusReason);
    QTest::keyClick(preview, Qt::Key_Space);
    EXPECT_TRUE(previewing());
}

TEST_F(PopupTabTest, EditsOfTheSettingsFileMoveTheControlsWithoutAPreview)
{
    editFile({{SettingsKey::hudPosition, "middleCenter"},
              {SettingsKey::hudDisplay, "main"},
              {SettingsKey::hudTextMode, "full"},
              {SettingsKey::hudShowText, false},
              {SettingsKey::hudMargin, 80}});

    EXPECT_EQ(grid()->selection(), HUDPosition::middleCenter);
    EXPECT_TRUE(cell(HUDPosition::middleCenter)->isChecked());
    EXPECT_FALSE(margin()->isEnabled());
    EXPECT_EQ(margin()->value(), 80);
    EXPECT_EQ(named<QComboBox>(m_tab.get(), "Display")->currentIndex(), 1);
    EXPECT_EQ(picker("Long text")->current(), 1);
    EXPECT_FALSE(picker("Long text")->isEnabled());
    EXPECT_FALSE(previewing());

    editFile(SettingsKey::hudPosition, QStringLiteral("center")); // unknown: the default
    EXPECT_EQ(grid()->selection(), HUDPosition::bottomCenter);
    EXPECT_TRUE(margin()->isEnabled());
}

} // namespace
