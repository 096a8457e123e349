#include "ui/TextTab.h"

#include "settings/Preferences.h"
#include "settings/SettingsStore.h"
#include "text/TextProcessor.h"
#include "ui/FormSection.h"
#include "ui/SegmentedPicker.h"
#include "ui/SettingBinding.h"

#include <QCheckBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QVBoxLayout>

namespace vocari {

namespace {

// How much of a faulty rule line a message quotes.
constexpr qsizetype kShownLength = 40;

// A multi-line editor in the fixed-width font, where Tab moves on to the next control
// instead of inserting a tab character.
QPlainTextEdit *makeEditor(const QString &name, int height, QWidget *parent)
{
    auto *editor = new QPlainTextEdit(parent);
    editor->setAccessibleName(name);
    editor->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    editor->setTabChangesFocus(true);
    editor->setLineWrapMode(QPlainTextEdit::NoWrap);
    editor->setFixedHeight(height);
    return editor;
}

} // namespace

TextTab::TextTab(AppModel &, QWidget *parent) : QWidget(parent)
{
    QVBoxLayout *column = scrollingColumn(this);

    // Typing: paste at the end, or type each phrase while speaking.
    m_typing = new FormSection(QStringLiteral("Typing"), this);
    m_insert = new SegmentedPicker(QStringLiteral("Insert text"), m_typing);
    m_insert->addSegment(QStringLiteral("When I stop"));
    m_insert->addSegment(QStringLiteral("As I speak"));
    m_typing->addRow(QStringLiteral("Insert text"), m_insert);
    connect(m_insert, &SegmentedPicker::chosen, this, [](int index) {
        SettingsStore::shared().setValue(QString::fromLatin1(SettingsKey::liveTyping), index == 1);
    });
    column->addWidget(m_typing);

    // Clean-up.
    m_cleanUp = new FormSection(QStringLiteral("Clean-up"), this);
    auto *capitalise = new QCheckBox(QStringLiteral("Capitalise the first letter"), m_cleanUp);
    bindCheckBox(capitalise, QString::fromLatin1(SettingsKey::autoCapitalize),
                 &Preferences::autoCapitalize);
    m_cleanUp->addRow(capitalise);
    auto *space = new QCheckBox(QStringLiteral("Add a space after the text"), m_cleanUp);
    bindCheckBox(space, QString::fromLatin1(SettingsKey::trailingSpace),
                 &Preferences::trailingSpace);
    m_cleanUp->addRow(space);
    m_tidy = new QCheckBox(QStringLiteral("Tidy up filler words and stutters"), m_cleanUp);
    bindCheckBox(m_tidy, QString::fromLatin1(SettingsKey::aiTidy), &Preferences::aiTidy);
    m_cleanUp->addRow(m_tidy);
    column->addWidget(m_cleanUp);

    // Replacements, checked as they are typed.
    auto *replacements = new FormSection(QStringLiteral("Replacements"), this);
    m_replacements = makeEditor(QStringLiteral("Replacements"), 110, replacements);
    bindPlainText(m_replacements, QString::fromLatin1(SettingsKey::replacements));
    replacements->addRow(m_replacements);
    m_ruleProblem = new QLabel(replacements);
    m_ruleProblem->setWordWrap(true);
    QPalette warning = m_ruleProblem->palette();
    warning.setColor(QPalette::WindowText, QColor(0xC6, 0x28, 0x28));
    m_ruleProblem->setPalette(warning);
    replacements->addRow(m_ruleProblem);
    replacements->setFooter(QStringLiteral(
        "One rule per line, written heard = replacement, for example \u201Cvo cari = Vocari\u201D. "
        "Matching ignores capitals and only replaces whole words."));
    connect(m_replacements, &QPlainTextEdit::textChanged, this, &TextTab::showRuleProblem);
    followSetting(this, QString::fromLatin1(SettingsKey::replacements),
                  [this] { showRuleProblem(); });
    column->addWidget(replacements);

    // Vocabulary.
    auto *vocabulary = new FormSection(QStringLiteral("Vocabulary"), this);
    auto *terms = makeEditor(QStringLiteral("Vocabulary"), 80, vocabulary);
    bindPlainText(terms, QString::fromLatin1(SettingsKey::vocabulary));
    vocabulary->addRow(terms);
    vocabulary->setFooter(
        QStringLiteral("Names and terms to recognise, one per line. Replacement results are "
                       "included automatically. Used by the built-in engine."));
    column->addWidget(vocabulary);
    column->addStretch();

    followSetting(this, QString::fromLatin1(SettingsKey::liveTyping), [this] { showLiveTyping(); });
}

void TextTab::showLiveTyping()
{
    const bool live = Preferences::liveTyping();
    m_insert->setCurrent(live ? 1 : 0);
    m_typing->setFooter(live ? kLiveTypingFooter : kPasteFooter);
    // Tidy-up needs the whole text, so it waits while live typing is on; its own setting
    // stays as the user left it.
    m_tidy->setEnabled(!live);
    m_cleanUp->setFooter(live ? kTidyNotLiveFooter : kTidyFooter);
}

void TextTab::showRuleProblem()
{
    const QString problem = ruleProblem(m_replacements->toPlainText());
    m_ruleProblem->setText(problem);
    m_ruleProblem->setVisible(!problem.isEmpty());
}

QString TextTab::ruleProblem(const QString &ruleText)
{
    const QList<QStringView> lines = TextProcessor::lines(ruleText);
    for (const QStringView line : lines) {
        if (line.trimmed().isEmpty() || !TextProcessor::rules(line).empty())
            continue;
        QString shown = line.trimmed().toString();
        if (shown.size() > kShownLength)
            shown = shown.left(kShownLength - 1) + u'\u2026';
        if (!shown.contains(u'='))
            return QStringLiteral("\u201C%1\u201D is not a rule: write heard = replacement.")
                .arg(shown);
        return QStringLiteral("\u201C%1\u201D is not a rule: nothing comes before \u201C=\u201D.")
            .arg(shown);
    }
    return {};
}

} // namespace vocari
