#pragma once

#include <QString>
#include <QWidget>

class QFormLayout;
class QGroupBox;
class QLabel;
class QVBoxLayout;

namespace vocari {

// One section of a settings tab: a group of rows under a heading (or none), and an optional
// explanation in small, muted text below the group.
class FormSection : public QWidget
{
    Q_OBJECT
public:
    explicit FormSection(const QString &title, QWidget *parent = nullptr);

    QFormLayout *form() const { return m_form; }
    // A row with a label that names the control (also its accessible name, when it has none).
    void addRow(const QString &label, QWidget *field);
    // A row that spans the width: a check box, or a control that names itself.
    void addRow(QWidget *field);

    void setFooter(const QString &text);
    QLabel *footer() const { return m_footer; }

    // Muted text for explanations and captions, slightly smaller unless `smaller` is false.
    static void makeSecondary(QLabel *label, bool smaller = true);

private:
    QGroupBox *m_box = nullptr;
    QFormLayout *m_form = nullptr;
    QLabel *m_footer = nullptr;
};

// Gives a tab a column that scrolls when its sections are taller than the window, and returns
// the column's layout for the sections. The scroll area itself takes no focus; it follows the
// focus from control to control.
QVBoxLayout *scrollingColumn(QWidget *tab);

// A word-wrapped note in slightly smaller text below a page's content, named "footer". Its colour
// is left to the page.
QLabel *footerLabel(const QString &text, QWidget *parent);

} // namespace vocari
