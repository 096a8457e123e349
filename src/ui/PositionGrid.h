#pragma once

#include "settings/SettingsTypes.h"

#include <QString>
#include <QWidget>
#include <array>

class QAbstractButton;

namespace vocari {

// The popup's place on the screen as three rows of three cells, one per position, laid out
// as they lie on the screen. The cells behave as radio buttons: one Tab stop (the selected
// cell), the arrow keys move the selection to the neighbouring cell, a click selects a cell.
// Each cell's accessible name says its position ("Top left" … "Bottom right").
class PositionGrid : public QWidget
{
    Q_OBJECT
public:
    explicit PositionGrid(QWidget *parent = nullptr);

    HUDPosition selection() const { return m_selection; }
    // Shows a position as selected without emitting `chosen`.
    void setSelection(HUDPosition position);

    QAbstractButton *cell(HUDPosition position) const;

    // The name of a position as the cells speak it.
    static QString name(HUDPosition position);

signals:
    // The user chose a position, with the mouse or the keyboard.
    void chosen(HUDPosition position);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    std::array<QAbstractButton *, kHUDPositions.size()> m_cells{};
    HUDPosition m_selection = HUDPosition::bottomCenter;
};

} // namespace vocari
