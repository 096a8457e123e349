// vocari-hud-render: draws the HUD in each of its states into PNG files, without a display
// (run with QT_QPA_PLATFORM=offscreen), for the README and for looking at a change.
//
//   vocari-hud-render [--backdrop desktop|none] OUTPUT_FOLDER
//
// One picture per state, text mode and size: hud-<state>-<mode>-<size>.png.

#include "hud/HUDContent.h"
#include "hud/HUDPlacement.h"
#include "hud/HUDView.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <cmath>
#include <cstdio>

using namespace vocari;

namespace {

using Phase = Dictation::Phase;

struct State
{
    const char *name;
    HUDInputs inputs;
};

// Levels as a voice draws them: loud syllables with quieter gaps.
QList<float> speechLevels()
{
    QList<float> levels;
    for (int i = 0; i < 28; ++i) {
        const double syllable = std::abs(std::sin(i * 0.9)) * std::abs(std::sin(i * 0.31 + 0.4));
        levels.append(float(0.08 + 0.85 * syllable));
    }
    return levels;
}

QList<State> states()
{
    const QList<float> zeros(28, 0.0f);
    const QList<float> speech = speechLevels();
    const QString text = QStringLiteral(
        "Let's meet at the station at half past nine, and bring the drawings for the new "
        "kitchen so that we can go through them on the train");
    auto inputs = [&](Phase phase, QString transcript, std::optional<QString> notice,
                      std::optional<QString> status, bool silent, QList<float> levels) {
        return HUDInputs{phase,  std::move(transcript), std::move(notice), std::move(status),
                         silent, std::move(levels)};
    };
    return {
        {"preparing", inputs(Phase::preparing, {}, {}, QStringLiteral("Downloading speech model…"),
                             false, zeros)},
        {"listening", inputs(Phase::listening, {}, {}, {}, false, speech)},
        {"listening-text", inputs(Phase::listening, text, {}, {}, false, speech)},
        {"mic-silent", inputs(Phase::listening, {}, {}, {}, true, zeros)},
        {"finishing", inputs(Phase::finishing, text, {}, {}, false, speech)},
        {"tidying-up",
         inputs(Phase::finishing, text, {}, QStringLiteral("Tidying up…"), false, speech)},
        {"notice",
         inputs(Phase::idle, {}, QStringLiteral("No speech detected."), {}, false, zeros)},
        {"cancelled", inputs(Phase::idle, {}, QStringLiteral("Cancelled"), {}, false, zeros)},
    };
}

// A desktop behind the panel, light on one side and dark on the other, so that a picture
// shows the glass over both.
void paintBackdrop(QImage &image)
{
    QPainter painter(&image);
    QLinearGradient gradient(0, 0, image.width(), image.height());
    gradient.setColorAt(0.0, QColor(236, 239, 244));
    gradient.setColorAt(0.45, QColor(180, 196, 214));
    gradient.setColorAt(1.0, QColor(38, 46, 60));
    painter.fillRect(image.rect(), gradient);
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Draws the HUD in every state into PNG files."));
    parser.addHelpOption();
    const QCommandLineOption backdrop(
        QStringLiteral("backdrop"), QStringLiteral("What lies behind the panel: desktop or none."),
        QStringLiteral("kind"), QStringLiteral("desktop"));
    parser.addOption(backdrop);
    parser.addPositionalArgument(QStringLiteral("folder"),
                                 QStringLiteral("Where the PNG files go."));
    parser.process(app);
    if (parser.positionalArguments().size() != 1)
        parser.showHelp(2);
    const QString folder = parser.positionalArguments().constFirst();
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "vocari-hud-render: cannot create %s\n", qPrintable(folder));
        return 1;
    }

    int written = 0;
    for (const State &state : states()) {
        for (const HUDTextMode mode : {HUDTextMode::clip, HUDTextMode::full}) {
            for (const HUDSize size : kHUDSizes) {
                HUDSettings settings;
                settings.textMode = mode;
                settings.scale = scale(size);
                HUDView view;
                view.setAnimated(false);
                view.resize(hudPanelSize(settings.scale, mode).toSize());
                view.setSettings(settings);
                view.setInputs(state.inputs);

                QImage image(view.size(), QImage::Format_ARGB32_Premultiplied);
                image.fill(Qt::transparent);
                if (parser.value(backdrop) == QLatin1String("desktop"))
                    paintBackdrop(image);
                view.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
                const QString path =
                    QStringLiteral("%1/hud-%2-%3-%4.png")
                        .arg(folder, QLatin1String(state.name), rawValue(mode), rawValue(size));
                if (!image.save(path)) {
                    std::fprintf(stderr, "vocari-hud-render: cannot write %s\n", qPrintable(path));
                    return 1;
                }
                ++written;
            }
        }
    }
    std::printf("%d pictures in %s\n", written, qPrintable(folder));
    return 0;
}
