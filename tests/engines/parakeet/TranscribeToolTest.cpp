#include "ParakeetFixtures.h"

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

    const ToolRun json = transcribe({"--json", "--model", fixturePath("split"), wav});
    ASSERT_EQ(json.exitCode, 0);
    const QJsonObject report = QJsonDocument::fromJson(json.out.toUtf8()).object();
    EXPECT_EQ(report["engine"].toString(), "parakeet");
    EXPECT_GE(report["loadSeconds"].toDouble(-1), 0);
    EXPECT_GT(report["realTimeFactor"].toDouble(), 0);
    const QJsonArray files = report["files"].toArray();
    ASSERT_EQ(files.size(), 1);
    const QJsonObject file = files[0].toObject();
    EXPECT_EQ(file["text"].toString(), sentence.text);
    EXPECT_NEAR(file["audioSeconds"].toDouble(), 5.8, 0.01);
    const QJsonArray phrases = file["phrases"].toArray();
    ASSERT_EQ(phrases.size(), 2);
    double phraseAudio = 0;
    for (int i = 0; i < 2; ++i) {
        const QJsonObject phrase = phrases[i].toObject();
        EXPECT_EQ(phrase["text"].toString(), sentence.phrases[i]);
        EXPECT_GT(phrase["inferenceSeconds"].toDouble(), 0);
        phraseAudio += phrase["audioSeconds"].toDouble();
    }
    EXPECT_GT(phraseAudio, 3.0);
    EXPECT_LT(phraseAudio, file["audioSeconds"].toDouble());
    EXPECT_NEAR(report["audioSeconds"].toDouble(), file["audioSeconds"].toDouble(), 1e-9);
}

TEST(TranscribeTool, BadInputIsAOneLineErrorAndAFailingExit)
{
    const QString model = fixturePath("split");
    const QString wav = fixturePath("sentence.wav");

    ToolRun run = transcribe({"--model", model, fixturePath("no-such.wav")});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.errorLines.size(), 1);
    EXPECT_TRUE(run.errorLines[0].startsWith("vocari-transcribe: "))
        << run.errorLines[0].toStdString();
    EXPECT_TRUE(run.errorLines[0].contains("no-such.wav"));

    // A file that is not WAV fails on its own; the good one beside it is still transcribed.
    run = transcribe({"--model", model, fixturePath("not-a-wav.wav"), wav});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.errorLines.size(), 1);
    EXPECT_TRUE(run.errorLines[0].contains("not-a-wav.wav"));
    EXPECT_EQ(run.out, ToneSentence::load().text + "\n");

    run = transcribe({"--model", fixturePath("missing-output"), wav});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.errorLines, QStringList({"vocari-transcribe: Decoder.onnx has no output "
                                           "\"c_out\" (its outputs: \"decoder\", \"h_out\")."}));
    EXPECT_TRUE(run.out.isEmpty());

    run = transcribe({"--model", fixturePath("no-such-model"), wav});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.errorLines.size(), 1);
    EXPECT_TRUE(run.errorLines[0].endsWith("does not exist."));

    // A model that loads but answers nonsense: the phrases fail, named by the file.
    run = transcribe({"--model", fixturePath("empty-token"), wav});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.errorLines, QStringList({"vocari-transcribe: sentence.wav: The speech model "
                                           "returned an unexpected result."}));

    // The built-in engine refuses a language it has no model for.
    run = transcribe({"--engine", "system", "--language", "ja-JP", wav});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.errorLines, QStringList({"vocari-transcribe: Speech recognition is unavailable "
                                           "for this language."}));
    EXPECT_EQ(transcribe({"--model", model}).exitCode, 2);
    EXPECT_EQ(transcribe({wav}).exitCode, 2);
    EXPECT_EQ(transcribe({"--engine", "whisper", wav}).exitCode, 2);
}
