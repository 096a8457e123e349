#include "ui/ModelIcons.h"

#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

// The symbols are compiled into this static library; the first icon asked for registers them.
static void initModelIconResources()
{
    Q_INIT_RESOURCE(models);
}

namespace vocari::ModelIcons {

namespace {

QString pathOf(Symbol symbol)
{
    switch (symbol) {
    case Symbol::add:
        return QStringLiteral(":/vocari/models/add.svg");
    case Symbol::cancel:
        return QStringLiteral(":/vocari/models/cancel.svg");
    case Symbol::folder:
        return QStringLiteral(":/vocari/models/folder.svg");
    case Symbol::remove:
        return QStringLiteral(":/vocari/models/remove.svg");
    case Symbol::selected:
        return QStringLiteral(":/vocari/models/selected.svg");
    case Symbol::unselected:
        return QStringLiteral(":/vocari/models/unselected.svg");
    }
    return {};
}

QPixmap tinted(Symbol symbol, const QColor &color, int size, qreal ratio)
{
    static const bool registered = (initModelIconResources(), true);
    Q_UNUSED(registered);
    const int pixels = qRound(size * ratio);
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        QSvgRenderer renderer(pathOf(symbol));
        renderer.render(&painter);
        // The drawing is black; keep its shape and give it the colour.
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), color);
    }
    image.setDevicePixelRatio(ratio);
    return QPixmap::fromImage(image);
}

QColor blend(const QColor &top, const QColor &bottom, qreal amount)
{
    return QColor::fromRgbF(top.redF() * amount + bottom.redF() * (1 - amount),
                            top.greenF() * amount + bottom.greenF() * (1 - amount),
                            top.blueF() * amount + bottom.blueF() * (1 - amount));
}

} // namespace

QIcon icon(Symbol symbol, const QColor &color, int size)
{
    QIcon result;
    for (const qreal ratio : {1.0, 2.0})
        result.addPixmap(tinted(symbol, color, size, ratio));
    return result;
}

QIcon selectIcon(const QPalette &palette, int size)
{
    QIcon result;
    for (const qreal ratio : {1.0, 2.0}) {
        result.addPixmap(tinted(Symbol::selected, accentColor(palette), size, ratio), QIcon::Normal,
                         QIcon::On);
        result.addPixmap(tinted(Symbol::unselected, secondaryColor(palette), size, ratio),
                         QIcon::Normal, QIcon::Off);
    }
    return result;
}

QColor secondaryColor(const QPalette &palette)
{
    return blend(palette.color(QPalette::WindowText), palette.color(QPalette::Window), 0.6);
}

QPalette secondaryPalette(QPalette palette)
{
    palette.setColor(QPalette::WindowText, secondaryColor(palette));
    return palette;
}

QColor accentColor(const QPalette &palette)
{
    return palette.color(QPalette::Highlight);
}

QColor errorColor(const QPalette &palette)
{
    // A lighter red on a dark window keeps the contrast.
    return palette.color(QPalette::Window).lightness() < 128 ? QColor(0xff, 0x6b, 0x60)
                                                             : QColor(0xc5, 0x1f, 0x1f);
}

} // namespace vocari::ModelIcons
