// vocari-icon-render: renders an SVG icon into PNG files in the hicolor theme's layout, so that
// the packaged bitmap icons are produced at build time from the one drawn SVG.
//
//   vocari-icon-render INPUT.svg OUTPUT_DIR SIZE...
//
// writes OUTPUT_DIR/<N>x<N>/apps/<name of INPUT>.png for every size N.

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>
#include <QTextStream>

namespace {

int fail(const QString &message)
{
    QTextStream(stderr) << "vocari-icon-render: " << message << '\n';
    return 1;
}

} // namespace

int main(int argc, char *argv[])
{
    // Painting shapes into a QImage needs no GUI application object and no display, which
    // keeps the tool usable in any build environment. (Text in the SVG would need one.)
    QCoreApplication app(argc, argv);

    const QStringList args = app.arguments().mid(1);
    if (args.size() < 3) {
        return fail(QStringLiteral("usage: vocari-icon-render INPUT.svg OUTPUT_DIR SIZE..."));
    }

    const QString input = args[0];
    QSvgRenderer renderer(input);
    if (!renderer.isValid()) {
        return fail(QStringLiteral("cannot read %1 as SVG").arg(input));
    }

    const QString name = QFileInfo(input).completeBaseName();
    const QDir outputDir(args[1]);
    for (const QString &sizeArg : args.mid(2)) {
        bool ok = false;
        const int size = sizeArg.toInt(&ok);
        if (!ok || size < 1 || size > 4096) {
            return fail(QStringLiteral("not an icon size: %1").arg(sizeArg));
        }

        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        {
            QPainter painter(&image);
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setRenderHint(QPainter::SmoothPixmapTransform);
            renderer.render(&painter, QRectF(0, 0, size, size));
        }

        const QString subdir = QStringLiteral("%1x%1/apps").arg(size);
        if (!outputDir.mkpath(subdir)) {
            return fail(QStringLiteral("cannot create %1").arg(outputDir.filePath(subdir)));
        }
        const QString path = outputDir.filePath(subdir + QLatin1Char('/') + name + ".png");
        if (!image.save(path, "PNG")) {
            return fail(QStringLiteral("cannot write %1").arg(path));
        }
    }
    return 0;
}
