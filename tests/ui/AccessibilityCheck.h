#pragma once

// Checks that a part of a window can be used with the keyboard and a screen reader: every
// control that takes the focus is reached by pressing Tab, and Qt's accessibility interface
// gives it a name. The buttons of an exclusive group count as one stop, as Qt treats them (Tab
// reaches one, the arrow keys the others). Usable on any tab or window:
//
//     const KeyboardAccessReport report = checkKeyboardAccess(&tab);
//     EXPECT_TRUE(report) << report;
//
// Only controls shown and enabled now are looked at, so a caller checks each page of a tab
// widget after making it current, and a control that appears only in some state after
// bringing that state about.

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QButtonGroup>
#include <QSet>
#include <QStringList>
#include <QTest>
#include <QWidget>
#include <algorithm>
#include <ostream>
#include <utility>

namespace vocari::test {

struct KeyboardAccessReport
{
    QStringList unnamed;     // focusable controls without an accessible name
    QStringList unreachable; // focusable controls that Tab does not reach
    int controls = 0;        // how many controls were looked at

    explicit operator bool() const { return unnamed.isEmpty() && unreachable.isEmpty(); }

    friend std::ostream &operator<<(std::ostream &out, const KeyboardAccessReport &report)
    {
        out << report.controls << " controls";
        if (!report.unnamed.isEmpty())
            out << "; without a name: " << report.unnamed.join(QStringLiteral(", ")).toStdString();
        if (!report.unreachable.isEmpty())
            out << "; not reached with Tab: "
                << report.unreachable.join(QStringLiteral(", ")).toStdString();
        return out;
    }
};

// How a report names a control: its class, object name and any text it shows.
inline QString describeControl(const QWidget *widget)
{
    QString text = QString::fromLatin1(widget->metaObject()->className());
    if (!widget->objectName().isEmpty())
        text += QStringLiteral(" \"%1\"").arg(widget->objectName());
    if (const auto *button = qobject_cast<const QAbstractButton *>(widget);
        button && !button->text().isEmpty())
        text += QStringLiteral(" (%1)").arg(button->text());
    return text;
}

// The controls under `root` (itself included) that Tab can give the focus to now: shown,
// enabled and taking the focus with Tab. A widget that hands its focus to another (a focus
// proxy) is represented by that other one.
inline QList<QWidget *> focusableControls(QWidget *root)
{
    QList<QWidget *> all = root->findChildren<QWidget *>();
    all.prepend(root);
    QList<QWidget *> controls;
    for (QWidget *widget : std::as_const(all)) {
        if (widget->isVisible() && widget->isEnabled() && !widget->focusProxy() &&
            (widget->focusPolicy() & Qt::TabFocus) == Qt::TabFocus && !widget->isWindow())
            controls.append(widget);
    }
    return controls;
}

// The name a screen reader announces for a widget: its own, or else that of the label that
// names it (on Linux a picker's name is its current entry, and an empty picker has none).
inline QString accessibleName(QWidget *widget)
{
    QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(widget);
    if (!interface)
        return {};
    if (QString name = interface->text(QAccessible::Name).trimmed(); !name.isEmpty())
        return name;
    for (const auto &[label, relation] : interface->relations(QAccessible::Label)) {
        if (QString name = label->text(QAccessible::Name).trimmed(); !name.isEmpty())
            return name;
    }
    return {};
}

// The buttons that Qt treats as one stop of the Tab chain with this one: the checkable buttons
// of an exclusive group (a QButtonGroup, or auto-exclusive buttons of one parent such as radio
// buttons). Tab reaches one of them; the arrow keys move between them and Space chooses. Empty
// for any other control.
inline QList<QAbstractButton *> exclusiveSiblings(QWidget *widget)
{
    auto *button = qobject_cast<QAbstractButton *>(widget);
    if (!button || !button->isCheckable())
        return {};
    if (QButtonGroup *group = button->group(); group && group->exclusive())
        return group->buttons();
    if (button->autoExclusive() && button->parentWidget())
        return button->parentWidget()->findChildren<QAbstractButton *>(Qt::FindDirectChildrenOnly);
    return {};
}

// Walks the focus through the whole window with Tab, as a user would, and checks the controls
// under `root` on the way. The window is shown and activated if it is not already.
inline KeyboardAccessReport checkKeyboardAccess(QWidget *root)
{
    QWidget *window = root->window();
    if (!window->isVisible())
        window->show();
    if (!window->isActiveWindow()) {
        window->activateWindow();
        (void)QTest::qWaitForWindowActive(window);
    }

    KeyboardAccessReport report;
    const QList<QWidget *> controls = focusableControls(root);
    report.controls = int(controls.size());
    for (QWidget *control : controls) {
        if (accessibleName(control).isEmpty())
            report.unnamed.append(describeControl(control));
    }

    // Enough presses to go round the whole window twice; a control that keeps Tab for itself
    // (a text editor that types it) ends the walk early and leaves the rest unreached.
    QSet<QWidget *> reached;
    if (QWidget *first = window->focusWidget())
        reached.insert(first);
    const qsizetype presses = 2 * focusableControls(window).size() + 2;
    for (qsizetype i = 0; i < presses; ++i) {
        QWidget *from = window->focusWidget() ? window->focusWidget() : window;
        QTest::keyClick(from, Qt::Key_Tab);
        if (QWidget *now = window->focusWidget())
            reached.insert(now);
    }
    const auto wasReached = [&reached](QWidget *control) {
        if (reached.contains(control))
            return true;
        const QList<QAbstractButton *> siblings = exclusiveSiblings(control);
        return std::any_of(siblings.begin(), siblings.end(), [&reached](QAbstractButton *sibling) {
            return reached.contains(sibling);
        });
    };
    for (QWidget *control : controls) {
        if (!wasReached(control))
            report.unreachable.append(describeControl(control));
    }
    return report;
}

} // namespace vocari::test
