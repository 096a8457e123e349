#pragma once

#include <QString>
#include <QWidget>

class QHBoxLayout;
class QLabel;

namespace vocari {

// One thing dictation needs from the system, as a row: a green check or an orange
// exclamation mark, the title, what it is for, a note on the current state, and room for a
// button at the end. The row's accessible description says whether it is granted.
class PermissionRow : public QWidget
{
    Q_OBJECT
public:
    PermissionRow(const QString &title, const QString &detail, QWidget *parent = nullptr);

    QString title() const;
    bool granted() const { return m_granted; }
    void setGranted(bool granted);

    // A note below the detail, for the state right now; empty hides it.
    QString note() const;
    void setNote(const QString &note);

    // Puts a control at the end of the row.
    void addTrailing(QWidget *widget);

private:
    bool m_granted = false;
    QLabel *m_icon = nullptr;
    QLabel *m_title = nullptr;
    QLabel *m_note = nullptr;
    QHBoxLayout *m_layout = nullptr;
};

} // namespace vocari
