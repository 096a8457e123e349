#include "ui/SettingsIcons.h"

#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

// The icons are compiled into the static UI library; nothing else refers to them, so they are
// registered by hand.
static void registerSettingsResources()
{
    Q_INIT_RESOURCE(settings);
}

namespace vocari {

QIcon settingsIcon(const QString &name, const QColor &color)
{
    static const bool registered = (registerSettingsResources(), true);
    Q_UNUSED(registered);

    QSvgRenderer renderer(QStringLiteral(":/vocari/settings/%1.svg").arg(name));
    QIcon icon;
    if (!renderer.isValid())
        return icon;
    // Drawn at each size rather than scaled, so that thin strokes stay crisp.
    for (int size : {16, 20, 24, 32, 48, 64}) {
        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        renderer.render(&painter);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), color);
        painter.end();
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

} // namespace vocari
