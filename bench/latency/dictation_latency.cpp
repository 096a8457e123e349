// The wait users feel: dictations driven through the application's own dictation controller and
// the real Parakeet transcriber, on networks of a real model's size, with a recording of speech
// played at the pace of a microphone.
//
//  (a) key press → capture, through the system's capture (the default input of the sound
//      server; skipped when there is none): when the first sample was recorded, at the latest,
//      and when the first buffer was in hand; on the first dictation, while the model still
//      loads, and on later ones;
//  (b) key release → final text, for dictations of about 3, 10, 30 and 60 s of speech with a
//      pause between sentences, in both model layouts (split float, community int8);
//  (c) for comparison, the time to transcribe all of each recording after the release (the same
//      phrases, one after the other), which a tool that does nothing while the user speaks
//      makes its users wait.
//
//   bench_dictation_latency SPEECH.wav [--layouts split,int8] [--lengths 3,10,30,60] [--json]
//
// SPEECH.wav: 16 kHz mono speech of at least the longest length with pauses between sentences
// (bench/dictation_latency.sh makes one with espeak-ng). Each dictation ends in the pause after
// the sentence nearest its length, 0.3 s into it, as a user releases the key after speaking.

#include "BenchNetworks.h"
#include "PacedSource.h"
#include "dictation/Clock.h"
#include "dictation/Dictation.h"
#include "engines/WavFile.h"
#include "engines/parakeet/ParakeetRuntime.h"
#include "engines/parakeet/ParakeetTranscriber.h"
#include "engines/parakeet/Segmenter.h"
#include "platform/audio/QtAudioEngine.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>

using namespace vocari;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;
using vocari::bench::PacedSource;

namespace {

constexpr double kRate = 16000;

double seconds(SteadyClock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Where a user would let go of the key: 0.3 s into each pause of at least 0.4 s.
std::vector<size_t> releasePoints(const std::vector<float> &samples)
{
    constexpr size_t frame = 320; // 20 ms
    std::vector<size_t> points;
    size_t quietFrames = 0;
    for (size_t start = 0; start + frame <= samples.size(); start += frame) {
        double energy = 0;
        for (size_t i = start; i < start + frame; ++i)
            energy += double(samples[i]) * samples[i];
        const bool quiet = std::sqrt(energy / frame) < 0.003;
        quietFrames = quiet ? quietFrames + 1 : 0;
        if (quietFrames == 20) // 0.4 s of pause, so the release falls 0.3 s into it
            points.push_back(start + frame - size_t(0.1 * kRate));
    }
    return points;
}

// The recording up to the release point nearest `length` seconds, with a faint noise under it:
// a microphone never delivers digital silence.
std::vector<float> dictationAudio(const std::vector<float> &speech,
                                  const std::vector<size_t> &points, double length)
{
    const auto target = size_t(length * kRate);
    size_t end = points.front();
    for (size_t point : points) {
        if (std::abs(double(point) - double(target)) < std::abs(double(end) - double(target)))
            end = point;
    }
    std::vector<float> out(speech.begin(), speech.begin() + std::ptrdiff_t(end));
    std::mt19937 random(11);
    std::normal_distribution<float> noise(0.0f, 0.0005f);
    for (float &x : out)
        x += noise(random);
    return out;
}

Dictation::TranscriberFactory parakeet(const QString &folder)
{
    return [folder](bool live) { return std::make_shared<ParakeetTranscriber>(folder, live); };
}

struct Timing
{
    double releaseToText = 0;
    QString text;
};

// One dictation of the whole of `audio`, played at real time: key down, release when it ends.
Timing dictate(const QString &folder, const std::vector<float> &audio)
{
    auto source = std::make_unique<PacedSource>(kRate, audio);
    PacedSource *paced = source.get();
    Dictation dictation(std::move(source), Clock::system());
    QEventLoop loop;
    SteadyClock::time_point releasedAt;
    Timing timing;
    paced->setOnEnd([&] {
        releasedAt = SteadyClock::now();
        dictation.keyUp();
    });
    dictation.setOnFinished([&](const QString &text) {
        timing.releaseToText = seconds(SteadyClock::now() - releasedAt);
        timing.text = text;
        loop.quit();
    });
    dictation.keyDown(false, QStringLiteral("parakeet"), parakeet(folder));
    loop.exec();
    return timing;
}

// The system's capture, timing its start: when the first buffer reaches the tap, and an upper
// bound for when the first sample was recorded (each buffer's arrival minus all the audio
// delivered until then; the smallest of these over the first second).
class CaptureProbe final : public AudioEngine
{
public:
    CaptureProbe() : m_engine(std::make_unique<QtAudioEngine>()) {}

    struct Start
    {
        SteadyClock::time_point firstBuffer;
        SteadyClock::time_point firstSample;
    };
    // Once a second of audio has arrived.
    std::optional<Start> measured() const
    {
        std::lock_guard lock(m_lock);
        if (m_seconds < 1.0)
            return std::nullopt;
        return Start{m_firstBuffer, m_firstSample};
    }

    bool hasDefaultInput() const override { return m_engine->hasDefaultInput(); }
    QList<InputDevices::Device> inputs() const override { return m_engine->inputs(); }
    AudioFormat inputFormat(const QString &id) const override { return m_engine->inputFormat(id); }
    void start(const QString &id, Tap tap) override
    {
        m_engine->start(id, [this, tap = std::move(tap)](const AudioBuffer &buffer) {
            note(buffer);
            tap(buffer);
        });
    }
    void stop() override { m_engine->stop(); }

private:
    void note(const AudioBuffer &buffer)
    {
        const SteadyClock::time_point now = SteadyClock::now();
        std::lock_guard lock(m_lock);
        if (m_seconds >= 1.0)
            return;
        m_seconds += buffer.durationSeconds();
        const auto recorded = now - std::chrono::duration_cast<SteadyClock::duration>(
                                        std::chrono::duration<double>(m_seconds));
        if (m_seconds == buffer.durationSeconds()) {
            m_firstBuffer = now;
            m_firstSample = recorded;
        }
        m_firstSample = std::min(m_firstSample, recorded);
    }

    const std::unique_ptr<QtAudioEngine> m_engine;
    mutable std::mutex m_lock;
    double m_seconds = 0;
    SteadyClock::time_point m_firstBuffer;
    SteadyClock::time_point m_firstSample;
};

struct CaptureStart
{
    double firstSample = 0;
    double firstBuffer = 0;
};

// Key press → capture, through the dictation controller and the system's capture: the first
// press while the model loads, then `presses` more with it loaded. Empty when there is no
// input to capture from.
std::vector<CaptureStart> pressToCapture(const QString &folder, int presses)
{
    // The sound server's devices reach Qt a moment after start.
    const QtAudioEngine system;
    for (int wait = 0; wait < 300 && !system.hasDefaultInput(); ++wait) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(10ms);
    }
    if (!system.hasDefaultInput())
        return {};
    // The first stream a freshly started sound server opens takes it about two seconds to set
    // up; a desktop's server is long past that. One capture before measuring.
    {
        CaptureProbe warm;
        warm.start({}, [](const AudioBuffer &) {});
        const auto started = SteadyClock::now();
        while (!warm.measured() && SteadyClock::now() - started < 10s)
            std::this_thread::sleep_for(5ms);
        warm.stop();
    }

    std::vector<CaptureStart> times;
    for (int i = 0; i <= presses; ++i) {
        auto engine = std::make_unique<CaptureProbe>();
        CaptureProbe *probe = engine.get();
        Dictation dictation(std::move(engine), Clock::system());
        const SteadyClock::time_point pressedAt = SteadyClock::now();
        dictation.keyDown(false, QStringLiteral("parakeet"), parakeet(folder));
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
            if (probe->measured() || SteadyClock::now() - pressedAt > 10s)
                loop.quit();
        });
        poll.start(1ms);
        loop.exec();
        const auto start = probe->measured();
        dictation.cancel();
        if (!start)
            return {};
        times.push_back(
            {seconds(start->firstSample - pressedAt), seconds(start->firstBuffer - pressedAt)});
        // The model goes on loading in the background; the later presses find it ready.
        ParakeetRuntime::shared().models(folder).waitForFinished();
    }
    return times;
}

// The same recording cut into the same phrases, all transcribed after the release: the wait a
// tool that does nothing while the user speaks imposes.
double afterRelease(const QString &folder, const std::vector<float> &audio)
{
    std::vector<std::vector<float>> phrases;
    Segmenter segmenter(false, [&](std::vector<float> phrase) { phrases.push_back(phrase); });
    segmenter.append(audio);
    segmenter.flush();
    const SteadyClock::time_point start = SteadyClock::now();
    for (const std::vector<float> &phrase : phrases)
        ParakeetRuntime::shared().transcribe(phrase, folder).result();
    return seconds(SteadyClock::now() - start);
}

struct Layout
{
    const char *name;
    const char *folder;
};

} // namespace

int main(int argc, char **argv)
{
    // Private settings (no time limit, no tidy-up), so nothing of the user's own is read.
    QTemporaryDir config;
    qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(
        QStringLiteral("vocari.parakeet.info=false\nvocari.timing.info=false"));
    SettingsStore::shared().setValue(SettingsKey::maxSeconds, 0);

    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("speech"), QStringLiteral("16 kHz mono WAV."));
    parser.addOption({QStringLiteral("layouts"), QStringLiteral("split, int8 or both."),
                      QStringLiteral("list"), QStringLiteral("split,int8")});
    parser.addOption({QStringLiteral("lengths"), QStringLiteral("Dictation lengths in seconds."),
                      QStringLiteral("list"), QStringLiteral("3,10,30,60")});
    parser.addOption({QStringLiteral("json"), QStringLiteral("Print the figures as JSON.")});
    parser.process(app);
    if (parser.positionalArguments().size() != 1)
        parser.showHelp(2);

    QString error;
    const auto wav = WavFile::read(parser.positionalArguments().first(), &error);
    if (!wav || wav->format.sampleRate != kRate || wav->format.channels != 1) {
        std::fprintf(stderr, "bench_dictation_latency: %s\n",
                     qPrintable(wav ? QStringLiteral("the speech must be 16 kHz mono") : error));
        return 1;
    }
    const std::vector<size_t> points = releasePoints(wav->samples);
    if (points.empty()) {
        std::fprintf(stderr, "bench_dictation_latency: the speech has no pauses\n");
        return 1;
    }
    std::vector<double> lengths;
    for (const QString &length : parser.value(QStringLiteral("lengths")).split(','))
        lengths.push_back(length.toDouble());

    std::vector<Layout> layouts;
    for (const QString &name : parser.value(QStringLiteral("layouts")).split(',')) {
        if (name == QLatin1String("split"))
            layouts.push_back({"split, float", "realistic"});
        else if (name == QLatin1String("int8"))
            layouts.push_back({"community, int8", "realistic-int8"});
    }

    QJsonArray report;
    for (const Layout &layout : layouts) {
        const QString folder = bench::realisticNetworks(layout.folder);
        std::fprintf(stderr, "%s: key press → capture…\n", layout.name);
        const std::vector<CaptureStart> capture = pressToCapture(folder, 5);
        // A short dictation first, so that every measured one finds the runtime warm, as the
        // application's preloaded model is.
        dictate(folder, dictationAudio(wav->samples, points, 3));

        QJsonArray rows;
        QJsonObject entry{{"layout", layout.name}};
        std::printf("\n%s\n", layout.name);
        if (!capture.empty()) {
            std::vector<double> samples, buffers;
            for (size_t i = 1; i < capture.size(); ++i) {
                samples.push_back(capture[i].firstSample);
                buffers.push_back(capture[i].firstBuffer);
            }
            std::printf("key press → first sample recorded (at the latest) / first buffer in hand: "
                        "%.0f / %.0f ms while the model loads, %.0f / %.0f ms with it loaded "
                        "(median of %zu)\n",
                        capture.front().firstSample * 1e3, capture.front().firstBuffer * 1e3,
                        median(samples) * 1e3, median(buffers) * 1e3, samples.size());
            entry.insert("pressToFirstSampleWhileLoadingSeconds", capture.front().firstSample);
            entry.insert("pressToFirstBufferWhileLoadingSeconds", capture.front().firstBuffer);
            entry.insert("pressToFirstSampleSeconds", median(samples));
            entry.insert("pressToFirstBufferSeconds", median(buffers));
        } else {
            std::printf("key press → capture: no input on the sound server\n");
        }
        std::printf("%10s %14s %22s %26s\n", "speech", "words", "release → text",
                    "all of it after release");
        for (double length : lengths) {
            const std::vector<float> audio = dictationAudio(wav->samples, points, length);
            const double spoken = double(audio.size()) / kRate;
            // Every figure is the median of several runs; the short ones vary most.
            const int runs = length < 5 ? 5 : 3;
            std::vector<double> latencies;
            qsizetype words = 0;
            for (int run = 0; run < runs; ++run) {
                const Timing timing = dictate(folder, audio);
                latencies.push_back(timing.releaseToText);
                words = timing.text.split(' ', Qt::SkipEmptyParts).size();
            }
            const double latency = median(latencies);
            const double whole = afterRelease(folder, audio);
            std::printf("%9.1fs %14lld %20.0fms %24.0fms\n", spoken, qlonglong(words),
                        latency * 1e3, whole * 1e3);
            std::fflush(stdout);
            rows.append(QJsonObject{{"speechSeconds", spoken},
                                    {"words", words},
                                    {"releaseToTextSeconds", latency},
                                    {"allAfterReleaseSeconds", whole}});
        }
        if (rows.size() > 1) {
            const double first = rows.first()["releaseToTextSeconds"].toDouble();
            const double last = rows.last()["releaseToTextSeconds"].toDouble();
            std::printf("release → text, longest / shortest dictation: %.2f×\n", last / first);
        }
        entry.insert("dictations", rows);
        report.append(entry);
    }
    if (parser.isSet(QStringLiteral("json")))
        std::printf("%s", QJsonDocument(report).toJson(QJsonDocument::Indented).constData());
    return 0;
}
