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

// ----- Text tab ---------------------------------------------------------------------------

class TextTabTest : public TabFixture<TextTab>
{
protected:
    QAbstractButton *segment(const QString &label) { return button(m_tab.get(), label); }
    QCheckBox *tidy()
    {
        return named<QCheckBox>(m_tab.get(), QStringLiteral("Tidy up filler words and stutters"));
    }
    QPlainTextEdit *editor(const QString &name) { return named<QPlainTextEdit>(m_tab.get(), name); }
};

TEST_F(TextTabTest, AFreshUserPastesAtTheEndWithTidyUpAvailable)
{
    EXPECT_TRUE(segment(QStringLiteral("When I stop"))->isChecked());
    EXPECT_FALSE(segment(QStringLiteral("As I speak"))->isChecked());
    EXPECT_TRUE(showsText(m_tab.get(), TextTab::kPasteFooter));
    EXPECT_TRUE(showsText(m_tab.get(), TextTab::kTidyFooter));
    EXPECT_TRUE(tidy()->isEnabled());
    EXPECT_FALSE(tidy()->isChecked());
    // The fixture turns capitalisation on; the trailing space is off by default.
    EXPECT_TRUE(
        named<QCheckBox>(m_tab.get(), QStringLiteral("Capitalise the first letter"))->isChecked());
    EXPECT_FALSE(
        named<QCheckBox>(m_tab.get(), QStringLiteral("Add a space after the text"))->isChecked());
}

TEST_F(TextTabTest, LiveTypingDisablesTidyUpWithoutChangingIt)
{
    click(tidy());
    EXPECT_EQ(stored(SettingsKey::aiTidy), "true");

    click(segment(QStringLiteral("As I speak")));
    EXPECT_EQ(stored(SettingsKey::liveTyping), "true");
    EXPECT_FALSE(tidy()->isEnabled());
    EXPECT_TRUE(tidy()->isChecked());
    EXPECT_EQ(stored(SettingsKey::aiTidy), "true");
    EXPECT_TRUE(showsText(m_tab.get(), TextTab::kLiveTypingFooter));
    EXPECT_TRUE(showsText(m_tab.get(), TextTab::kTidyNotLiveFooter));
    EXPECT_FALSE(showsText(m_tab.get(), TextTab::kTidyFooter));

    // Back to pasting at the end: the tidy-up is available again, still on.
    segment(QStringLiteral("When I stop"))->setFocus(Qt::TabFocusReason);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
    EXPECT_EQ(stored(SettingsKey::liveTyping), "false");
    EXPECT_TRUE(tidy()->isEnabled());
    EXPECT_TRUE(tidy()->isChecked());
    EXPECT_TRUE(showsText(m_tab.get(), TextTab::kPasteFooter));
    EXPECT_TRUE(showsText(m_tab.get(), TextTab::kTidyFooter));
}

TEST_F(TextTabTest, EditsOfTheSettingsFileShowInTheControls)
{
    editFile(SettingsKey::liveTyping, true);
    editFile(SettingsKey::trailingSpace, true);
    editFile(SettingsKey::autoCapitalize, false);
    editFile(SettingsKey::replacements, QStringLiteral("vo cari = Vocari"));
    editFile(SettingsKey::vocabulary, QStringLiteral("Kubernetes"));

    EXPECT_TRUE(segment(QStringLiteral("As I speak"))->isChecked());
    EXPECT_FALSE(tidy()->isEnabled());
    EXPECT_TRUE(
        named<QCheckBox>(m_tab.get(), QStringLiteral("Add a space after the text"))->isChecked());
    EXPECT_FALSE(
        named<QCheckBox>(m_tab.get(), QStringLiteral("Capitalise the first letter"))->isChecked());
    EXPECT_EQ(editor(QStringLiteral("Replacements"))->toPlainText(), "vo cari = Vocari");
    EXPECT_EQ(editor(QStringLiteral("Vocabulary"))->toPlainText(), "Kubernetes");
    // Showing a value is not an edit: nothing was written back over the file.
    EXPECT_EQ(stored(SettingsKey::liveTyping), "true");
    EXPECT_EQ(stored(SettingsKey::autoCapitalize), "false");

    // A string "true" is no boolean: it reads as off.
    editFile(SettingsKey::liveTyping, QStringLiteral("true"));
    EXPECT_TRUE(segment(QStringLiteral("When I stop"))->isChecked());
    EXPECT_TRUE(tidy()->isEnabled());
}

TEST_F(TextTabTest, TypedRulesAreStoredAtOnceAndTabLeavesTheEditor)
{
    QPlainTextEdit *rules = editor(QStringLiteral("Replacements"));
    rules->setFocus(Qt::TabFocusReason);
    QTest::keyClicks(rules, QStringLiteral("vo cari"));
    EXPECT_EQ(stored(SettingsKey::replacements), "\"vo cari\"");
    // Not yet a rule: the tab says so in one line.
    EXPECT_TRUE(
        showsText(m_tab.get(), QStringLiteral("\u201Cvo cari\u201D is not a rule: write heard = "
                                              "replacement.")));
    QTest::keyClicks(rules, QStringLiteral(" = Vocari"));
    EXPECT_EQ(stored(SettingsKey::replacements), "\"vo cari = Vocari\"");
    EXPECT_FALSE(
        showsText(m_tab.get(), QStringLiteral("\u201Cvo cari\u201D is not a rule: write heard = "
                                              "replacement.")));

    // Tab moves on to the vocabulary instead of typing a tab character.
    QTest::keyClick(rules, Qt::Key_Tab);
    EXPECT_EQ(QApplication::focusWidget(), editor(QStringLiteral("Vocabulary")));
    EXPECT_EQ(rules->toPlainText(), "vo cari = Vocari");

    // Typing goes on undisturbed while the store reports each change back.
    QTest::keyClicks(QApplication::focusWidget(), QStringLiteral("GitHub"));
    EXPECT_EQ(stored(SettingsKey::vocabulary), "\"GitHub\"");
    EXPECT_EQ(editor(QStringLiteral("Vocabulary"))->textCursor().position(), 6);
}

TEST_F(TextTabTest, EveryControlIsReachedWithTabAndNamed)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
    EXPECT_GE(report.controls, 7); // two segments, three check boxes, two editors
}

TEST(TextTabRules, OneLineNamesTheFirstLineThatIsNotARule)
{
    EXPECT_EQ(TextTab::ruleProblem(QString()), QString());
    EXPECT_EQ(TextTab::ruleProblem(QStringLiteral("a = b\n\n  \nfoo =\nx => y")), QString());
    EXPECT_EQ(TextTab::ruleProblem(QStringLiteral("a = b\n=foo\nbar")),
              "\u201C=foo\u201D is not a rule: nothing comes before \u201C=\u201D.");
    EXPECT_EQ(TextTab::ruleProblem(QStringLiteral("a = b\r\n  bar  ")),
              "\u201C"
              "bar\u201D is not a rule: write heard = replacement.");
    // A long line is quoted in part.
    const QString problem = TextTab::ruleProblem(QString(200, u'x'));
    EXPECT_TRUE(problem.startsWith(QStringLiteral("\u201C") + QString(39, u'x') + u'\u2026'))
        << problem.toStdString();
}

// ----- Popup tab --------------------------------------------------------------------------

class PopupTabTest : public TabFixture<PopupTab>
{
protected:
    PositionGrid *grid() { return m_tab->findChild<PositionGrid *>(); }
    QAbstractButton *cell(HUDPosition position) { return grid()->cell(position); }
    QSlider *margin() { return named<QSlider>(m_tab.get(), QStringLiteral("Distance from edge")); }
    SegmentedPicker *picker(const QString &title)
    {
        return named<SegmentedPicker>(m_tab.get(), title);
    }
    bool previewing() { return m_model->dictation().isDemo(); }
    void endPreview()
    {
        m_model->dictation().endDemo();
        ASSERT_FALSE(previewing());
    }
};

TEST_F(PopupTabTest, TheGridCellsNameTheirPositionsToScreenReaders)
{
    const QStringList names{"Top left",     "Top center",  "Top right",     "Middle left", "Center",
                            "Middle right", "Bottom left", "Bottom center", "Bottom right"};
    for (const HUDPosition position : kHUDPositions) {
        QAbstractButton *each = cell(position);
        QAccessibleInterface *face = QAccessible::queryAccessibleInterface(each);
        ASSERT_TRUE(face);
        EXPECT_EQ(face->text(QAccessible::Name), names[int(position)]);
        EXPECT_EQ(face->role(), QAccessible::RadioButton);
        // The default position is the one selected.
        EXPECT_EQ(face->state().checked, position == HUDPosition::bottomCenter)
            << names[int(position)].toStdString();
    }
}

TEST_F(PopupTabTest, ArrowKeysMoveTheSelectionAndPreviewEachPlace)
{
    // Tab reaches the grid at its selected cell only, as with any group of radio buttons:
    // going back from the slider lands on "Bottom center", not on the last cell.
    margin()->setFocus(Qt::TabFocusReason);
    QTest::keyClick(margin(), Qt::Key_Backtab, Qt::ShiftModifier);
    ASSERT_EQ(QApplication::focusWidget(), cell(HUDPosition::bottomCenter))
        << "focus: " << QApplication::focusWidget()->accessibleName().toStdString();

    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Left);
    EXPECT_EQ(stored(SettingsKey::hudPosition), "\"bottomLeft\"");
    EXPECT_TRUE(cell(HUDPosition::bottomLeft)->isChecked());
    EXPECT_TRUE(cell(HUDPosition::bottomLeft)->hasFocus());
    EXPECT_TRUE(previewing());

    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Up);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Up);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Right);
    EXPECT_EQ(stored(SettingsKey::hudPosition), "\"topCenter\"");
    EXPECT_EQ(grid()->selection(), HUDPosition::topCenter);
}

TEST_F(PopupTabTest, TheCentreCellDisablesTheDistanceAndAnEdgeEnablesItAgain)
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
}

TEST_F(PopupTabTest, MovingTheDistanceSliderStoresAndPreviewsTheMargin)
{
    EXPECT_EQ(margin()->value(), 56);
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("56 pt")));

    margin()->setFocus(Qt::TabFocusReason);
    QTest::keyClick(margin(), Qt::Key_Right);
    EXPECT_EQ(stored(SettingsKey::hudMargin), "57");
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("57 pt")));
    EXPECT_TRUE(previewing());

    QTest::keyClick(margin(), Qt::Key_End);
    EXPECT_EQ(stored(SettingsKey::hudMargin), QString::number(PopupTab::kMaxMargin));

    // A value stored by hand beyond the slider's range keeps its number in the caption.
    editFile(SettingsKey::hudMargin, 300.4);
    EXPECT_EQ(margin()->value(), PopupTab::kMaxMargin);
    EXPECT_TRUE(showsText(m_tab.get(), QStringLiteral("300 pt")));
    EXPECT_EQ(stored(SettingsKey::hudMargin), "300.4");
}

TEST_F(PopupTabTest, TheSizePickerStoresTheFactorAndShowsNoneForAnOtherOne)
{
    SegmentedPicker *size = picker(QStringLiteral("Size"));
    EXPECT_EQ(size->current(), 1); // Medium, 1.0
    click(button(m_tab.get(), QStringLiteral("Large")));
    EXPECT_EQ(stored(SettingsKey::hudScale), "1.3");
    EXPECT_TRUE(previewing());

    editFile(SettingsKey::hudScale, 1.1);
    EXPECT_EQ(size->current(), -1);
    editFile(SettingsKey::hudScale, 0.85);
    EXPECT_EQ(size->current(), 0);
}

TEST_F(PopupTabTest, DisplayAndLongTextPreviewButShowingTextDoesNot)
{
    auto *display = named<QComboBox>(m_tab.get(), QStringLiteral("Display"));
    EXPECT_EQ(display->currentText(), "Screen with the cursor");
    display->setFocus(Qt::TabFocusReason);
    QTest::keyClick(display, Qt::Key_Down);
    EXPECT_EQ(stored(SettingsKey::hudDisplay), "\"main\"");
    EXPECT_TRUE(previewing());
    endPreview();

    auto *showText = named<QCheckBox>(m_tab.get(), QStringLiteral("Show live text while speaking"));
    SegmentedPicker *longText = picker(QStringLiteral("Long text"));
    EXPECT_TRUE(longText->isEnabled());
    click(showText);
    EXPECT_EQ(stored(SettingsKey::hudShowText), "false");
    EXPECT_FALSE(longText->isEnabled());
    EXPECT_FALSE(previewing());
    click(showText);
    EXPECT_TRUE(longText->isEnabled());

    click(button(m_tab.get(), QStringLiteral("Show in full")));
    EXPECT_EQ(stored(SettingsKey::hudTextMode), "\"full\"");
    EXPECT_TRUE(previewing());
    endPreview();

    click(named<QCheckBox>(m_tab.get(), QStringLiteral("Show the \u201C"
                                                       "esc\u201D cancel hint")));
    EXPECT_EQ(stored(SettingsKey::hudShowEsc), "false");
    EXPECT_TRUE(previewing());
}

TEST_F(PopupTabTest, EditsOfTheSettingsFileMoveTheControlsWithoutAPreview)
{
    editFile(SettingsKey::hudPosition, QStringLiteral("middleCenter"));
    editFile(SettingsKey::hudDisplay, QStringLiteral("main"));
    editFile(SettingsKey::hudTextMode, QStringLiteral("full"));
    editFile(SettingsKey::hudShowText, false);
    editFile(SettingsKey::hudMargin, 80);

    EXPECT_EQ(grid()->selection(), HUDPosition::middleCenter);
    EXPECT_TRUE(cell(HUDPosition::middleCenter)->isChecked());
    EXPECT_FALSE(margin()->isEnabled());
    EXPECT_EQ(margin()->value(), 80);
    EXPECT_EQ(named<QComboBox>(m_tab.get(), QStringLiteral("Display"))->currentIndex(), 1);
    EXPECT_EQ(picker(QStringLiteral("Long text"))->current(), 1);
    EXPECT_FALSE(picker(QStringLiteral("Long text"))->isEnabled());
    EXPECT_FALSE(previewing());

    // An unknown position reads as the default.
    editFile(SettingsKey::hudPosition, QStringLiteral("center"));
    EXPECT_EQ(grid()->selection(), HUDPosition::bottomCenter);
    EXPECT_TRUE(margin()->isEnabled());
}

TEST_F(PopupTabTest, PreviewShowsThePopup)
{
    QAbstractButton *preview = named<QAbstractButton>(m_tab.get(), QStringLiteral("Preview"));
    EXPECT_FALSE(preview->icon().isNull());
    preview->setFocus(Qt::TabFocusReason);
    QTest::keyClick(preview, Qt::Key_Space);
    EXPECT_TRUE(previewing());
}

TEST_F(PopupTabTest, EveryControlIsReachedWithTabAndNamed)
{
    const KeyboardAccessReport report = checkKeyboardAccess(m_tab.get());
    EXPECT_TRUE(report) << report;
}

} // namespace
