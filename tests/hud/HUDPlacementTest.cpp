#include "hud/HUDPlacement.h"

#include <gtest/gtest.h>

namespace vocari {
namespace {

const QRect kFrame(0, 0, 1440, 900);

TEST(HUDPlacementTest, PanelSitsAtItsAnchorAMarginFromTheEdges)
{
    // Default: bottom centre, margin 56, clip mode, scale 1.
    EXPECT_EQ(hudPanelFrame(kFrame, HUDPosition::bottomCenter, 56, 1.0, HUDTextMode::clip),
              QRect(505, 900 - 56 - 76, 430, 76));
    // Top right at scale 1.3 in full mode: 676 × 390.
    EXPECT_EQ(hudPanelFrame(kFrame, HUDPosition::topRight, 56, 1.3, HUDTextMode::full),
              QRect(1440 - 56 - 676, 56, 676, 390));
    // Centred on both axes, whatever the margin.
    EXPECT_EQ(hudPanelFrame(kFrame, HUDPosition::middleCenter, 200, 1.0, HUDTextMode::clip),
              QRect(505, 412, 430, 76));
    EXPECT_EQ(hudPanelFrame(kFrame, HUDPosition::middleLeft, 10, 1.0, HUDTextMode::clip),
              QRect(10, 412, 430, 76));
    // A screen to the right of another, with a panel along its top: the frame's own origin.
    EXPECT_EQ(hudPanelFrame(QRect(1440, 30, 1280, 994), HUDPosition::topLeft, 20, 0.85,
                            HUDTextMode::clip),
              QRect(1460, 50, 366, 65));
}

TEST(HUDPlacementTest, ScreenIsTheOneWithThePointerOrElseTheMainOne)
{
    const QList<QRect> screens{QRect(0, 0, 1440, 900), QRect(1440, 0, 1920, 1080)};
    EXPECT_EQ(hudScreenIndex(screens, 0, QPoint(2000, 500), HUDDisplay::cursor), 1);
    EXPECT_EQ(hudScreenIndex(screens, 0, QPoint(2000, 500), HUDDisplay::main), 0);
    EXPECT_EQ(hudScreenIndex(screens, 1, QPoint(100, 100), HUDDisplay::main), 1);
    // A pointer on no screen, a primary screen that is not listed, no screen at all.
    EXPECT_EQ(hudScreenIndex(screens, 1, QPoint(-5, -5), HUDDisplay::cursor), 1);
    EXPECT_EQ(hudScreenIndex(screens, -1, QPoint(-5, -5), HUDDisplay::cursor), 0);
    EXPECT_EQ(hudScreenIndex({}, 0, QPoint(0, 0), HUDDisplay::cursor), -1);
}

} // namespace
} // namespace vocari
