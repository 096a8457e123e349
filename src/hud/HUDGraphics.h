#pragma once

#include <QBrush>
#include <QRectF>
#include <span>

class QPainter;

namespace vocari {

// The two level graphics of the HUD, painted straight from a list of levels in 0...1.

// The live waveform: one rounded bar per level, 3 points apart, filling `area`; a bar is at
// least 4 points high.
struct Waveform
{
    static void paint(QPainter &painter, const QRectF &area, std::span<const float> levels,
                      const QBrush &fill);
};

// The small meter shown beside live text: one red bar per level, `barWidth` wide and at least
// as high as it is wide, centred in a box of `height`.
struct MiniMeter
{
    static void paint(QPainter &painter, const QRectF &area, std::span<const float> levels,
                      double height, double barWidth, const QBrush &fill);
};

} // namespace vocari
