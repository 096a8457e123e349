#pragma once

#include <QList>
#include <QString>
#include <QWidget>

class QAbstractButton;

namespace vocari {

// A row of toggle buttons of which at most one is on: the compact picker for two or three
// choices. Each segment is its own Tab stop, chosen with Space or a click; every segment's
// accessible name is its label and its description is the picker's title, so a screen reader
// says which choice it is and what it chooses.
class SegmentedPicker : public QWidget
{
    Q_OBJECT
public:
    explicit SegmentedPicker(const QString &title, QWidget *parent = nullptr);

    // Adds a segment after the others; its index is the number of segments before it.
    QAbstractButton *addSegment(const QString &label);
    QAbstractButton *segment(int index) const;
    int count() const;

    // The index of the segment that is on, or -1 when none is.
    int current() const;
    // Turns a segment on without emitting `chosen`; -1 (or any index out of range) turns all
    // of them off.
    void setCurrent(int index);

signals:
    // The user chose a segment.
    void chosen(int index);

private:
    QList<QAbstractButton *> m_segments;
};

} // namespace vocari
