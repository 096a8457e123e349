// vocari-segment: shows how Vocari cuts a recording into phrases. Each WAV file is fed in
// device-sized buffers through the same converter and segmenter a dictation uses, and every
// phrase is listed with where it was cut; --save DIR also writes each phrase as a WAV file.

#include "engines/PCMConverter.h"
#include "engines/WavFile.h"
#include "engines/parakeet/Segmenter.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTextStream>

using namespace vocari;

namespace {

constexpr uint32_t kDeviceBufferFrames = 2048;

int segmentFile(const QString &path, bool eager, const QString &saveDir, QTextStream &out,
                QTextStream &err)
{
    QString error;
    const auto audio = WavFile::read(path, &error);
    if (!audio) {
        err << "vocari-segment: " << error << Qt::endl;
        return 1;
    }

    int64_t fed = 0; // samples at 16 kHz handed to the segmenter so far
    int phrases = 0;
    double phraseSeconds = 0;
    bool saveFailed = false;
    Segmenter segmenter(eager, [&](std::vector<float> phrase) {
        ++phrases;
        const double seconds = double(phrase.size()) / kEngineFormat.sampleRate;
        phraseSeconds += seconds;
        out << QStringLiteral("  phrase %1: %2 s, cut at %3 s")
                   .arg(phrases)
                   .arg(seconds, 0, 'f', 2)
                   .arg(double(fed) / kEngineFormat.sampleRate, 0, 'f', 2)
            << Qt::endl;
        if (!saveDir.isEmpty()) {
            const QString file = QDir(saveDir).filePath(
                QStringLiteral("%1-%2.wav").arg(QFileInfo(path).completeBaseName()).arg(phrases));
            if (!WavFile::write(file, kEngineFormat, phrase, &error)) {
                err << "vocari-segment: " << error << Qt::endl;
                saveFailed = true;
            }
        }
    });

    out << path << ": " << QString::number(audio->durationSeconds(), 'f', 2) << " s at "
        << audio->format.sampleRate << " Hz, " << audio->format.channels << " channel(s)"
        << Qt::endl;
    PCMConverter converter(kEngineFormat);
    for (uint32_t first = 0; first < audio->frames(); first += kDeviceBufferFrames) {
        const auto converted = converter.convert(audio->slice(first, kDeviceBufferFrames));
        if (!converted)
            continue;
        fed += converted->frameLength();
        segmenter.append(converted->channel(0));
    }
    segmenter.flush();
    out << QStringLiteral("  %1 phrase(s), %2 s of %3 s kept")
               .arg(phrases)
               .arg(phraseSeconds, 0, 'f', 2)
               .arg(audio->durationSeconds(), 0, 'f', 2)
        << Qt::endl;
    return saveFailed ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vocari-segment"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Cuts WAV recordings into phrases at pauses, as a dictation does."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("eager"),
                      QStringLiteral("Cut at a pause after 1.5 s instead of 3 s (live typing).")});
    parser.addOption({QStringLiteral("save"), QStringLiteral("Write each phrase into <dir>."),
                      QStringLiteral("dir")});
    parser.addPositionalArgument(QStringLiteral("files"), QStringLiteral("WAV files."),
                                 QStringLiteral("FILE..."));
    parser.process(app);

    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList files = parser.positionalArguments();
    if (files.isEmpty()) {
        err << "vocari-segment: no WAV file given (see --help)" << Qt::endl;
        return 2;
    }
    const QString saveDir = parser.value(QStringLiteral("save"));
    if (!saveDir.isEmpty() && !QDir().mkpath(saveDir)) {
        err << "vocari-segment: cannot create " << saveDir << Qt::endl;
        return 1;
    }
    int status = 0;
    for (const QString &file : files)
        status |= segmentFile(file, parser.isSet(QStringLiteral("eager")), saveDir, out, err);
    return status;
}
