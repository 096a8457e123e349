#pragma once

#include <QString>
#include <QWidget>

class QCheckBox;
class QLabel;
class QPlainTextEdit;

namespace vocari {

class AppModel;
class FormSection;
class SegmentedPicker;

// The settings tab for how recognised text reaches the program in front and how it is
// cleaned: pasted at the end or typed while speaking, a capital first letter, a trailing
// space, the tidy-up, the replacement rules and the vocabulary.
class TextTab : public QWidget
{
    Q_OBJECT
public:
    static inline const QString kPasteFooter =
        QStringLiteral("The whole text is pasted at once when you release the key.");
    static inline const QString kLiveTypingFooter = QStringLiteral(
        "Each phrase is typed at the cursor as soon as it is recognised, without touching the "
        "clipboard. Esc erases what was typed, as long as you are still in the same app.");
    static inline const QString kTidyFooter = QStringLiteral(
        "Removes filler words and stutters, and fixes doubled punctuation, on this computer.");
    static inline const QString kTidyNotLiveFooter = QStringLiteral(
        "Tidy-up works on the whole text, so it only applies when inserting after you stop.");

    explicit TextTab(AppModel &model, QWidget *parent = nullptr);

    // A one-line message about the first line of rule text that is not a rule; empty when
    // every line is one.
    static QString ruleProblem(const QString &ruleText);

private:
    void showLiveTyping();
    void showRuleProblem();

    SegmentedPicker *m_insert = nullptr;
    FormSection *m_typing = nullptr;
    FormSection *m_cleanUp = nullptr;
    QCheckBox *m_tidy = nullptr;
    QPlainTextEdit *m_replacements = nullptr;
    QLabel *m_ruleProblem = nullptr;
};

} // namespace vocari
