#pragma once

#include "settings/SettingsTypes.h"

#include <QList>
#include <QPoint>
#include <QRect>
#include <QSizeF>

namespace vocari {

// Where the HUD panel goes: pure geometry in Qt's screen coordinates (origin top left, y down).

// The panel's size for a scale factor and text mode: 430 × 76 points in clip mode, 520 × 300
// in full mode, times the scale. The panel is larger than the glass shape the view draws in it.
QSizeF hudPanelSize(double scale, HUDTextMode mode);

// The panel's frame on a screen whose usable area (without panels and docks) is
// `visibleFrame`: at the anchor the position names, `margin` away from the edges it touches.
// No margin applies along an axis on which the position is centred.
QRect hudPanelFrame(const QRect &visibleFrame, HUDPosition position, double margin, double scale,
                    HUDTextMode mode);

// Which screen shows the HUD, as an index into `screens` (their whole frames, in the system's
// order): for `cursor` the first screen that holds the pointer; otherwise, or when none does,
// the primary screen, else the first one. -1 when there is no screen at all.
int hudScreenIndex(const QList<QRect> &screens, int primaryIndex, QPoint pointer,
                   HUDDisplay display);

} // namespace vocari
