#include "hud/HUDGraphics.h"

#include <QPainter>
#include <algorithm>

namespace vocari {

namespace {

void bar(QPainter &painter, const QRectF &rect)
{
    const double radius = std::min(rect.width(), rect.height()) / 2;
    painter.drawRoundedRect(rect, radius, radius);
}

} // namespace

void Waveform::paint(QPainter &painter, const QRectF &area, std::span<const float> levels,
                     const QBrush &fill)
{
    if (levels.empty())
        return;
    constexpr double spacing = 3;
    const double n = double(levels.size());
    const double width = std::max(0.0, (area.width() - spacing * (n - 1)) / n);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    double x = area.left();
    for (const float level : levels) {
        const double height = std::clamp(area.height() * level, 4.0, std::max(4.0, area.height()));
        bar(painter, QRectF(x, area.center().y() - height / 2, width, height));
        x += width + spacing;
    }
}

void MiniMeter::paint(QPainter &painter, const QRectF &area, std::span<const float> levels,
                      double height, double barWidth, const QBrush &fill)
{
    if (levels.empty())
        return;
    const double spacing = 0.6 * barWidth;
    const double rowWidth = double(levels.size()) * barWidth + double(levels.size() - 1) * spacing;
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    double x = area.center().x() - rowWidth / 2;
    for (const float level : levels) {
        const double h = std::clamp(height * level, barWidth, std::max(barWidth, height));
        bar(painter, QRectF(x, area.center().y() - h / 2, barWidth, h));
        x += barWidth + spacing;
    }
}

} // namespace vocari
