// vocari-transcribe: transcribes WAV files headless, through the same converter, segmenter and
// engine a dictation uses: each file is fed in device-sized buffers to a new transcriber, each
// phrase is transcribed as soon as it is cut, and the text is printed, one line per file.
// --json prints the text with the timing of every phrase, the model's load time and the
// real-time factor instead. --realtime plays each file at the pace of a microphone, in
// buffers of about 43 ms, and reports the wait from the end of the file (the key's release)
// to the final text. --tidy runs the tidy-up on each text as a dictation with tidy-up on would:
// the rules, then the model of a language-model server on this computer (--tidy-url, Ollama's
// address by default; another computer only with --tidy-remote), and reports its time.

#include "engines/WavFile.h"
#include "engines/parakeet/ParakeetRuntime.h"
#include "engines/parakeet/ParakeetTranscriber.h"
#include "engines/system/SystemTranscriber.h"
#include "text/Polisher.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QCoroTask>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>

using namespace vocari;

namespace {

constexpr uint32_t kDeviceBufferFrames = 2048;

// Exit codes: a file or model that could not be used, and a command line that cannot run.
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// The timing of every phrase a transcriber sent to the runtime, in order.
class PhraseTimings
{
public:
    void add(const ParakeetRuntime::Transcription &phrase)
    {
        std::lock_guard lock(m_lock);
        m_phrases.push_back(phrase);
    }
    std::vector<ParakeetRuntime::Transcription> take()
    {
        std::lock_guard lock(m_lock);
        return std::exchange(m_phrases, {});
    }

private:
    std::mutex m_lock;
    std::vector<ParakeetRuntime::Transcription> m_phrases;
};

// The runtime with one model folder, noting how long each phrase took.
class TimedRecognizer final : public PhraseRecognizer
{
public:
    TimedRecognizer(ParakeetRuntime &runtime, QString directory, PhraseTimings &timings)
        : m_runtime(runtime), m_directory(std::move(directory)), m_timings(timings)
    {
    }

    void warmUp() override { m_runtime.warmUp(m_directory); }
    void recognize(std::vector<float> samples, std::stop_token stop, PhraseCallback done) override
    {
        m_runtime.transcribe(std::move(samples), m_directory, std::move(stop),
                             [&timings = m_timings,
                              done = std::move(done)](const ParakeetRuntime::Transcription &phrase,
                                                      std::exception_ptr error) {
                                 if (!error)
                                     timings.add(phrase);
                                 done({phrase.text, error});
                             });
    }

private:
    ParakeetRuntime &m_runtime;
    const QString m_directory;
    PhraseTimings &m_timings;
};

struct EngineChoice
{
    QString engine; // "parakeet" or "system"
    QString modelDirectory;
    QString language; // for the built-in engine
};

// The transcriber for one file, or none with the reason in *error. Drafts are off: with the
// whole file at hand there is nothing to preview.
std::unique_ptr<Transcriber> makeTranscriber(const EngineChoice &choice, PhraseTimings &timings,
                                             QString *error)
{
    if (choice.engine == QLatin1String("parakeet")) {
        return std::make_unique<ParakeetTranscriber>(
            std::make_unique<TimedRecognizer>(ParakeetRuntime::shared(), choice.modelDirectory,
                                              timings),
            false, ParakeetTranscriber::Options{std::chrono::hours(24)});
    }
    if (choice.engine == QLatin1String("system"))
        return makeSystemTranscriber(choice.language, {});
    *error = QStringLiteral("Unknown engine \"%1\": use parakeet or system.").arg(choice.engine);
    return nullptr;
}

// Prepares the transcriber, turning a refusal into its message. (QCoro's blocking wait never
// returns when the awaited task throws, so the error is caught inside a coroutine.)
QCoro::Task<std::optional<QString>> prepareOrExplain(Transcriber &transcriber)
{
    try {
        co_await transcriber.prepare();
    } catch (const TranscriberError &failure) {
        co_return failure.message();
    }
    co_return std::nullopt;
}

struct FileResult
{
    QString text;
    std::optional<double> tidySeconds; // with --tidy: the tidy-up's time
    double audioSeconds = 0;
    std::vector<ParakeetRuntime::Transcription> phrases;
    // From the first buffer fed to the final text: the recognition time of an engine that
    // does not time its phrases one by one.
    double processingSeconds = 0;
    // Getting the engine ready: loading the built-in engine's model for this file.
    double prepareSeconds = 0;
    // With --realtime: from the last buffer fed to the final text.
    std::optional<double> releaseToTextSeconds;
    std::optional<QString> failure;

    double inferenceSeconds() const
    {
        if (phrases.empty())
            return processingSeconds;
        double sum = 0;
        for (const auto &phrase : phrases)
            sum += phrase.inferenceSeconds;
        return sum;
    }
};

// Feeds one file through a new transcriber, as a dictation of that audio would: at once, or
// at the pace of a microphone.
std::optional<FileResult> transcribeFile(const QString &path, const EngineChoice &choice,
                                         bool realtime, QString *error)
{
    const auto audio = WavFile::read(path, error);
    if (!audio)
        return std::nullopt;
    PhraseTimings timings;
    const auto transcriber = makeTranscriber(choice, timings, error);
    if (!transcriber)
        return std::nullopt;

    QElapsedTimer clock;
    clock.start();
    if (const auto failure = QCoro::waitFor(prepareOrExplain(*transcriber))) {
        *error = *failure;
        return std::nullopt;
    }
    const double prepareSeconds = double(clock.nsecsElapsed()) / 1e9;
    clock.restart();
    // A microphone hands over about 43 ms at a time (2048 frames at 48 kHz), each once spoken.
    const uint32_t frames = realtime
                                ? uint32_t(std::lround(audio->format.sampleRate * 2048.0 / 48000.0))
                                : kDeviceBufferFrames;
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t first = 0; first < audio->frames(); first += frames) {
        const AudioBuffer buffer = audio->slice(first, frames);
        if (realtime) {
            const double spoken = (first + buffer.frameLength()) / audio->format.sampleRate;
            std::this_thread::sleep_until(start +
                                          std::chrono::duration_cast<std::chrono::nanoseconds>(
                                              std::chrono::duration<double>(spoken)));
        }
        transcriber->feed(buffer);
    }
    QElapsedTimer release;
    release.start();
    FileResult result;
    result.text = QCoro::waitFor(transcriber->finish());
    result.processingSeconds = double(clock.nsecsElapsed()) / 1e9;
    if (realtime)
        result.releaseToTextSeconds = double(release.nsecsElapsed()) / 1e9;
    result.prepareSeconds = prepareSeconds;
    result.audioSeconds = audio->durationSeconds();
    result.phrases = timings.take();
    result.failure = transcriber->failure();
    return result;
}

QJsonObject toJson(const QString &path, const FileResult &result)
{
    QJsonArray phrases;
    const double inference = result.inferenceSeconds();
    for (const auto &phrase : result.phrases) {
        phrases.append(QJsonObject{{"audioSeconds", phrase.audioSeconds},
                                   {"inferenceSeconds", phrase.inferenceSeconds},
                                   {"text", phrase.text}});
    }
    QJsonObject file{
        {"file", path},
        {"text", result.text},
        {"audioSeconds", result.audioSeconds},
        {"inferenceSeconds", inference},
        {"realTimeFactor", result.audioSeconds > 0 ? inference / result.audioSeconds : 0},
        {"phrases", phrases}};
    if (result.releaseToTextSeconds)
        file.insert("releaseToTextSeconds", *result.releaseToTextSeconds);
    if (result.tidySeconds)
        file.insert("tidySeconds", *result.tidySeconds);
    if (result.failure)
        file.insert("error", *result.failure);
    return file;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vocari-transcribe"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Transcribes WAV recordings as a dictation would, phrase by phrase."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("model"),
                      QStringLiteral("The Parakeet model folder (ONNX export) to use."),
                      QStringLiteral("dir")});
    parser.addOption({QStringLiteral("engine"),
                      QStringLiteral("parakeet (the default) or system (the built-in engine)."),
                      QStringLiteral("name"), QStringLiteral("parakeet")});
    parser.addOption({QStringLiteral("language"),
                      QStringLiteral("Recognition language of the built-in engine."),
                      QStringLiteral("id"), QStringLiteral("en-US")});
    parser.addOption({QStringLiteral("json"),
                      QStringLiteral("Print the text with per-phrase timings as JSON.")});
    parser.addOption({QStringLiteral("realtime"),
                      QStringLiteral("Feed each file at the pace of a microphone and report the "
                                     "wait from its end to the text.")});
    parser.addOption(
        {QStringLiteral("tidy"), QStringLiteral("Tidy each text up: the rules, then the model of a "
                                                "language-model server.")});
    parser.addOption({QStringLiteral("tidy-url"),
                      QStringLiteral("The language-model server (Ollama or OpenAI-compatible)."),
                      QStringLiteral("url"), QStringLiteral("http://127.0.0.1:11434")});
    parser.addOption({QStringLiteral("tidy-model"),
                      QStringLiteral("The server's model; the first it lists by default."),
                      QStringLiteral("name")});
    parser.addOption({QStringLiteral("tidy-remote"),
                      QStringLiteral("Allow a server on another computer: the text leaves this "
                                     "one.")});
    parser.addPositionalArgument(QStringLiteral("files"), QStringLiteral("WAV files."),
                                 QStringLiteral("FILE..."));
    parser.process(app);

    QTextStream out(stdout);
    QTextStream err(stderr);
    const auto fail = [&](const QString &message, int code) {
        err << "vocari-transcribe: " << message << Qt::endl;
        return code;
    };

    const QStringList files = parser.positionalArguments();
    if (files.isEmpty())
        return fail(QStringLiteral("no WAV file given (see --help)"), kUsage);
    const EngineChoice choice{parser.value(QStringLiteral("engine")),
                              parser.value(QStringLiteral("model")),
                              parser.value(QStringLiteral("language"))};
    const bool json = parser.isSet(QStringLiteral("json"));
    const bool realtime = parser.isSet(QStringLiteral("realtime"));
    std::shared_ptr<TidyServer> tidyServer;
    if (parser.isSet(QStringLiteral("tidy"))) {
        const QUrl url(parser.value(QStringLiteral("tidy-url")));
        tidyServer = std::make_shared<TidyServer>(
            url, parser.isSet(QStringLiteral("tidy-remote")) ? url.host() : QString());
        if (!tidyServer->mayReceiveText())
            return fail(QStringLiteral("%1 is not on this computer: add --tidy-remote to send "
                                       "the text there")
                            .arg(url.toDisplayString()),
                        kUsage);
    }

    // Check the engine and load the model once, up front: a bad folder is one clear error
    // rather than a failure per phrase, and the load time is reported on its own.
    QString error;
    {
        PhraseTimings unused;
        if (!makeTranscriber(choice, unused, &error))
            return fail(error, kUsage);
    }
    double loadSeconds = 0;
    if (choice.engine == QLatin1String("parakeet")) {
        if (choice.modelDirectory.isEmpty())
            return fail(QStringLiteral("choose a model folder with --model DIR"), kUsage);
        QElapsedTimer clock;
        clock.start();
        try {
            ParakeetRuntime::shared().models(choice.modelDirectory).waitForFinished();
        } catch (const std::exception &loadError) {
            return fail(QString::fromUtf8(loadError.what()), kFailed);
        }
        loadSeconds = double(clock.nsecsElapsed()) / 1e9;
    }

    int status = 0;
    QJsonArray results;
    double totalAudio = 0;
    double totalInference = 0;
    for (const QString &path : files) {
        // Made before the transcription, as at a key press, so the model loads meanwhile.
        std::unique_ptr<Polisher> polisher;
        if (tidyServer)
            polisher =
                std::make_unique<Polisher>(tidyServer, parser.value(QStringLiteral("tidy-model")));
        auto result = transcribeFile(path, choice, realtime, &error);
        if (!result) {
            status = kFailed;
            fail(error, kFailed);
            continue;
        }
        if (result->failure) {
            status = kFailed;
            fail(QStringLiteral("%1: %2").arg(QFileInfo(path).fileName(), *result->failure),
                 kFailed);
        }
        if (polisher && !result->text.isEmpty()) {
            QElapsedTimer tidying;
            tidying.start();
            result->text = QCoro::waitFor(polisher->polish(result->text));
            result->tidySeconds = double(tidying.nsecsElapsed()) / 1e9;
        }
        totalAudio += result->audioSeconds;
        totalInference += result->inferenceSeconds();
        // The Parakeet model was loaded once up front; the built-in engine loads per file.
        if (choice.engine == QLatin1String("system"))
            loadSeconds += result->prepareSeconds;
        if (json)
            results.append(toJson(path, *result));
        else
            out << result->text << Qt::endl;
        if (realtime && !json) {
            err << QStringLiteral("%1: %2 s from the end of the audio to the text")
                       .arg(QFileInfo(path).fileName())
                       .arg(*result->releaseToTextSeconds, 0, 'f', 2)
                << Qt::endl;
        }
    }

    if (json) {
        const QJsonObject report{
            {"engine", choice.engine},
            {"model", choice.engine == QLatin1String("system")
                          ? choice.language
                          : QFileInfo(choice.modelDirectory).absoluteFilePath()},
            {"loadSeconds", loadSeconds},
            {"audioSeconds", totalAudio},
            {"inferenceSeconds", totalInference},
            {"realTimeFactor", totalAudio > 0 ? totalInference / totalAudio : 0},
            {"files", results}};
        out << QJsonDocument(report).toJson(QJsonDocument::Indented);
    }
    return status;
}
