#include "dictation/Dictation.h"

#include "Fakes.h"
#include "settings/Preferences.h"
#include "support/EventLoop.h"
#include "support/ScopedSettings.h"

#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

using Phase = Dictation::Phase;

// Buffers whose first channel has exactly this rms.
AudioBuffer tone(float rms, uint32_t frames = 2048)
{
    std::vector<float> samples(frames);
    for (uint32_t i = 0; i < frames; ++i)
        samples[i] = i % 2 ? rms : -rms;
    return AudioBuffer::fromMono(48000.0, samples);
}

AudioBuffer silence(uint32_t frames = 2048)
{
    return AudioBuffer::fromMono(48000.0, std::vector<float>(frames, 0.0f));
}

// A buffer whose first sample tells it apart: `number` / 1000, then a quiet tone.
AudioBuffer numbered(int number, uint32_t frames = 2048)
{
    AudioBuffer buffer = tone(0.05f, frames);
    buffer.channel(0)[0] = float(number) / 1000.0f;
    return buffer;
}

std::vector<float> firstSamples(int from, int to)
{
    std::vector<float> samples;
    for (int number = from; number <= to; ++number)
        samples.push_back(float(number) / 1000.0f);
    return samples;
}

// One 2048-frame buffer at 48 kHz.
constexpr double kBufferSeconds = 2048.0 / 48000.0;

// Collects the lines written to the timing log while it exists.
class TimingLines
{
public:
    TimingLines()
    {
        s_lines.clear();
        m_previous = qInstallMessageHandler(&TimingLines::handle);
    }
    ~TimingLines() { qInstallMessageHandler(m_previous); }
    const QStringList &lines() const { return s_lines; }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (type == QtInfoMsg && qstrcmp(context.category, "vocari.timing") == 0)
            s_lines.append(message);
    }
    static inline QStringList s_lines;
    QtMessageHandler m_previous = nullptr;
};

class DictationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        auto engine = std::make_unique<FakeAudioEngine>();
        m_engine = engine.get();
        m_dictation = std::make_unique<Dictation>(std::move(engine), m_clock);
        m_dictation->setOnFinished([this](const QString &text) {
            m_finished.append(text);
            EXPECT_EQ(m_dictation->phase(), Phase::idle) << "onFinished outside the idle phase";
        });
        m_dictation->setOnCancelled([this] { ++m_cancelled; });
        m_dictation->setOnListening([this] { ++m_listening; });
        m_dictation->setOnCommit([this](const QString &phrase) { m_commits.append(phrase); });
        m_dictation->setOnDemoEnded([this] { ++m_demoEnded; });
        QObject::connect(m_dictation.get(), &Dictation::phaseChanged,
                         [this](Phase phase) { m_phases.push_back(phase); });
        QObject::connect(m_dictation.get(), &Dictation::isDemoChanged,
                         [this](bool demo) { m_previewed = m_previewed || demo; });
        QObject::connect(m_dictation.get(), &Dictation::statusDetailChanged,
                         [this] { m_statusDetails.push_back(m_dictation->statusDetail()); });
    }

    void TearDown() override
    {
        for (const auto &transcriber : m_made)
            transcriber->release();
        m_dictation->endDemo();
        settle();
        // A preview loop sleeps in steps of 50 ms; let the last step run out so it can end.
        if (m_previewed)
            spin(80ms);
        m_dictation.reset();
        settle();
    }

    // The transcriber the next key press gets.
    std::shared_ptr<ScriptedTranscriber> &next()
    {
        if (!m_next)
            m_next = std::make_shared<ScriptedTranscriber>();
        return m_next;
    }

    void press(bool live = false)
    {
        m_dictation->keyDown(live, QStringLiteral("Test Engine"), [this](bool) {
            m_made.push_back(next());
            return std::exchange(m_next, nullptr);
        });
    }

    // Presses the key and lets the transcriber get ready; returns it.
    std::shared_ptr<ScriptedTranscriber> startListening(bool live = false)
    {
        press(live);
        settle();
        EXPECT_EQ(m_dictation->phase(), Phase::listening);
        return m_made.back();
    }

    void release()
    {
        m_dictation->keyUp();
        settle();
    }

    ScopedSettings m_settings;
    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
    FakeAudioEngine *m_engine = nullptr;
    std::unique_ptr<Dictation> m_dictation;
    std::shared_ptr<ScriptedTranscriber> m_next;
    std::vector<std::shared_ptr<ScriptedTranscriber>> m_made;

    QStringList m_finished;
    QStringList m_commits;
    int m_cancelled = 0;
    int m_listening = 0;
    int m_demoEnded = 0;
    bool m_previewed = false;
    std::vector<Phase> m_phases;
    std::vector<std::optional<QString>> m_statusDetails;
};

TEST_F(DictationTest, DictationRunsFromKeyPressToFinalText)
{
    TimingLines timing;
    m_settings.store().setValue(SettingsKey::inputDevice, QStringLiteral("usb-mic"));
    next()->holdPrepare = true;
    next()->holdFinish = true;
    next()->finalText = QStringLiteral("hello there  world");

    const qint64 before = m_dictation->session();
    press();
    EXPECT_EQ(m_dictation->phase(), Phase::preparing);
    EXPECT_EQ(m_dictation->session(), before + 1);
    // The microphone opens with the key, while the engine gets ready.
    EXPECT_TRUE(m_engine->capturing());
    EXPECT_EQ(m_engine->startedDevice, QStringLiteral("usb-mic"));
    settle();
    auto transcriber = m_made.back();
    EXPECT_EQ(transcriber->prepareCalls, 1);
    transcriber->reportStatus(QStringLiteral("Loading speech model…"));
    settle();
    EXPECT_EQ(m_dictation->statusDetail(), QStringLiteral("Loading speech model…"));

    m_clock->advance(500ms);
    transcriber->prepared.open();
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
    EXPECT_EQ(m_listening, 1);
    EXPECT_EQ(m_dictation->statusDetail(), std::nullopt);
    EXPECT_TRUE(m_engine->capturing());
    EXPECT_EQ(m_engine->starts, 1);

    m_engine->deliver(tone(0.0316f));
    m_engine->deliver(tone(0.0316f));
    transcriber->reportText(QStringLiteral("hello there"));
    settle();
    EXPECT_EQ(transcriber->fedBuffers, 2);
    EXPECT_NEAR(m_dictation->levels().last(), 0.55f, 1e-3);
    EXPECT_EQ(m_dictation->transcript(), QStringLiteral("hello there"));

    m_clock->advance(2000ms);
    release();
    EXPECT_EQ(m_dictation->phase(), Phase::finishing);
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(transcriber->finishCalls, 1);
    EXPECT_TRUE(m_finished.isEmpty());

    m_clock->advance(750ms);
    m_dictation->setOnFinished([this](const QString &text) {
        m_finished.append(text);
        m_clock->advance(100ms); // inserting the text takes time too
    });
    transcriber->finished.open();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_finished, QStringList{QStringLiteral("hello there  world")});
    EXPECT_EQ(m_dictation->notice(), std::nullopt);
    EXPECT_EQ(transcriber->cancelCalls, 0);
    EXPECT_EQ(m_phases,
              (std::vector{Phase::preparing, Phase::listening, Phase::finishing, Phase::idle}));
    EXPECT_EQ(timing.lines(),
              QStringList{QStringLiteral("Test Engine (on release) · spoke 2.5 s · ready 0.50 s · "
                                         "transcribe 0.75 s · release→insert 0.85 s · 3 words")});
}

TEST_F(DictationTest, SpeechWhilePreparingIsFedFirstOnceTheEngineIsReady)
{
    next()->holdPrepare = true;
    press();
    settle();
    auto transcriber = m_made.back();
    transcriber->reportStatus(QStringLiteral("Loading speech model…"));
    for (int number = 1; number <= 5; ++number)
        m_engine->deliver(numbered(number));
    settle();
    // Held back, but the HUD still says what the engine does and shows the levels.
    EXPECT_EQ(transcriber->fedBuffers, 0);
    EXPECT_EQ(m_dictation->phase(), Phase::preparing);
    EXPECT_EQ(m_dictation->statusDetail(), QStringLiteral("Loading speech model…"));
    EXPECT_GT(m_dictation->levels().last(), 0.0f);
    EXPECT_EQ(m_listening, 0);

    transcriber->prepared.open();
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
    EXPECT_EQ(m_listening, 1);
    for (int number = 6; number <= 8; ++number)
        m_engine->deliver(numbered(number));
    EXPECT_EQ(transcriber->fedFirstSamples(), firstSamples(1, 8));

    // Released right after the engine was ready: what the gate still held is fed too.
    next()->holdPrepare = true;
    next()->finalText = QStringLiteral("all of it");
    m_clock->advance(1s);
    release();
    press();
    settle();
    auto second = m_made.back();
    m_engine->deliver(numbered(1));
    m_engine->deliver(numbered(2));
    m_clock->advance(1s);
    second->prepared.open();
    release();
    EXPECT_EQ(second->fedFirstSamples(), firstSamples(1, 2));
    EXPECT_EQ(second->finishCalls, 1);
    EXPECT_EQ(m_finished.last(), QStringLiteral("all of it"));
}

TEST_F(DictationTest, CaptureThreadFeedsInOrderWhileTheEngineBecomesReady)
{
    next()->holdPrepare = true;
    press();
    settle();
    auto transcriber = m_made.back();
    constexpr int kBuffers = 400;
    std::atomic<int> delivered{0};
    std::thread capture([&] {
        for (int number = 1; number <= kBuffers; ++number) {
            m_engine->deliver(numbered(number, 256));
            delivered = number;
            std::this_thread::sleep_for(20us);
        }
    });
    while (delivered < kBuffers / 4)
        std::this_thread::yield();
    transcriber->prepared.open();
    capture.join();
    m_clock->advance(1s);
    release();
    EXPECT_EQ(transcriber->fedFirstSamples(), firstSamples(1, kBuffers));
    EXPECT_EQ(transcriber->overlappingFeeds, 0);
    EXPECT_EQ(transcriber->finishCalls, 1);
}

TEST_F(DictationTest, ReleaseWhilePreparingTranscribesWhatWasCaptured)
{
    TimingLines timing;
    next()->holdPrepare = true;
    next()->finalText = QStringLiteral("said while loading");
    press();
    settle();
    const int buffers = int(std::ceil(2.0 / kBufferSeconds));
    for (int number = 1; number <= buffers; ++number)
        m_engine->deliver(numbered(number));
    m_clock->advance(2s);
    release();
    // Capture ends with the key; the text comes once the engine is ready.
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(m_dictation->phase(), Phase::preparing);
    EXPECT_TRUE(m_finished.isEmpty());

    m_clock->advance(3s);
    m_made.back()->prepared.open();
    settle();
    EXPECT_EQ(m_made.back()->fedFirstSamples(), firstSamples(1, buffers));
    EXPECT_EQ(m_made.back()->finishCalls, 1);
    EXPECT_EQ(m_made.back()->cancelCalls, 0);
    EXPECT_EQ(m_finished, QStringList{QStringLiteral("said while loading")});
    EXPECT_EQ(m_dictation->notice(), std::nullopt);
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_listening, 0); // no start sound once the key is up
    EXPECT_EQ(m_phases, (std::vector{Phase::preparing, Phase::finishing, Phase::idle}));
    EXPECT_EQ(m_engine->starts, 1);
    ASSERT_EQ(timing.lines().size(), 1);
    EXPECT_TRUE(timing.lines().first().contains(QStringLiteral("spoke 2.0 s · ready 5.00 s")))
        << timing.lines().first().toStdString();

    // Under a quarter second from the key press: nothing, however long the engine took.
    m_finished.clear();
    next()->holdPrepare = true;
    press();
    settle();
    m_engine->deliver(numbered(1));
    m_clock->advance(200ms);
    release();
    m_clock->advance(2s);
    m_made.back()->prepared.open();
    settle();
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_dictation->notice(), std::nullopt);
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_made.back()->finishCalls, 0);
    EXPECT_EQ(m_made.back()->fedBuffers, 0);
    EXPECT_EQ(m_made.back()->cancelCalls, 1);
    EXPECT_EQ(timing.lines().size(), 1);
}

TEST_F(DictationTest, CancelWhilePreparingDropsEverythingCaptured)
{
    next()->holdPrepare = true;
    press();
    settle();
    auto transcriber = m_made.back();
    m_engine->deliver(numbered(1));
    m_engine->deliver(numbered(2));
    m_dictation->cancel();
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Cancelled"));
    EXPECT_EQ(m_cancelled, 1);
    EXPECT_EQ(transcriber->cancelCalls, 1);

    transcriber->prepared.open();
    m_engine->deliverLate(numbered(3)); // on its way when capture stopped
    settle();
    EXPECT_EQ(transcriber->fedBuffers, 0);
    EXPECT_EQ(transcriber->finishCalls, 0);
    EXPECT_TRUE(m_finished.isEmpty());
    EXPECT_EQ(m_listening, 0);
    EXPECT_EQ(m_dictation->levels(), QList<float>(LevelHistory::kLength, 0.0f));
}

TEST_F(DictationTest, AudioKeptWhilePreparingIsBounded)
{
    // Returns the seconds fed of `seconds` captured before the engine was ready.
    const auto capturedWhilePreparing = [this](double seconds) {
        next()->holdPrepare = true;
        press();
        settle();
        const int buffers = int(std::ceil(seconds / kBufferSeconds));
        for (int number = 1; number <= buffers; ++number)
            m_engine->deliver(numbered(number));
        m_clock->advance(std::chrono::milliseconds(qint64(seconds * 1000)));
        release();
        m_made.back()->prepared.open();
        settle();
        EXPECT_EQ(m_made.back()->finishCalls, 1);
        EXPECT_EQ(m_dictation->phase(), Phase::idle);
        return m_made.back()->fedSeconds();
    };

    m_settings.store().setValue(SettingsKey::maxSeconds, 1);
    const double limited = capturedWhilePreparing(10.0);
    EXPECT_GE(limited, 1.0);
    EXPECT_LE(limited, 1.0 + kBufferSeconds);
    // The first second is what was kept.
    const std::vector<float> fed = m_made.back()->fedFirstSamples();
    EXPECT_EQ(fed, firstSamples(1, int(fed.size())));

    // Without a time limit, ten minutes of getting ready keep the first minute.
    m_settings.store().setValue(SettingsKey::maxSeconds, 0);
    const double unlimited = capturedWhilePreparing(600.0);
    EXPECT_GE(unlimited, 60.0);
    EXPECT_LE(unlimited, 60.0 + kBufferSeconds);

    // A dictation shorter than the bound keeps all of it.
    m_settings.store().setValue(SettingsKey::maxSeconds, 30);
    EXPECT_NEAR(capturedWhilePreparing(3.0), std::ceil(3.0 / kBufferSeconds) * kBufferSeconds,
                1e-9);
}

TEST_F(DictationTest, KeyDownWhileBusyOnlyNotesThatTheKeyIsHeld)
{
    next()->holdPrepare = true;
    press();
    settle();
    const qint64 session = m_dictation->session();
    m_engine->deliver(numbered(1));
    release();
    EXPECT_FALSE(m_engine->capturing());
    press(); // pressed again before the engine was ready: capture goes on
    EXPECT_EQ(m_made.size(), 1u);
    EXPECT_EQ(m_dictation->session(), session);
    EXPECT_TRUE(m_engine->capturing());
    m_engine->deliver(numbered(2));

    m_made.back()->prepared.open();
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
    EXPECT_EQ(m_listening, 1);
    EXPECT_TRUE(m_finished.isEmpty());
    m_engine->deliver(numbered(3));
    EXPECT_EQ(m_made.back()->fedFirstSamples(), firstSamples(1, 3));
}

TEST_F(DictationTest, EscapeWhileFinishingIgnoresTheLateText)
{
    TimingLines timing;
    next()->holdFinish = true;
    next()->finalText = QStringLiteral("too late");
    auto transcriber = startListening();
    m_clock->advance(1s);
    release();
    ASSERT_EQ(m_dictation->phase(), Phase::finishing);
    const qint64 session = m_dictation->session();

    m_dictation->cancel();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Cancelled"));
    EXPECT_EQ(m_dictation->session(), session + 1);
    EXPECT_EQ(m_cancelled, 1);
    EXPECT_EQ(transcriber->cancelCalls, 1);

    transcriber->finished.open();
    settle();
    EXPECT_TRUE(m_finished.isEmpty());
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Cancelled"));
    EXPECT_EQ(m_dictation->transcript(), QString());
    EXPECT_TRUE(timing.lines().isEmpty());

    // Nothing to cancel at rest.
    m_dictation->cancel();
    EXPECT_EQ(m_cancelled, 1);
    EXPECT_EQ(m_dictation->session(), session + 1);
}

TEST_F(DictationTest, PressShorterThanAQuarterSecondEndsSilently)
{
    TimingLines timing;
    auto transcriber = startListening();
    const qint64 session = m_dictation->session();
    m_clock->advance(200ms);
    release();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_dictation->notice(), std::nullopt);
    EXPECT_EQ(transcriber->finishCalls, 0);
    EXPECT_EQ(transcriber->cancelCalls, 1);
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(m_dictation->session(), session);
    EXPECT_TRUE(timing.lines().isEmpty());

    // A quarter second exactly is long enough.
    startListening();
    m_clock->advance(250ms);
    release();
    EXPECT_EQ(m_made.back()->finishCalls, 1);
}

TEST_F(DictationTest, FinalNoticeComesFromFailureTextAndSilence)
{
    // Delivers the buffers, releases after a second and returns the notice it ended with.
    const auto dictate = [this](const std::vector<AudioBuffer> &buffers, const QString &text,
                                std::optional<QString> failure = std::nullopt) {
        next()->finalText = text;
        next()->failureText = failure;
        startListening();
        for (const AudioBuffer &buffer : buffers)
            m_engine->deliver(buffer);
        settle();
        m_clock->advance(1s);
        release();
        EXPECT_EQ(m_dictation->phase(), Phase::idle);
        return m_dictation->notice();
    };

    // A failure is the notice, and whatever text came back is still delivered.
    EXPECT_EQ(dictate({tone(0.1f)}, QStringLiteral("partial text"),
                      QStringLiteral("A phrase could not be transcribed.")),
              QStringLiteral("A phrase could not be transcribed."));
    EXPECT_EQ(m_finished.last(), QStringLiteral("partial text"));

    EXPECT_EQ(dictate({tone(0.1f)}, QStringLiteral("fine")), std::nullopt);
    EXPECT_EQ(m_finished.last(), QStringLiteral("fine"));

    std::vector<AudioBuffer> zeros(35, silence());
    EXPECT_EQ(dictate(zeros, QString()),
              QStringLiteral("No sound from the microphone. Check Microphone access."));
    EXPECT_TRUE(m_dictation->micSilent());

    zeros.pop_back();
    EXPECT_EQ(dictate(zeros, QString()), QStringLiteral("No speech detected."));
    EXPECT_FALSE(m_dictation->micSilent());

    // Background noise at the end resets the count.
    std::vector<AudioBuffer> noisyEnd(40, silence());
    noisyEnd.push_back(tone(1e-4f));
    int silentChanges = 0;
    QObject::connect(m_dictation.get(), &Dictation::micSilentChanged, [&] { ++silentChanges; });
    EXPECT_EQ(dictate(noisyEnd, QString()), QStringLiteral("No speech detected."));
    EXPECT_EQ(silentChanges, 2);
    EXPECT_FALSE(m_dictation->micSilent());
}

TEST_F(DictationTest, PrepareOrCaptureFailureAbortsWithTheErrorText)
{
    next()->prepareError = QStringLiteral("The model folder is incomplete.");
    press();
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("The model folder is incomplete."));
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_engine->starts, 1); // capture opened with the key
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(m_made.back()->cancelCalls, 1);

    // Capture that cannot start ends the dictation at the key press.
    m_engine->startError = QStringLiteral("The microphone could not be opened.");
    press();
    EXPECT_EQ(m_made.size(), 2u); // a new transcriber for the new attempt
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("The microphone could not be opened."));
    EXPECT_EQ(m_finished.size(), 2);
    EXPECT_EQ(m_engine->stops, 2); // the failed start is cleaned up
    EXPECT_EQ(m_made.back()->cancelCalls, 1);
    settle();
    EXPECT_EQ(m_made.back()->prepareCalls, 0);
    EXPECT_EQ(m_finished.size(), 2);

    m_engine->startError.reset();
    m_engine->format = {44100.0, 0};
    press();
    settle();
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("No input: no microphone found."));
    EXPECT_EQ(m_engine->starts, 2); // nothing is started without a usable format
    EXPECT_EQ(m_made.back()->prepareCalls, 0);
    EXPECT_EQ(m_listening, 0);

    // A failure that arrives after a cancel stays silent.
    m_engine->format = {44100.0, 1};
    next()->holdPrepare = true;
    next()->prepareError = QStringLiteral("Too late to matter.");
    press();
    settle();
    m_dictation->cancel();
    m_made.back()->prepared.open();
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Cancelled"));
    EXPECT_EQ(m_finished.size(), 3);
}

TEST_F(DictationTest, ErrorAfterAWaitEndsTheDictationWithANotice)
{
    // Thrown once finish() has returned: the dictation must not stay in finishing.
    next()->failureThrows = QStringLiteral("The engine broke while finishing.");
    startListening();
    m_clock->advance(1s);
    release();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("The engine broke while finishing."));
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_made.back()->cancelCalls, 1);

    // Thrown by an observer once the engine is ready: capture stops, the dictation ends.
    m_dictation->setOnListening([] { throw std::runtime_error("The start sound failed."); });
    press();
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("The start sound failed."));
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(m_finished.size(), 2);
}

TEST_F(DictationTest, KeyDownWithoutAnyMicrophoneEndsAtOnce)
{
    m_engine->defaultInput = false;
    const qint64 session = m_dictation->session();
    press();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("No input: no microphone found."));
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_TRUE(m_made.empty());
    EXPECT_EQ(m_dictation->session(), session);
    EXPECT_TRUE(m_phases.empty());
}

TEST_F(DictationTest, MicrophoneLossEndsTheDictationOnlyWhenNoInputIsLeft)
{
    auto transcriber = startListening();
    transcriber->reportText(QStringLiteral("so far"));
    settle();

    m_engine->unplug(true); // the built-in microphone remains
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
    EXPECT_TRUE(m_engine->capturing());
    EXPECT_EQ(m_dictation->notice(), std::nullopt);

    const qint64 session = m_dictation->session();
    m_engine->unplug(false);
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Microphone disconnected."));
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_dictation->transcript(), QString());
    EXPECT_EQ(m_dictation->session(), session + 1);
    EXPECT_EQ(transcriber->cancelCalls, 1);
    EXPECT_FALSE(m_engine->capturing());
    EXPECT_EQ(m_cancelled, 0);

    // Late reports of the lost dictation change nothing.
    transcriber->reportText(QStringLiteral("late words"));
    settle();
    EXPECT_EQ(m_dictation->transcript(), QString());

    // Capture that stops for good ends the dictation the same way.
    m_engine->defaultInput = true;
    startListening();
    m_engine->loseCapture();
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Microphone disconnected."));
    EXPECT_EQ(m_finished.size(), 2);

    // Neither a dictation getting ready nor the preview reacts to device changes.
    m_engine->defaultInput = true;
    next()->holdPrepare = true;
    press();
    settle();
    m_engine->unplug(false);
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::preparing);
    m_dictation->cancel();

    // Capture runs from the key press, so losing it ends a dictation still getting ready.
    m_engine->defaultInput = true;
    next()->holdPrepare = true;
    press();
    settle();
    m_engine->loseCapture();
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Microphone disconnected."));
    EXPECT_EQ(m_made.back()->cancelCalls, 1);
    m_made.back()->prepared.open();
    settle();
    EXPECT_EQ(m_listening, 2);
    EXPECT_EQ(m_finished.size(), 3);

    m_dictation->demo();
    m_engine->unplug(false);
    m_engine->loseCapture();
    settle();
    EXPECT_TRUE(m_dictation->isDemo());
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
}

TEST_F(DictationTest, TidyUpRunsOnlyForTextThatIsPastedAtTheEnd)
{
    TimingLines timing;
    m_settings.store().setValue(SettingsKey::aiTidy, true);
    // A server on another computer, never confirmed: the rules alone, and nothing is sent.
    m_settings.store().setValue(SettingsKey::tidyModelUrl,
                                QStringLiteral("http://192.0.2.1:11434"));
    const QString raw = QStringLiteral("um so we should go go now");
    const auto dictate = [&](bool live, const QString &text) {
        m_statusDetails.clear();
        next()->finalText = text;
        startListening(live);
        m_clock->advance(1s);
        release();
        EXPECT_EQ(m_dictation->phase(), Phase::idle);
        EXPECT_EQ(m_dictation->statusDetail(), std::nullopt);
    };

    dictate(false, raw);
    EXPECT_EQ(m_finished.last(), QStringLiteral("So we should go now"));
    EXPECT_EQ(m_statusDetails,
              (std::vector<std::optional<QString>>{QStringLiteral("Tidying up…"), std::nullopt}));
    EXPECT_TRUE(timing.lines().last().contains(QStringLiteral("transcribe 0.00 s · tidy 0.00 s · "
                                                              "release→insert")))
        << timing.lines().last().toStdString();
    EXPECT_TRUE(timing.lines().last().endsWith(QStringLiteral("· 5 words")));

    dictate(true, raw);
    EXPECT_EQ(m_finished.last(), raw);
    EXPECT_TRUE(m_statusDetails.empty());
    EXPECT_TRUE(timing.lines().last().startsWith(QStringLiteral("Test Engine (live) ·")));
    EXPECT_FALSE(timing.lines().last().contains(QStringLiteral("tidy")));

    dictate(false, QString());
    EXPECT_TRUE(m_statusDetails.empty());
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("No speech detected."));

    m_settings.store().setValue(SettingsKey::aiTidy, false);
    dictate(false, raw);
    EXPECT_EQ(m_finished.last(), raw);
    EXPECT_TRUE(m_statusDetails.empty());
}

TEST_F(DictationTest, LiveCommitsArriveInEngineOrderWhileTheDictationRuns)
{
    next()->holdPrepare = true;
    next()->holdFinish = true;
    press(true);
    settle();
    auto transcriber = m_made.back();
    transcriber->reportCommit(QStringLiteral("before capture"));
    settle();
    EXPECT_TRUE(m_commits.isEmpty());

    transcriber->prepared.open();
    // Reports come from the engine's own thread and from here, in this order.
    std::thread engineThread([&] {
        for (int i = 1; i <= 50; ++i)
            transcriber->reportCommit(QString::number(i));
    });
    engineThread.join();
    transcriber->reportCommit(QStringLiteral("51"));
    settle();
    ASSERT_EQ(m_commits.size(), 50 + 1);
    for (int i = 0; i < m_commits.size(); ++i)
        EXPECT_EQ(m_commits[i], QString::number(i + 1));

    m_clock->advance(1s);
    release();
    transcriber->reportCommit(QStringLiteral("while finishing"));
    settle();
    EXPECT_EQ(m_commits.last(), QStringLiteral("while finishing"));

    transcriber->finished.open();
    transcriber->reportCommit(QStringLiteral("after the end"));
    settle();
    EXPECT_EQ(m_commits.last(), QStringLiteral("while finishing"));

    // Dictations pasted at the end never commit phrases.
    m_commits.clear();
    auto pasted = startListening(false);
    pasted->reportCommit(QStringLiteral("not live"));
    settle();
    EXPECT_TRUE(m_commits.isEmpty());
}

TEST_F(DictationTest, ReportsOfAnEndedDictationChangeNothing)
{
    next()->holdPrepare = true;
    press();
    settle();
    auto first = m_made.back();
    first->reportStatus(QStringLiteral("Downloading speech model…"));
    settle();
    EXPECT_EQ(m_dictation->statusDetail(), QStringLiteral("Downloading speech model…"));
    first->prepared.open();

    // A level still on its way when the dictation is cancelled is dropped.
    m_engine->deliver(tone(0.5f));
    m_dictation->cancel();
    first->reportText(QStringLiteral("stale text"));
    first->reportStatus(QStringLiteral("stale status"));
    settle();
    EXPECT_EQ(m_dictation->transcript(), QString());
    EXPECT_EQ(m_dictation->statusDetail(), std::nullopt);
    EXPECT_EQ(m_dictation->levels(), QList<float>(LevelHistory::kLength, 0.0f));

    // The next dictation hears only its own transcriber.
    auto second = startListening();
    first->reportText(QStringLiteral("stale again"));
    second->reportText(QStringLiteral("fresh"));
    settle();
    EXPECT_EQ(m_dictation->transcript(), QStringLiteral("fresh"));

    // Callbacks that outlive the session do nothing at all.
    m_dictation->cancel();
    m_dictation.reset();
    second->reportText(QStringLiteral("nobody listens"));
    second->reportCommit(QStringLiteral("nobody listens"));
    settle();
    auto engine = std::make_unique<FakeAudioEngine>();
    m_engine = engine.get();
    m_dictation = std::make_unique<Dictation>(std::move(engine), m_clock);
}

TEST_F(DictationTest, PreviewRunsUntilTwoAndAHalfSecondsAfterTheLastCall)
{
    m_settings.store().setValue(SettingsKey::maxSeconds, 1);
    const qint64 session = m_dictation->session();
    m_dictation->demo();
    EXPECT_TRUE(m_dictation->isDemo());
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
    EXPECT_EQ(m_dictation->session(), session + 1);
    EXPECT_GE(m_dictation->levels().last(), 0.2f);

    m_clock->advance(400ms);
    m_dictation->demo();
    m_clock->advance(400ms);
    m_dictation->demo();
    EXPECT_EQ(m_dictation->session(), session + 1); // one preview, extended
    m_clock->advance(2400ms);
    spin(120ms);
    EXPECT_TRUE(m_dictation->isDemo()) << "ended before its deadline";
    EXPECT_EQ(m_dictation->phase(), Phase::listening); // no time limit for the preview
    EXPECT_FALSE(m_dictation->micSilent());
    EXPECT_EQ(m_demoEnded, 0);

    m_clock->advance(200ms);
    ASSERT_TRUE(waitUntil([&] { return m_demoEnded > 0; }));
    EXPECT_EQ(m_demoEnded, 1);
    EXPECT_FALSE(m_dictation->isDemo());
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
    EXPECT_EQ(m_dictation->session(), session + 2);
    EXPECT_TRUE(m_finished.isEmpty());
}

TEST_F(DictationTest, PreviewEndsQuietlyOnKeyPressOrCancel)
{
    m_dictation->demo();
    press(); // the application model ends the preview first; without that the press is ignored
    EXPECT_TRUE(m_made.empty());
    EXPECT_TRUE(m_dictation->isDemo());

    m_dictation->endDemo();
    press();
    EXPECT_EQ(m_dictation->phase(), Phase::preparing);
    EXPECT_FALSE(m_dictation->isDemo());
    m_dictation->demo(); // a real dictation runs: no preview
    EXPECT_FALSE(m_dictation->isDemo());
    m_clock->advance(3s);
    spin(120ms);
    EXPECT_EQ(m_demoEnded, 0);
    m_dictation->cancel();
    settle();

    m_dictation->demo();
    m_dictation->cancel();
    EXPECT_EQ(m_cancelled, 2);
    EXPECT_EQ(m_dictation->notice(), QStringLiteral("Cancelled"));
    EXPECT_FALSE(m_dictation->isDemo());
    m_clock->advance(3s);
    spin(120ms);
    EXPECT_EQ(m_demoEnded, 0);

    // After a cancelled preview a new one starts afresh and ends by itself.
    m_dictation->demo();
    EXPECT_TRUE(m_dictation->isDemo());
    EXPECT_EQ(m_dictation->notice(), std::nullopt);
    m_clock->advance(3s);
    ASSERT_TRUE(waitUntil([&] { return m_demoEnded > 0; }));
    EXPECT_EQ(m_dictation->phase(), Phase::idle);
}

TEST_F(DictationTest, TimeLimitEndsTheDictation)
{
    m_settings.store().setValue(SettingsKey::maxSeconds, 5);
    next()->holdFinish = true;
    auto transcriber = startListening();
    m_clock->advance(5s);
    m_engine->deliver(tone(0.1f));
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::listening); // not more than 5 s yet

    m_clock->advance(100ms);
    m_engine->deliver(tone(0.1f));
    m_engine->deliver(tone(0.1f));
    m_engine->deliver(tone(0.1f));
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::finishing);
    EXPECT_EQ(transcriber->finishCalls, 1);
    transcriber->finished.open();
    EXPECT_EQ(m_finished.size(), 1);

    m_settings.store().setValue(SettingsKey::maxSeconds, 0);
    startListening();
    m_clock->advance(600s);
    m_engine->deliver(tone(0.1f));
    settle();
    EXPECT_EQ(m_dictation->phase(), Phase::listening);
}

TEST_F(DictationTest, LevelsFollowTheCapturedAudioAndResetAtEveryPress)
{
    int levelSignals = 0;
    QObject::connect(m_dictation.get(), &Dictation::levelsChanged, [&] { ++levelSignals; });
    startListening();
    m_engine->deliver(silence());
    settle();
    EXPECT_EQ(levelSignals, 0); // all zeros already: nothing changed

    m_engine->deliver(tone(0.5f));
    m_engine->deliver(tone(0.00001f)); // quiet, but not digital silence
    settle();
    const QList<float> levels = m_dictation->levels();
    ASSERT_EQ(levels.size(), LevelHistory::kLength);
    EXPECT_FLOAT_EQ(levels[LevelHistory::kLength - 2], 1.0f);
    EXPECT_NEAR(levels.last(), 0.28f * 0.03f + 0.72f * 1.0f, 1e-5);
    EXPECT_EQ(levelSignals, 2);

    m_clock->advance(1s);
    release();
    m_engine->deliverLate(tone(0.5f)); // captured before the stop, arriving after it: ignored
    settle();
    EXPECT_EQ(m_dictation->levels(), levels);

    startListening();
    EXPECT_EQ(m_dictation->levels(), QList<float>(LevelHistory::kLength, 0.0f));
}

TEST_F(DictationTest, ObservablePropertiesSignalOnlyRealChanges)
{
    int notices = 0;
    int transcripts = 0;
    QObject::connect(m_dictation.get(), &Dictation::noticeChanged, [&] { ++notices; });
    QObject::connect(m_dictation.get(), &Dictation::transcriptChanged, [&] { ++transcripts; });

    m_dictation->setNotice(QStringLiteral("Copied to clipboard."));
    m_dictation->setNotice(QStringLiteral("Copied to clipboard."));
    EXPECT_EQ(notices, 1);

    auto transcriber = startListening();
    EXPECT_EQ(notices, 2); // cleared at the press
    transcriber->reportText(QStringLiteral("same"));
    transcriber->reportText(QStringLiteral("same"));
    settle();
    EXPECT_EQ(transcripts, 1);
    EXPECT_EQ(m_phases, (std::vector{Phase::preparing, Phase::listening}));
}

} // namespace
} // namespace vocari::test
