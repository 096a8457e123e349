#pragma once

#include <QLayout>
#include <QList>

namespace vocari {

// Lays its items out left to right and starts a new line when the next one does not fit, so
// that a row of tags wraps in a narrow window instead of widening it.
class FlowLayout : public QLayout
{
public:
    explicit FlowLayout(QWidget *parent = nullptr, int horizontalSpacing = 6,
                        int verticalSpacing = 4);
    ~FlowLayout() override;

    void addItem(QLayoutItem *item) override;
    int count() const override { return int(m_items.size()); }
    QLayoutItem *itemAt(int index) const override { return m_items.value(index); }
    QLayoutItem *takeAt(int index) override;

    Qt::Orientations expandingDirections() const override { return {}; }
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;
    QSize minimumSize() const override;
    QSize sizeHint() const override;
    void setGeometry(const QRect &rect) override;

private:
    // Places the items in rect (or only measures when place is false); returns the height.
    int arrange(const QRect &rect, bool place) const;

    QList<QLayoutItem *> m_items;
    int m_horizontalSpacing;
    int m_verticalSpacing;
};

} // namespace vocari
