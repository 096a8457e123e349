// Thousands of random sequences of key presses, releases, cancels, previews and device
// changes against transcribers that take random numbers of event-loop turns to get ready and
// to finish, and that report from the capture thread. Whatever the order, every dictation
// ends exactly once, no callback of an old dictation reaches the state, and everything comes
// back to rest.

#include "Fakes.h"
#include "dictation/Dictation.h"
#include "settings/Preferences.h"
#include "support/ScopedSettings.h"

#include <QElapsedTimer>
#include <QThread>
#include <atomic>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <thread>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

using Phase = Dictation::Phase;

// Coroutines of the fake transcribers still waiting, so that a sequence can run to rest.
int g_pendingWaits = 0;

// Resumes the waiting coroutine on a later turn of the event loop.
struct NextTurn
{
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiter) const
    {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [waiter] { waiter.resume(); }, Qt::QueuedConnection);
    }
    void await_resume() const noexcept {}
};

// Gets ready and finishes after random numbers of turns, sometimes fails, and reports text,
// commits and status from whatever thread feeds it, each tagged with its dictation.
class RandomTranscriber : public Transcriber
{
public:
    RandomTranscriber(QString tag, std::mt19937 &random)
        : m_tag(std::move(tag)), m_prepareTurns(int(random() % 6)),
          m_finishTurns(int(random() % 6)), m_failPrepare(random() % 10 == 0),
          m_failure(random() % 8 == 0),
          m_text(random() % 4 ? m_tag + QStringLiteral(" words") : QString())
    {
    }

    const QString &tag() const { return m_tag; }
    bool cancelled() const { return m_cancelled; }

    std::optional<QString> failure() const override
    {
        return m_failure ? std::optional(m_tag + QStringLiteral(" failed")) : std::nullopt;
    }

    QCoro::Task<> prepare() override
    {
        ++g_pendingWaits;
        deliverStatus(m_tag + QStringLiteral(" loading"));
        for (int i = 0; i < m_prepareTurns; ++i)
            co_await NextTurn{};
        --g_pendingWaits;
        if (m_failPrepare)
            throw TranscriberError(m_tag + QStringLiteral(" could not load"));
    }

    void feed(const AudioBuffer &) override
    {
        const int n = ++m_fed;
        if (n % 3 == 0)
            deliverText(m_tag + QStringLiteral(" partial ") + QString::number(n));
        if (n % 5 == 0)
            deliverCommit(m_tag + QStringLiteral(" phrase ") + QString::number(n));
    }

    QCoro::Task<QString> finish() override
    {
        ++g_pendingWaits;
        for (int i = 0; i < m_finishTurns; ++i)
            co_await NextTurn{};
        --g_pendingWaits;
        deliverCommit(m_tag + QStringLiteral(" last phrase"));
        co_return m_text;
    }

    void cancel() override { m_cancelled = true; }

private:
    const QString m_tag;
    const int m_prepareTurns;
    const int m_finishTurns;
    const bool m_failPrepare;
    const bool m_failure;
    const QString m_text;
    std::atomic<int> m_fed{0};
    std::atomic<bool> m_cancelled{false};
};

// Captures on a thread of its own, as the real engine does: a buffer every few hundred
// microseconds, some of them digital silence, until stopped.
class ThreadedAudioEngine : public AudioEngine
{
public:
    ~ThreadedAudioEngine() override { stop(); }

    bool defaultInput = true;

    bool capturing() const { return m_thread.joinable(); }
    bool hasDefaultInput() const override { return defaultInput; }
    QList<InputDevices::Device> inputs() const override { return {}; }
    AudioFormat inputFormat(const QString &) const override { return {16000.0, 1}; }
    void start(const QString &, Tap tap) override
    {
        stop();
        m_stop = false;
        m_thread = std::thread([this, tap = std::move(tap)] {
            const AudioBuffer noise = AudioBuffer::fromMono(16000.0, std::vector(512, 0.05f));
            const AudioBuffer zeros = AudioBuffer::fromMono(16000.0, std::vector(512, 0.0f));
            for (int n = 0; !m_stop; ++n) {
                tap(n % 4 ? zeros : noise);
                std::this_thread::sleep_for(200us);
            }
        });
    }
    void stop() override
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    void announceChange() { emit configurationChanged(); }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// What the test knows about one dictation that a key press started.
struct Started
{
    QString tag;
    bool live = false;
    int finished = 0;
    int cancelled = 0;
    std::shared_ptr<RandomTranscriber> transcriber;
};

class DictationStressTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_settings.store().setValue(SettingsKey::maxSeconds, 2);
        m_settings.store().setValue(SettingsKey::aiTidy, true);
        // A server on another computer, never confirmed: the rules alone, and nothing is sent.
        m_settings.store().setValue(SettingsKey::tidyModelUrl,
                                    QStringLiteral("http://192.0.2.1:11434"));
        auto engine = std::make_unique<ThreadedAudioEngine>();
        m_engine = engine.get();
        m_dictation = std::make_unique<Dictation>(std::move(engine), m_clock);
        watch();
    }

    void TearDown() override
    {
        // Preview loops sleep in real 50 ms steps; the last ones end once their sleep is over.
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 100) {
            QCoreApplication::processEvents();
            QThread::msleep(2);
        }
        m_dictation.reset();
        settle();
    }

    void violation(const QString &what)
    {
        m_violations.append(what + QStringLiteral(" [after: ") + m_log.join(u' ') + u']');
    }

    // Every callback and property change is checked against the dictation the test started
    // last, if it is still running.
    void watch()
    {
        Dictation *d = m_dictation.get();
        d->setOnFinished([this, d](const QString &text) {
            if (d->phase() != Phase::idle)
                violation(QStringLiteral("onFinished outside idle"));
            if (m_rejectedPress) {
                ++m_rejectedFinishes;
                return;
            }
            if (!m_active) {
                violation(QStringLiteral("onFinished with no dictation running: ") + text);
                return;
            }
            if (!text.isEmpty() && !text.startsWith(m_active->tag + u' '))
                violation(QStringLiteral("text of another dictation: ") + text);
            if (!text.isEmpty())
                ++m_textsDelivered;
            ++m_active->finished;
            m_active = nullptr;
        });
        d->setOnCancelled([this, d] {
            if (d->phase() != Phase::idle)
                violation(QStringLiteral("onCancelled outside idle"));
            if (m_active) {
                ++m_active->cancelled;
                m_active = nullptr;
            } else if (!m_previewWasRunning) {
                violation(QStringLiteral("onCancelled with nothing running"));
            }
        });
        d->setOnListening([this, d] {
            if (!m_active || d->phase() != Phase::listening)
                violation(QStringLiteral("onListening out of place"));
            ++m_listened;
        });
        d->setOnCommit([this, d](const QString &phrase) {
            if (!m_active || !m_active->live || !phrase.startsWith(m_active->tag + u' '))
                violation(QStringLiteral("commit of another dictation: ") + phrase);
            if (d->phase() != Phase::listening && d->phase() != Phase::finishing)
                violation(QStringLiteral("commit while ") + QString::number(int(d->phase())));
        });
        QObject::connect(d, &Dictation::transcriptChanged, [this](const QString &text) {
            if (!text.isEmpty() && (!m_active || !text.startsWith(m_active->tag + u' ')))
                violation(QStringLiteral("transcript of another dictation: ") + text);
        });
        QObject::connect(d, &Dictation::statusDetailChanged, [this, d] {
            const QString detail = d->statusDetail().value_or(QString());
            if (detail.isEmpty() || detail == QStringLiteral("Tidying up…"))
                return;
            if (!m_active || !detail.startsWith(m_active->tag + u' '))
                violation(QStringLiteral("status of another dictation: ") + detail);
        });
        QObject::connect(d, &Dictation::isDemoChanged, [this](bool demo) {
            if (demo && m_active)
                violation(QStringLiteral("preview during a dictation"));
            m_previews += demo;
        });
    }

    void press(bool live)
    {
        const bool wasIdle = m_dictation->phase() == Phase::idle;
        m_rejectedPress = true;
        std::shared_ptr<RandomTranscriber> made;
        const QString tag = QStringLiteral("d%1").arg(++m_count);
        m_dictation->keyDown(live, QStringLiteral("Stress"), [&](bool isLive) {
            if (isLive != live)
                violation(QStringLiteral("factory told the wrong mode"));
            made = std::make_shared<RandomTranscriber>(tag, m_random);
            return made;
        });
        m_rejectedPress = false;
        if (made) {
            if (!wasIdle || m_active)
                violation(QStringLiteral("a dictation started while another ran"));
            m_started.push_back({tag, live, 0, 0, made});
            m_active = &m_started.back();
        } else if (wasIdle && m_engine->defaultInput && !m_dictation->isDemo()) {
            violation(QStringLiteral("a press at rest started nothing"));
        }
    }

    void step()
    {
        switch (m_random() % 16) {
        case 0:
        case 1:
        case 2:
            m_log << QStringLiteral("down");
            press(m_random() % 2);
            break;
        case 3:
        case 4:
            m_log << QStringLiteral("up");
            m_dictation->keyUp();
            break;
        case 5:
            m_log << QStringLiteral("cancel");
            m_previewWasRunning = m_dictation->isDemo();
            m_dictation->cancel();
            break;
        case 6:
            m_log << QStringLiteral("demo");
            m_dictation->demo();
            break;
        case 7:
            m_log << QStringLiteral("endDemo");
            m_dictation->endDemo();
            break;
        case 8:
            // Mostly a device that comes and goes while another input remains.
            m_engine->defaultInput = m_random() % 3 != 0;
            m_log << (m_engine->defaultInput ? QStringLiteral("replug") : QStringLiteral("unplug"));
            m_engine->announceChange();
            break;
        case 9:
        case 10:
        case 11: {
            const auto step = std::chrono::milliseconds(m_random() % 700);
            m_log << QStringLiteral("+%1ms").arg(step.count());
            m_clock->advance(step);
            break;
        }
        default: {
            const int turns = 1 + int(m_random() % 4);
            m_log << QStringLiteral("turns%1").arg(turns);
            for (int i = 0; i < turns; ++i)
                QCoreApplication::processEvents();
            break;
        }
        }
    }

    // Releases the key, lets every wait run out and checks that all came to rest.
    void runToRest()
    {
        m_log << QStringLiteral("rest");
        m_engine->defaultInput = true;
        settle(); // a dictation getting ready gets to listen before the release
        m_clock->advance(1s);
        m_dictation->keyUp();
        m_dictation->endDemo();
        m_clock->advance(3s);
        for (int round = 0; round < 200; ++round) {
            settle();
            if (g_pendingWaits == 0 && m_dictation->phase() == Phase::idle)
                break;
        }
        if (m_dictation->phase() != Phase::idle)
            violation(QStringLiteral("did not come back to idle"));
        if (g_pendingWaits != 0)
            violation(QStringLiteral("a wait never finished"));
        if (m_engine->capturing())
            violation(QStringLiteral("capture still running"));
        if (m_active)
            violation(QStringLiteral("a dictation never ended: ") + m_active->tag);
        for (const Started &started : m_started) {
            if (started.finished + started.cancelled != 1)
                violation(QStringLiteral("%1 ended %2 times and was cancelled %3 times")
                              .arg(started.tag)
                              .arg(started.finished)
                              .arg(started.cancelled));
            if (started.cancelled && !started.transcriber->cancelled())
                violation(started.tag + QStringLiteral(" cancelled but its engine was not"));
        }
    }

    ScopedSettings m_settings;
    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
    std::mt19937 m_random{20240501};
    ThreadedAudioEngine *m_engine = nullptr;
    std::unique_ptr<Dictation> m_dictation;

    std::deque<Started> m_started;
    Started *m_active = nullptr;
    bool m_rejectedPress = false;
    bool m_previewWasRunning = false;
    int m_rejectedFinishes = 0;
    int m_listened = 0;
    int m_textsDelivered = 0;
    int m_previews = 0;
    int m_count = 0;
    QStringList m_log;
    QStringList m_violations;
};

TEST_F(DictationStressTest, RandomSequencesAlwaysComeBackToRest)
{
    constexpr int kSequences = 5000;
    int finished = 0;
    int cancelled = 0;
    for (int sequence = 0; sequence < kSequences; ++sequence) {
        m_started.clear();
        m_log.clear();
        const int steps = 5 + int(m_random() % 25);
        for (int i = 0; i < steps; ++i)
            step();
        runToRest();
        ASSERT_TRUE(m_violations.isEmpty())
            << "sequence " << sequence << ": " << m_violations.first().toStdString();
        for (const Started &started : m_started) {
            finished += started.finished;
            cancelled += started.cancelled;
        }
    }
    // The sequences really went through every path.
    EXPECT_GT(finished, kSequences / 4);
    EXPECT_GT(cancelled, kSequences / 20);
    EXPECT_GT(m_listened, kSequences / 4);
    EXPECT_GT(m_textsDelivered, kSequences / 10);
    EXPECT_GT(m_previews, kSequences / 10);
    EXPECT_GT(m_rejectedFinishes, 0);
}

} // namespace
} // namespace vocari::test
