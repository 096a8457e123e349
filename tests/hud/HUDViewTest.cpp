#include "hud/HUDView.h"

#include "hud/HUDPlacement.h"

#include <QImage>
#include <gtest/gtest.h>

namespace vocari {
namespace {

using Phase = Dictation::Phase;

// The smallest rectangle holding every pixel the view painted.
QRect paintedArea(HUDView &view)
{
    QImage image(view.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    view.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    QRect area;
    for (int y = 0; y < image.height(); ++y) {
        const auto *line = reinterpret_cast<const QRgb *>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            if (qAlpha(line[x]) > 0)
                area |= QRect(x, y, 1, 1);
        }
    }
    return area;
}

std::unique_ptr<HUDView> viewFor(HUDPosition position, double scale, HUDTextMode mode,
                                 const HUDInputs &inputs)
{
    auto view = std::make_unique<HUDView>();
    view->setAnimated(false);
    view->resize(hudPanelSize(scale, mode).toSize());
    view->setSettings({position, scale, true, true, mode});
    view->setInputs(inputs);
    return view;
}

const HUDInputs kListening{Phase::listening, {}, {}, {}, false, QList<float>(28, 0.6f)};

TEST(HUDViewTest, GlassSitsInTheCornerThePositionNames)
{
    for (const double scale : {0.85, 1.3}) {
        const double inset = 12 * scale;
        for (const HUDTextMode mode : {HUDTextMode::clip, HUDTextMode::full}) {
            const auto topLeft = viewFor(HUDPosition::topLeft, scale, mode, kListening);
            const QRect a = paintedArea(*topLeft);
            ASSERT_FALSE(a.isEmpty());
            EXPECT_NEAR(a.left(), inset, 1.5) << "scale " << scale;
            EXPECT_NEAR(a.top(), inset, 1.5) << "scale " << scale;

            const auto bottomRight = viewFor(HUDPosition::bottomRight, scale, mode, kListening);
            const QRect b = paintedArea(*bottomRight);
            EXPECT_NEAR(bottomRight->width() - 1 - b.right(), inset, 1.5) << "scale " << scale;
            EXPECT_NEAR(bottomRight->height() - 1 - b.bottom(), inset, 1.5) << "scale " << scale;
            // The same glass, only placed elsewhere.
            EXPECT_NEAR(a.width(), b.width(), 1);
            EXPECT_NEAR(a.height(), b.height(), 1);

            const auto centre = viewFor(HUDPosition::middleCenter, scale, mode, kListening);
            const QRect c = paintedArea(*centre);
            EXPECT_NEAR(c.center().x(), centre->width() / 2.0, 1.5);
            EXPECT_NEAR(c.center().y(), centre->height() / 2.0, 1.5);
        }
    }
}

TEST(HUDViewTest, EverySizeGrowsWithTheScale)
{
    const HUDInputs notice{Phase::idle, {},    QStringLiteral("No speech detected."),
                           {},          false, QList<float>(28, 0.0f)};
    const auto small = viewFor(HUDPosition::bottomCenter, 1.0, HUDTextMode::clip, notice);
    const auto large = viewFor(HUDPosition::bottomCenter, 1.3, HUDTextMode::clip, notice);
    EXPECT_NEAR(large->glassRect().width(), 1.3 * small->glassRect().width(), 3.0);
    EXPECT_NEAR(large->glassRect().height(), 1.3 * small->glassRect().height(), 1.0);
    // Corners are round up to 27 points, scaled; a lower glass is a capsule.
    EXPECT_NEAR(large->glassCornerRadius(), large->glassRect().height() / 2, 1e-9);
    HUDInputs paragraph = notice;
    paragraph.notice = QString(20, u' ').replace(u' ', QStringLiteral("a word or two "));
    const auto block = viewFor(HUDPosition::bottomCenter, 1.3, HUDTextMode::full, paragraph);
    EXPECT_NEAR(block->glassCornerRadius(), 35.1, 1e-9);
    // The glass hugs its text: a longer notice makes a wider glass.
    HUDInputs longer = notice;
    longer.notice = QStringLiteral("The model folder is incomplete.");
    EXPECT_GT(
        viewFor(HUDPosition::bottomCenter, 1.0, HUDTextMode::clip, longer)->glassRect().width(),
        small->glassRect().width());
}

TEST(HUDViewTest, OneLineOfTextNeverLeavesTheGlass)
{
    HUDInputs talking = kListening;
    talking.transcript = QString(300, u'w');
    for (const HUDTextMode mode : {HUDTextMode::clip, HUDTextMode::full}) {
        const auto view = viewFor(HUDPosition::bottomCenter, 1.0, mode, talking);
        const QRect painted = paintedArea(*view);
        EXPECT_TRUE(view->glassRect().toAlignedRect().adjusted(-1, -1, 1, 1).contains(painted))
            << painted.x() << "," << painted.y() << " " << painted.width() << "x"
            << painted.height();
    }
}

} // namespace
} // namespace vocari
