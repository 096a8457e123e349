#include "hud/HUDPlacement.h"

#include <cmath>

namespace vocari {

QSizeF hudPanelSize(double scale, HUDTextMode mode)
{
    const QSizeF points = mode == HUDTextMode::full ? QSizeF(520, 300) : QSizeF(430, 76);
    return points * scale;
}

QRect hudPanelFrame(const QRect &visibleFrame, HUDPosition position, double margin, double scale,
                    HUDTextMode mode)
{
    const QSizeF size = hudPanelSize(scale, mode);
    const QRectF frame(visibleFrame);
    double x = 0;
    switch (column(position)) {
    case 0:
        x = frame.left() + margin;
        break;
    case 1:
        x = frame.center().x() - size.width() / 2;
        break;
    default:
        x = frame.right() - margin - size.width();
        break;
    }
    double y = 0;
    switch (row(position)) {
    case 0:
        y = frame.top() + margin;
        break;
    case 1:
        y = frame.center().y() - size.height() / 2;
        break;
    default:
        y = frame.bottom() - margin - size.height();
        break;
    }
    return QRect(int(std::lround(x)), int(std::lround(y)), int(std::lround(size.width())),
                 int(std::lround(size.height())));
}

int hudScreenIndex(const QList<QRect> &screens, int primaryIndex, QPoint pointer,
                   HUDDisplay display)
{
    if (screens.isEmpty())
        return -1;
    if (display == HUDDisplay::cursor) {
        for (int i = 0; i < screens.size(); ++i) {
            if (screens[i].contains(pointer))
                return i;
        }
    }
    return primaryIndex >= 0 && primaryIndex < screens.size() ? primaryIndex : 0;
}

} // namespace vocari
