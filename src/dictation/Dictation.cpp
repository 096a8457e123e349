#include "dictation/Dictation.h"

#include "dictation/FeedGate.h"
#include "dictation/ThreadHandOver.h"
#include "dictation/TimingLog.h"
#include "engines/Transcriber.h"
#include "platform/audio/QtAudioEngine.h"
#include "settings/Preferences.h"
#include "text/Polisher.h"

#include <QCoreApplication>
#include <QCoro/QCoroTimer>
#include <QLoggingCategory>
#include <QPointer>
#include <QThread>
#include <cmath>
#include <coroutine>
#include <exception>

namespace vocari {

Q_LOGGING_CATEGORY(lcDictation, "vocari.dictation", QtInfoMsg)

namespace {

const QString kCancelled = QStringLiteral("Cancelled");
const QString kDisconnected = QStringLiteral("Microphone disconnected.");
const QString kNoSound = QStringLiteral("No sound from the microphone. Check Microphone access.");
const QString kNoSpeech = QStringLiteral("No speech detected.");
const QString kNoEngine = QStringLiteral("No speech engine is available.");
const QString kTidying = QStringLiteral("Tidying up…");

constexpr std::chrono::milliseconds kDemoStep{50};
// How much audio captured before the transcriber is ready is kept when there is no time limit.
constexpr double kLongestWaitingAudio = 60.0;

// Reports from engine threads and the capture thread reach the main thread in the order
// they were made.
using ThreadHandOver::postToMainThread;

// Continues a coroutine on the main thread. A transcriber's task may complete on one of its
// own threads, and a waiting continuation must never touch the session's state from there.
struct ResumeOnMainThread
{
    bool await_ready() const noexcept
    {
        const QCoreApplication *app = QCoreApplication::instance();
        return !app || QThread::currentThread() == app->thread();
    }
    void await_suspend(std::coroutine_handle<> continuation) const
    {
        postToMainThread([continuation] { continuation.resume(); });
    }
    void await_resume() const noexcept {}
};

QString describe(std::exception_ptr error, const QString &fallback)
{
    try {
        std::rethrow_exception(error);
    } catch (const std::exception &e) {
        const QString message = QString::fromUtf8(e.what()).trimmed();
        return message.isEmpty() ? fallback : message;
    } catch (...) {
        return fallback;
    }
}

double seconds(std::chrono::steady_clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

// The audio kept while the transcriber gets ready: as much as a dictation may last.
double waitingAudioLimit()
{
    const qint64 limit = Preferences::maxSeconds();
    return limit < 1 ? kLongestWaitingAudio : double(limit);
}

} // namespace

Dictation::Dictation(QObject *parent)
    : Dictation(std::make_unique<QtAudioEngine>(), Clock::system(), parent)
{
}

Dictation::Dictation(std::unique_ptr<AudioEngine> engine, std::shared_ptr<const Clock> clock,
                     QObject *parent)
    : QObject(parent), m_engine(std::move(engine)), m_clock(std::move(clock)),
      m_keyDownAt(m_clock->steadyNow())
{
    connect(m_engine.get(), &AudioEngine::configurationChanged, this,
            &Dictation::engineConfigurationChanged, Qt::QueuedConnection);
    connect(m_engine.get(), &AudioEngine::captureLost, this, &Dictation::captureLost,
            Qt::QueuedConnection);
}

Dictation::~Dictation()
{
    // Waits still suspended find the session moved on; capture stops before the transcriber
    // it feeds is let go.
    ++m_session;
    stopCapture();
    discardGate();
    if (m_transcriber)
        m_transcriber->cancel();
}

std::shared_ptr<Polisher> Dictation::makePolisher()
{
    // One server object for every dictation while its address stays the same, so that its
    // connection is kept; a new polisher each time.
    const QUrl url(Preferences::tidyModelUrl());
    const QString confirmed = Preferences::tidyModelConfirmedHost();
    if (!m_tidyServer || m_tidyServer->address() != url || m_tidyServerHost != confirmed) {
        m_tidyServer = std::make_shared<TidyServer>(url, confirmed);
        m_tidyServerHost = confirmed;
    }
    return std::make_shared<Polisher>(m_tidyServer, Preferences::tidyModelName());
}

void Dictation::setNotice(const std::optional<QString> &notice)
{
    if (m_notice == notice)
        return;
    m_notice = notice;
    emit noticeChanged();
}

void Dictation::keyDown(bool live, const QString &engine, const TranscriberFactory &makeTranscriber)
{
    m_wantsListening = true;
    if (m_phase == Phase::preparing && !m_tapInstalled) {
        // Pressed again after a release, before the transcriber was ready: the dictation goes
        // on, and so does capture.
        m_releasedAt.reset();
        m_releasedSteadyAt.reset();
        const qint64 id = m_session;
        try {
            startCapture(id, false);
        } catch (...) {
            fail(id, describe(std::current_exception(), QStringLiteral("Audio capture failed.")));
        }
        return;
    }
    if (m_phase != Phase::idle)
        return;
    // Linux desktops have no record permission outside sandboxes: capture counts as allowed.
    if (!m_engine->hasDefaultInput()) {
        setTranscript({});
        setNotice(kNoInputMessage);
        finished({});
        return;
    }

    const qint64 id = ++m_session;
    m_engineName = engine;
    m_keyDownAt = m_clock->steadyNow();
    m_keyDownSystemAt = std::chrono::steady_clock::now();
    std::shared_ptr<Transcriber> transcriber;
    QString factoryError = kNoEngine;
    try {
        if (makeTranscriber)
            transcriber = makeTranscriber(live);
    } catch (...) {
        factoryError = describe(std::current_exception(), kNoEngine);
    }
    if (!transcriber) {
        setTranscript({});
        setNotice(factoryError);
        finished({});
        return;
    }
    m_transcriber = transcriber;
    m_isLive = live;
    // Live dictations are typed as they come and never tidied.
    m_polisher = Preferences::aiTidy() && !live ? makePolisher() : nullptr;

    setPhase(Phase::preparing);
    m_silentBuffers = 0;
    setMicSilent(false);
    setTranscript({});
    setNotice(std::nullopt);
    setStatusDetail(std::nullopt);
    resetLevels();

    installCallbacks(*transcriber, id, live);
    if (!isRunning(id))
        return; // an observer of the phase cancelled

    // Capture starts now, while the transcriber gets ready: what is said from the key press on
    // waits in the gate until it can be fed.
    m_ready = false;
    m_releasedAt.reset();
    m_releasedSteadyAt.reset();
    m_gate = std::make_shared<FeedGate>(transcriber, waitingAudioLimit());
    m_captureSince = m_clock->now();
    try {
        startCapture(id, true);
    } catch (...) {
        m_wantsListening = false;
        abort(transcriber,
              describe(std::current_exception(), QStringLiteral("Audio capture failed.")));
        return;
    }

    QMetaObject::invokeMethod(
        this, [this, transcriber, id] { begin(transcriber, id); }, Qt::QueuedConnection);
}

void Dictation::installCallbacks(Transcriber &transcriber, qint64 id, bool live)
{
    const QPointer<Dictation> self(this);
    transcriber.setOnStatus([self, id](const QString &status) {
        postToMainThread([self, id, status] {
            if (self && self->isRunning(id))
                self->setStatusDetail(status);
        });
    });
    transcriber.setOnText([self, id](const QString &text) {
        postToMainThread([self, id, text] {
            if (self && self->isRunning(id))
                self->setTranscript(text);
        });
    });
    if (!live)
        return;
    transcriber.setOnCommit([self, id](const QString &phrase) {
        postToMainThread([self, id, phrase] {
            if (!self || self->m_session != id)
                return;
            const bool running =
                self->m_phase == Phase::listening || self->m_phase == Phase::finishing;
            if (running && self->m_onCommit)
                self->m_onCommit(phrase);
        });
    });
}

bool Dictation::isRunning(qint64 id) const
{
    // An ended dictation keeps its number until the next one starts, but it is over: reports
    // still on their way from its engine must not touch what it left behind.
    return id == m_session && m_phase != Phase::idle;
}

void Dictation::begin(std::shared_ptr<Transcriber> transcriber, qint64 id)
{
    guarded(beginSteps(std::move(transcriber), id), id);
}

void Dictation::end(qint64 id)
{
    guarded(endSteps(id), id);
}

QCoro::Task<> Dictation::guarded(QCoro::Task<> steps, qint64 id)
{
    const QPointer<Dictation> self(this);
    std::exception_ptr error;
    try {
        co_await std::move(steps);
    } catch (...) {
        error = std::current_exception();
    }
    if (!error)
        co_return;
    co_await ResumeOnMainThread{};
    if (self)
        self->fail(id, describe(error, QStringLiteral("The dictation failed.")));
}

void Dictation::fail(qint64 id, const QString &notice)
{
    qCWarning(lcDictation).noquote() << "Dictation ended by an error:" << notice;
    if (id != m_session || m_phase == Phase::idle)
        return; // over already, or a newer dictation owns the state
    if (m_isDemo) {
        endDemo();
        return;
    }
    m_wantsListening = false;
    abort(std::shared_ptr<Transcriber>(m_transcriber), notice);
}

QCoro::Task<> Dictation::beginSteps(std::shared_ptr<Transcriber> transcriber, qint64 id)
{
    // Cancelled before the engine was even asked to get ready.
    if (!isRunning(id))
        co_return;

    const QPointer<Dictation> self(this);
    std::exception_ptr failure;
    try {
        co_await transcriber->prepare();
    } catch (...) {
        failure = std::current_exception();
    }
    co_await ResumeOnMainThread{};
    if (!self)
        co_return;
    if (failure) {
        if (id == m_session)
            abort(transcriber, describe(failure, QStringLiteral("The speech engine failed.")));
        co_return;
    }
    if (id != m_session || m_phase != Phase::preparing || !m_gate)
        co_return; // a newer dictation owns the state

    m_ready = true;
    m_readyTime = m_clock->steadyNow() - m_keyDownAt;
    // From here on the capture thread feeds the transcriber, what waited first.
    m_gate->open();
    if (const double dropped = m_gate->droppedSeconds(); dropped > 0)
        qCDebug(lcDictation, "%.2f s of audio captured while getting ready were dropped", dropped);
    setStatusDetail(std::nullopt);
    if (!m_wantsListening) {
        // Released while the engine was getting ready: what was said until then is transcribed.
        end(id);
        co_return;
    }

    setPhase(Phase::listening);
    if (id != m_session)
        co_return; // an observer of the phase cancelled
    if (m_onListening)
        m_onListening();
    if (id == m_session && !m_wantsListening)
        end(id);
}

void Dictation::keyUp()
{
    m_wantsListening = false;
    if (m_phase == Phase::listening) {
        QMetaObject::invokeMethod(
            this, [this] { end(m_session); }, Qt::QueuedConnection);
    } else if (m_phase == Phase::preparing && m_tapInstalled) {
        // Capture ends with the key; the dictation ends once the transcriber is ready.
        stopCapture();
        m_releasedAt = m_clock->now();
        m_releasedSteadyAt = m_clock->steadyNow();
    }
}

QCoro::Task<> Dictation::endSteps(qint64 id)
{
    // A dictation released while getting ready ends from preparing, once its engine is ready.
    const bool started = m_phase == Phase::listening || (m_phase == Phase::preparing && m_ready);
    if (id != m_session || !started || !m_transcriber)
        co_return;

    // The waits below keep their own references: a cancel meanwhile clears the members.
    const std::shared_ptr<Transcriber> transcriber = m_transcriber;
    const std::shared_ptr<Polisher> polisher = m_polisher;
    const std::shared_ptr<const Clock> clock = m_clock;
    const QDateTime releasedAt = m_releasedAt.value_or(clock->now());
    const double spoke = double(m_captureSince.msecsTo(releasedAt)) / 1000.0;

    if (spoke < kShortestSpeech) {
        stopCapture();
        discardGate();
        transcriber->cancel();
        m_transcriber.reset();
        m_polisher.reset();
        setPhase(Phase::idle);
        setNotice(std::nullopt);
        finished({});
        co_return;
    }

    const bool silentAtRelease = m_micSilent;
    const auto finishingSince = clock->steadyNow();
    const auto releasedSteadyAt = m_releasedSteadyAt.value_or(finishingSince);
    setPhase(Phase::finishing);
    stopCapture();
    if (id != m_session)
        co_return; // an observer of the phase cancelled
    // Capture has stopped: anything still waiting in the gate goes in before the final text.
    if (m_gate)
        m_gate->drain();
    m_gate.reset();

    const QPointer<Dictation> self(this);
    QString text;
    std::optional<QString> finishError;
    try {
        text = co_await transcriber->finish();
    } catch (...) {
        finishError = describe(std::current_exception(), QStringLiteral("Transcription failed."));
    }
    co_await ResumeOnMainThread{};
    if (!self || id != m_session)
        co_return; // cancelled while finishing: the text is not wanted any more
    const auto transcribe = clock->steadyNow() - finishingSince;

    std::optional<double> tidy;
    if (polisher && !text.isEmpty()) {
        setStatusDetail(kTidying);
        const auto tidyStart = clock->steadyNow();
        text = co_await polisher->polish(text);
        co_await ResumeOnMainThread{};
        tidy = seconds(clock->steadyNow() - tidyStart);
        if (!self || id != m_session)
            co_return;
        setStatusDetail(std::nullopt);
    }

    m_polisher.reset();
    if (auto failure = transcriber->failure())
        setNotice(failure);
    else if (finishError)
        setNotice(finishError);
    else if (text.isEmpty())
        setNotice(silentAtRelease ? kNoSound : kNoSpeech);
    else
        setNotice(std::nullopt);
    m_transcriber.reset();

    DictationTiming timing;
    timing.engineName = m_engineName;
    timing.live = m_isLive;
    timing.spoke = spoke;
    timing.ready = seconds(m_readyTime);
    timing.transcribe = seconds(transcribe);
    timing.tidy = tidy;
    timing.words = countWords(text);

    setPhase(Phase::idle);
    finished(text);
    timing.releaseToInsert = seconds(clock->steadyNow() - releasedSteadyAt);
    logTiming(timing);
}

void Dictation::abort(const std::shared_ptr<Transcriber> &transcriber,
                      const std::optional<QString> &notice)
{
    if (transcriber)
        transcriber->cancel();
    stopCapture();
    discardGate();
    m_transcriber.reset();
    m_polisher.reset();
    setPhase(Phase::idle);
    setNotice(notice);
    finished({});
}

void Dictation::drop()
{
    ++m_session;
    m_wantsListening = false;
    stopCapture();
    discardGate();
    if (m_transcriber)
        m_transcriber->cancel();
    m_transcriber.reset();
    m_polisher.reset();
    setPhase(Phase::idle);
    setTranscript({});
}

void Dictation::cancel()
{
    if (m_phase == Phase::idle)
        return;
    drop();
    // A cancelled preview is over too; otherwise the next demo() would only move a deadline
    // that no preview watches any more.
    setIsDemo(false);
    setNotice(kCancelled);
    if (m_onCancelled)
        m_onCancelled();
}

void Dictation::engineConfigurationChanged()
{
    if (m_phase != Phase::listening || m_isDemo)
        return;
    if (m_engine->hasDefaultInput())
        return; // capture goes on, on whatever input the system now provides
    disconnected();
}

void Dictation::captureLost()
{
    if (m_isDemo)
        return;
    // Capture runs from the key press, so its loss ends a dictation that is still getting ready
    // too (but not one whose capture ended with the key).
    const bool capturing =
        m_phase == Phase::listening || (m_phase == Phase::preparing && m_tapInstalled);
    if (!capturing)
        return;
    disconnected();
}

void Dictation::disconnected()
{
    drop();
    setNotice(kDisconnected);
    finished({});
}

void Dictation::demo()
{
    if (m_phase != Phase::idle && !m_isDemo)
        return; // a real dictation is running
    m_demoDeadline = m_clock->now().addMSecs(kDemoLength.count());
    if (m_isDemo)
        return;
    const qint64 id = ++m_session;
    setIsDemo(true);
    setPhase(Phase::listening);
    setTranscript({});
    setNotice(std::nullopt);
    guarded(runDemo(id), id);
}

QCoro::Task<> Dictation::runDemo(qint64 id)
{
    const QPointer<Dictation> self(this);
    const std::shared_ptr<const Clock> clock = m_clock;
    const QDateTime start = clock->now();
    while (id == m_session && clock->now() < m_demoDeadline) {
        const float t = float(start.msecsTo(clock->now())) / 1000.0f;
        push(0.2f + 0.6f * std::abs(std::sin(7.0f * t)) * std::abs(std::sin(2.3f * t)), id);
        co_await QCoro::sleepFor(kDemoStep);
        if (!self)
            co_return;
    }
    if (id != m_session)
        co_return; // ended by a key press, endDemo() or a cancel
    endDemo();
    if (m_onDemoEnded)
        m_onDemoEnded();
}

void Dictation::endDemo()
{
    if (!m_isDemo)
        return;
    ++m_session;
    setIsDemo(false);
    setPhase(Phase::idle);
}

void Dictation::skipCapturedAudio(double seconds)
{
    if (!m_gate || m_phase == Phase::idle)
        return;
    qCDebug(lcDictation, "the next %.2f s of audio are left out", seconds);
    m_gate->skip(seconds);
}

void Dictation::startCapture(qint64 id, bool firstOfDictation)
{
    const QString deviceId = Preferences::inputDevice();
    if (!m_engine->inputFormat(deviceId).isValid())
        throw CaptureError(kNoInputMessage);

    const QPointer<Dictation> self(this);
    const std::shared_ptr<FeedGate> gate = m_gate;
    const auto keyDownAt = m_keyDownSystemAt;
    m_tapInstalled = true;
    // On the capture thread: feed (or keep until the transcriber is ready), measure, and hand
    // the level to the main thread.
    m_engine->start(deviceId, [gate, self, id, keyDownAt, waitingForFirst = firstOfDictation](
                                  const AudioBuffer &buffer) mutable {
        if (waitingForFirst) {
            waitingForFirst = false;
            qCDebug(lcDictation, "first audio %.3f s after the key press",
                    seconds(std::chrono::steady_clock::now() - keyDownAt));
        }
        gate->push(buffer);
        const float level = inputLevel(buffer);
        postToMainThread([self, id, level] {
            if (self)
                self->push(level, id);
        });
    });
}

void Dictation::stopCapture()
{
    if (!m_tapInstalled)
        return;
    m_engine->stop();
    m_tapInstalled = false;
}

void Dictation::discardGate()
{
    if (m_gate)
        m_gate->discard();
    m_gate.reset();
}

void Dictation::push(float level, qint64 id)
{
    // Levels still in flight from a capture that has stopped are dropped. Capture runs while
    // the transcriber gets ready, and the HUD shows its levels then too.
    if (id != m_session || (m_phase != Phase::listening && m_phase != Phase::preparing))
        return;
    if (m_levels.push(level))
        emit levelsChanged();
    // Exact zeros only: a working microphone in a quiet room still delivers some noise.
    m_silentBuffers = level == 0.0f ? m_silentBuffers + 1 : 0;

    const ListeningCheck check =
        checkListening(m_silentBuffers, m_captureSince.msecsTo(m_clock->now()),
                       Preferences::maxSeconds(), m_isDemo);
    if (check.overTime && m_phase == Phase::listening) {
        // end() ignores all but the first of these.
        QMetaObject::invokeMethod(
            this, [this, id] { end(id); }, Qt::QueuedConnection);
    }
    setMicSilent(check.micSilent);
}

void Dictation::setPhase(Phase phase)
{
    if (m_phase == phase)
        return;
    m_phase = phase;
    // The status line belongs to getting ready and finishing; back at rest it has nothing to say.
    if (phase == Phase::idle)
        setStatusDetail(std::nullopt);
    emit phaseChanged(phase);
}

void Dictation::setTranscript(const QString &transcript)
{
    if (m_transcript == transcript)
        return;
    m_transcript = transcript;
    emit transcriptChanged(transcript);
}

void Dictation::setStatusDetail(const std::optional<QString> &detail)
{
    if (m_statusDetail == detail)
        return;
    m_statusDetail = detail;
    emit statusDetailChanged();
}

void Dictation::setMicSilent(bool silent)
{
    if (m_micSilent == silent)
        return;
    m_micSilent = silent;
    emit micSilentChanged(silent);
}

void Dictation::setIsDemo(bool demo)
{
    if (m_isDemo == demo)
        return;
    m_isDemo = demo;
    emit isDemoChanged(demo);
}

void Dictation::resetLevels()
{
    if (m_levels.reset())
        emit levelsChanged();
}

void Dictation::finished(const QString &text)
{
    if (m_onFinished)
        m_onFinished(text);
}

} // namespace vocari
