#include "ParakeetFixtures.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <gtest/gtest.h>

using namespace vocari::test;

namespace {

struct ToolRun
{
    int exitCode = -1;
    QString out;
    QStringList errorLines;
};

ToolRun transcribe(const QStringList &arguments)
{
    QProcess process;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_LOGGING_RULES", "vocari.parakeet=false");
    // In sanitizer builds, keep the leak checker's note about ignored leaks off stderr.
    const QString lsan = environment.value("LSAN_OPTIONS");
    environment.insert("LSAN_OPTIONS", (lsan.isEmpty() ? "" : lsan + ":") + "print_suppressions=0");
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(VOCARI_TRANSCRIBE_BIN), arguments);
    if (!process.waitForFinished(120000))
        return {};
    ToolRun run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.errorLines =
        QString::fromUtf8(process.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
    return run;
}

} // namespace

TEST(TranscribeTool, PrintsTheTextOfEachFilePhraseByPhrase)
{
    const auto &sentence = ToneSentence::load();
    const QString wav = fixturePath("sentence.wav"); // 44.1 kHz stereo

    for (const char *model : {"split", "community"}) {
        const ToolRun run = transcribe({"--model", fixturePath(model), wav, wav});
        EXPECT_EQ(run.exitCode, 0) << model;
        EXPECT_EQ(run.out, sentence.text + "\n" + sentence.text + "\n") << model;
        EXPECT_TRUE(run.errorLines.isEmpty()) << run.errorLines.join("\n").toStdString();
    }

    // The report gives the text of the file and of each phrase.
    const ToolRun json = transcribe({"--json", "--model", fixturePath("split"), wav});
    ASSERT_EQ(json.exitCode, 0);
    const QJsonObject file =
        QJsonDocument::fromJson(json.out.toUtf8()).object()["files"].toArray()[0].toObject();
    EXPECT_EQ(file["text"].toString(), sentence.text);
    const QJsonArray phrases = file["phrases"].toArray();
    ASSERT_EQ(phrases.size(), 2);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(phrases[i].toObject()["text"].toString(), sentence.phrases[i]);
    EXPECT_FALSE(file.contains("releaseToTextSeconds")); // only when paced
}

TEST(TranscribeTool, RealtimePacesTheFileAndReportsTheWaitAfterItsEnd)
{
    const auto &sentence = ToneSentence::load();
    const QString wav = fixturePath("sentence.wav");
    QElapsedTimer clock;
    clock.start();
    const ToolRun run =
        transcribe({"--realtime", "--json", "--model", fixturePath("community"), wav});
    const double elapsed = double(clock.elapsed()) / 1000;
    ASSERT_EQ(run.exitCode, 0);
    const QJsonObject file =
        QJsonDocument::fromJson(run.out.toUtf8()).object()["files"].toArray()[0].toObject();
    EXPECT_EQ(file["text"].toString(), sentence.text);
    // Fed no faster than it was spoken; the wait is measured from the end of the audio.
    const double audio = file["audioSeconds"].toDouble();
    const double wait = file["releaseToTextSeconds"].toDouble(-1);
    EXPECT_GE(elapsed, audio);
    EXPECT_GE(wait, 0.0);
    EXPECT_LT(wait, elapsed - audio + 0.5);
}

TEST(TranscribeTool, BadInputIsAOneLineErrorAndAFailingExit)
{
    const QString model = fixturePath("split");
    const QString wav = fixturePath("sentence.wav");
    // Runs the tool expecting exit status 1 and one error line ending with ending; its output.
    const auto fails = [](const QStringList &arguments, const QString &ending) {
        const ToolRun run = transcribe(arguments);
        EXPECT_EQ(run.exitCode, 1) << ending.toStdString();
        EXPECT_EQ(run.errorLines.size(), 1) << run.errorLines.join("\n").toStdString();
        const QString line = run.errorLines.value(0);
        EXPECT_TRUE(line.startsWith("vocari-transcribe: ") && line.endsWith(ending))
            << line.toStdString();
        return run.out;
    };

    fails({"--model", model, fixturePath("no-such.wav")}, "no-such.wav: No such file or directory");
    // A file that is not WAV fails on its own; the good one beside it is still transcribed.
    EXPECT_EQ(fails({"--model", model, fixturePath("not-a-wav.wav"), wav},
                    "not-a-wav.wav is not a WAV file."),
              ToneSentence::load().text + "\n");
    EXPECT_EQ(
        fails({"--model", fixturePath("missing-output"), wav},
              ": Decoder.onnx has no output \"c_out\" (its outputs: \"decoder\", \"h_out\")."),
        "");
    fails({"--model", fixturePath("no-such-model"), wav}, "no-such-model does not exist.");
    // A model that loads but answers nonsense: the phrases fail, named by the file.
    fails({"--model", fixturePath("empty-token"), wav},
          ": sentence.wav: The speech model returned an unexpected result.");
    // The built-in engine refuses a language it has no model for.
    fails({"--engine", "system", "--language", "ja-JP", wav},
          ": Speech recognition is unavailable for this language.");

    // Usage errors.
    for (const QStringList &arguments :
         {QStringList{"--model", model}, QStringList{wav}, QStringList{"--engine", "whisper", wav}})
        EXPECT_EQ(transcribe(arguments).exitCode, 2) << arguments.join(' ').toStdString();
}
