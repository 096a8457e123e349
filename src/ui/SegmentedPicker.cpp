#include "ui/SegmentedPicker.h"

#include <QHBoxLayout>
#include <QPushButton>

namespace vocari {

SegmentedPicker::SegmentedPicker(const QString &title, QWidget *parent) : QWidget(parent)
{
    setAccessibleName(title);
    // As wide as its labels need, not the whole row.
    setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
}

QAbstractButton *SegmentedPicker::addSegment(const QString &label)
{
    auto *button = new QPushButton(label, this);
    button->setCheckable(true);
    button->setAccessibleName(label);
    button->setAccessibleDescription(accessibleName());
    button->setFocusPolicy(Qt::StrongFocus);
    const int index = int(m_segments.size());
    // Not a button group: a group would make the segments one Tab stop with arrow keys
    // between them, where each segment here is a toggle button of its own.
    connect(button, &QAbstractButton::clicked, this, [this, index] {
        setCurrent(index); // a second click leaves it on
        emit chosen(index);
    });
    m_segments.append(button);
    static_cast<QHBoxLayout *>(layout())->addWidget(button);
    return button;
}

QAbstractButton *SegmentedPicker::segment(int index) const
{
    return index >= 0 && index < m_segments.size() ? m_segments[index] : nullptr;
}

int SegmentedPicker::count() const
{
    return int(m_segments.size());
}

int SegmentedPicker::current() const
{
    for (int i = 0; i < m_segments.size(); ++i) {
        if (m_segments[i]->isChecked())
            return i;
    }
    return -1;
}

void SegmentedPicker::setCurrent(int index)
{
    for (int i = 0; i < m_segments.size(); ++i)
        m_segments[i]->setChecked(i == index);
}

} // namespace vocari
