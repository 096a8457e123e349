#include "ui/PositionGrid.h"

#include <QGridLayout>
#include <QPainter>
#include <QRadioButton>

namespace vocari {

namespace {

constexpr QSize kCellSize(36, 22);
constexpr int kCellSpacing = 6;
constexpr int kInset = 8;

// One cell: a radio button drawn as a small rounded rectangle, filled with the accent colour
// when selected. Being a radio button gives it the keyboard behaviour and the screen-reader
// role of one choice among several; the whole cell reacts to the pointer.
class PositionCell : public QRadioButton
{
public:
    PositionCell(const QString &name, QWidget *parent) : QRadioButton(parent)
    {
        setAccessibleName(name);
        setToolTip(name);
        setFixedSize(kCellSize);
    }

    QSize sizeHint() const override { return kCellSize; }
    QSize minimumSizeHint() const override { return kCellSize; }

protected:
    bool hitButton(const QPoint &pos) const override { return rect().contains(pos); }

    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF face = QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5);
        QColor fill = palette().color(QPalette::Highlight);
        if (!isChecked()) {
            fill = palette().color(QPalette::WindowText);
            fill.setAlphaF(underMouse() ? 0.4 : 0.25);
        }
        painter.setPen(Qt::NoPen);
        painter.setBrush(fill);
        painter.drawRoundedRect(face, 4, 4);
        if (hasFocus()) {
            QPen ring(palette().color(QPalette::Highlight), 1.5);
            painter.setPen(ring);
            painter.setBrush(Qt::NoBrush);
            painter.drawRoundedRect(QRectF(rect()).adjusted(0.75, 0.75, -0.75, -0.75), 5, 5);
            if (isChecked()) {
                // A light inner line keeps the ring apart from the accent-coloured face.
                painter.setPen(QPen(palette().color(QPalette::Base), 1));
                painter.drawRoundedRect(face.adjusted(0.5, 0.5, -0.5, -0.5), 3.5, 3.5);
            }
        }
    }

    void enterEvent(QEnterEvent *event) override
    {
        QRadioButton::enterEvent(event);
        update();
    }
    void leaveEvent(QEvent *event) override
    {
        QRadioButton::leaveEvent(event);
        update();
    }
};

} // namespace

PositionGrid::PositionGrid(QWidget *parent) : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    auto *layout = new QGridLayout(this);
    layout->setContentsMargins(kInset, kInset, kInset, kInset);
    layout->setSpacing(kCellSpacing);
    for (const HUDPosition position : kHUDPositions) {
        auto *cell = new PositionCell(name(position), this);
        m_cells[std::size_t(position)] = cell;
        layout->addWidget(cell, row(position), column(position));
        connect(cell, &QAbstractButton::clicked, this, [this, position] {
            setSelection(position);
            emit chosen(position);
        });
    }
    // The cells follow the grid's order in the Tab chain, row by row.
    for (std::size_t i = 1; i < m_cells.size(); ++i)
        setTabOrder(m_cells[i - 1], m_cells[i]);
    setSelection(m_selection);
}

void PositionGrid::setSelection(HUDPosition position)
{
    m_selection = position;
    cell(position)->setChecked(true);
    // Tab enters the grid at the selected cell; the arrow keys reach the others.
    for (QAbstractButton *each : m_cells)
        each->setFocusPolicy(each == cell(position) ? Qt::StrongFocus : Qt::ClickFocus);
}

QAbstractButton *PositionGrid::cell(HUDPosition position) const
{
    return m_cells[std::size_t(position)];
}

QString PositionGrid::name(HUDPosition position)
{
    switch (position) {
    case HUDPosition::topLeft:
        return QStringLiteral("Top left");
    case HUDPosition::topCenter:
        return QStringLiteral("Top center");
    case HUDPosition::topRight:
        return QStringLiteral("Top right");
    case HUDPosition::middleLeft:
        return QStringLiteral("Middle left");
    case HUDPosition::middleCenter:
        return QStringLiteral("Center");
    case HUDPosition::middleRight:
        return QStringLiteral("Middle right");
    case HUDPosition::bottomLeft:
        return QStringLiteral("Bottom left");
    case HUDPosition::bottomCenter:
        return QStringLiteral("Bottom center");
    case HUDPosition::bottomRight:
        return QStringLiteral("Bottom right");
    }
    return {};
}

void PositionGrid::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor fill = palette().color(QPalette::WindowText);
    fill.setAlphaF(0.08);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(QRectF(rect()), 8, 8);
}

} // namespace vocari
