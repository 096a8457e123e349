#pragma once

#include "dictation/AudioEngine.h"
#include "dictation/Clock.h"
#include "dictation/Levels.h"

#include <QCoro/QCoroTask>
#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace vocari {

class FeedGate;
class Polisher;
class TidyServer;
class Transcriber;

// The one dictation controller of the application. It runs one dictation at a time from the
// key press to the final text: makes a transcriber for the chosen engine and opens the
// microphone at once, keeps what is captured until the transcriber is ready and then feeds it
// everything in capture order, asks for the final text when the key is released, tidies it
// when asked to, and hands the result over through callbacks. It publishes what the HUD and
// the menu draw: the phase, the live transcript, the input levels, a one-line notice and a
// status line. A short simulated dictation, the preview, shows the HUD without a microphone.
//
// Everything here belongs to the main thread. The waits (preparing, finishing, tidying, the
// preview's sleeps) are coroutines; each carries the session number it started with and drops
// its result when a cancel or a newer dictation has moved the number on. Property signals fire
// only when a value really changes. Callbacks are called synchronously, on the main thread,
// from within the operation that triggers them.
class Dictation : public QObject
{
    Q_OBJECT
    Q_PROPERTY(Phase phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(QString transcript READ transcript NOTIFY transcriptChanged)
    Q_PROPERTY(QList<float> levels READ levels NOTIFY levelsChanged)
    Q_PROPERTY(bool micSilent READ micSilent NOTIFY micSilentChanged)
    Q_PROPERTY(bool isDemo READ isDemo NOTIFY isDemoChanged)

public:
    enum class Phase
    {
        idle,      // nothing happening
        preparing, // key down, the transcriber is getting ready, capture already runs
        listening, // capturing and feeding audio (the preview runs in this phase too)
        finishing, // capture stopped, waiting for the final text and the tidy-up
    };
    Q_ENUM(Phase)

    using TranscriberFactory = std::function<std::shared_ptr<Transcriber>(bool live)>;
    using TextCallback = std::function<void(const QString &)>;
    using Callback = std::function<void()>;

    // A press shorter than this, from capture start (the key press) to release, is dropped
    // silently.
    static constexpr double kShortestSpeech = 0.25;
    // Consecutive buffers of digital silence after which the microphone counts as silent.
    static constexpr int kSilentBufferLimit = vocari::kSilentBufferLimit;
    // How long a preview runs after the last demo() call.
    static constexpr std::chrono::milliseconds kDemoLength{2500};

    // Captures through the system's audio devices.
    explicit Dictation(QObject *parent = nullptr);
    // Captures through the given engine and reads the time from the given clock.
    Dictation(std::unique_ptr<AudioEngine> engine, std::shared_ptr<const Clock> clock,
              QObject *parent = nullptr);
    ~Dictation() override;

    Phase phase() const { return m_phase; }
    // The live text of the current dictation, as last reported by the transcriber.
    QString transcript() const { return m_transcript; }
    // Recent smoothed input levels in 0...1, oldest first; always LevelHistory::kLength.
    QList<float> levels() const { return m_levels.values(); }
    // A one-line message about the last dictation: an error, a hint or "Cancelled".
    std::optional<QString> notice() const { return m_notice; }
    // What the engine is doing while getting ready, or "Tidying up…" while finishing.
    std::optional<QString> statusDetail() const { return m_statusDetail; }
    // Whether the microphone has delivered nothing but digital silence for a while.
    bool micSilent() const { return m_micSilent; }
    // Whether the preview runs.
    bool isDemo() const { return m_isDemo; }
    // Whether the current (or last) dictation types committed phrases as they come.
    bool isLive() const { return m_isLive; }
    // The generation number of dictations; it moves on with every new dictation, cancel, loss
    // of the microphone, and start and end of the preview.
    qint64 session() const { return m_session; }
    AudioEngine &audioEngine() const { return *m_engine; }

    // The application model shows its own notices (such as a clipboard fallback) here.
    void setNotice(const std::optional<QString> &notice);
    // Keeps the next `seconds` of captured audio from the engine: what the microphone hears
    // while the program's own start sound plays. Audio that reached the program before the
    // call (what was said while the engine got ready) is kept.
    void skipCapturedAudio(double seconds);

    // Called once at the end of every dictation that was not cancelled, with the final text
    // (possibly empty).
    void setOnFinished(TextCallback callback) { m_onFinished = std::move(callback); }
    // Called with each phrase the engine commits, in engine order; live dictations only.
    void setOnCommit(TextCallback callback) { m_onCommit = std::move(callback); }
    // Called when a dictation is cancelled.
    void setOnCancelled(Callback callback) { m_onCancelled = std::move(callback); }
    // Called when the transcriber is ready and the dictation listens (capture runs from the
    // key press already).
    void setOnListening(Callback callback) { m_onListening = std::move(callback); }
    // Called when the preview ends by itself.
    void setOnDemoEnded(Callback callback) { m_onDemoEnded = std::move(callback); }

    // Starts a dictation. `live` types committed phrases as they come; `engine` names the
    // engine in the timing log; `makeTranscriber` is called once, with `live`. Capture starts
    // at once, while the transcriber gets ready. Outside the idle phase this only notes that
    // the key is held (and resumes capture that a release stopped before the transcriber was
    // ready).
    void keyDown(bool live, const QString &engine, const TranscriberFactory &makeTranscriber);
    // The key was released (hold mode) or pressed a second time (toggle mode). Before the
    // transcriber is ready this stops capture; the dictation ends with what was captured once
    // the transcriber is ready.
    void keyUp();
    // Drops the current dictation (Escape, or a press while busy), and the preview with it.
    void cancel();
    // Starts the preview, or extends a running one.
    void demo();
    // Stops the preview without calling back.
    void endDemo();
    // The set of capture devices changed: a dictation that is listening ends when no input
    // is left at all; otherwise capture goes on.
    void engineConfigurationChanged();
    // Capture stopped for good while preparing or listening: the dictation ends as for an
    // unplugged microphone.
    void captureLost();

    // The level of one captured buffer (see inputLevel()).
    static float level(const AudioBuffer &buffer) { return inputLevel(buffer); }

signals:
    void phaseChanged(vocari::Dictation::Phase phase);
    void transcriptChanged(const QString &transcript);
    void levelsChanged();
    void noticeChanged();
    void statusDetailChanged();
    void micSilentChanged(bool micSilent);
    void isDemoChanged(bool isDemo);

private:
    std::shared_ptr<Polisher> makePolisher();
    // The coroutines below are started and left to run on their own; each goes through
    // guarded(), so that an error thrown after a wait ends the dictation instead of vanishing
    // with the coroutine and leaving the session stuck.
    void begin(std::shared_ptr<Transcriber> transcriber, qint64 id);
    void end(qint64 id);
    QCoro::Task<> beginSteps(std::shared_ptr<Transcriber> transcriber, qint64 id);
    QCoro::Task<> endSteps(qint64 id);
    QCoro::Task<> runDemo(qint64 id);
    QCoro::Task<> guarded(QCoro::Task<> steps, qint64 id);
    // Ends the dictation with that number, if it still runs, with the notice.
    void fail(qint64 id, const QString &notice);
    // The device is gone: ends a listening dictation with "Microphone disconnected.".
    void disconnected();
    void abort(const std::shared_ptr<Transcriber> &transcriber,
               const std::optional<QString> &notice);
    // Ends a running dictation at once, cancelling its transcriber.
    void drop();
    void installCallbacks(Transcriber &transcriber, qint64 id, bool live);
    // Whether the dictation with that number is the current one and still running.
    bool isRunning(qint64 id) const;

    // Starts capture into the current feed gate. Throws CaptureError.
    void startCapture(qint64 id, bool firstOfDictation);
    void stopCapture();
    // Drops the feed gate and whatever it still holds.
    void discardGate();
    void push(float level, qint64 id);

    void setPhase(Phase phase);
    void setTranscript(const QString &transcript);
    void setStatusDetail(const std::optional<QString> &detail);
    void setMicSilent(bool silent);
    void setIsDemo(bool demo);
    void resetLevels();
    void finished(const QString &text);

    std::unique_ptr<AudioEngine> m_engine;
    std::shared_ptr<const Clock> m_clock;

    Phase m_phase = Phase::idle;
    QString m_transcript;
    LevelHistory m_levels;
    std::optional<QString> m_notice;
    std::optional<QString> m_statusDetail;
    bool m_micSilent = false;
    bool m_isDemo = false;

    TextCallback m_onFinished;
    TextCallback m_onCommit;
    Callback m_onCancelled;
    Callback m_onListening;
    Callback m_onDemoEnded;

    std::shared_ptr<Transcriber> m_transcriber;
    std::shared_ptr<Polisher> m_polisher;
    std::shared_ptr<TidyServer> m_tidyServer; // the language-model server, kept across dictations
    QString m_tidyServerHost;
    bool m_tapInstalled = false;
    bool m_wantsListening = false;
    QDateTime m_demoDeadline;
    int m_silentBuffers = 0;
    qint64 m_session = 0;
    std::shared_ptr<FeedGate> m_gate;
    bool m_ready = false; // the transcriber of the current dictation is ready
    QDateTime m_captureSince;
    // When the key was released while the transcriber was getting ready.
    std::optional<QDateTime> m_releasedAt;
    std::optional<std::chrono::steady_clock::time_point> m_releasedSteadyAt;
    bool m_isLive = false;
    QString m_engineName;
    std::chrono::steady_clock::time_point m_keyDownAt;
    // The key press on the system's steady clock, which the capture thread can read too.
    std::chrono::steady_clock::time_point m_keyDownSystemAt;
    std::chrono::steady_clock::duration m_readyTime{};
};

} // namespace vocari
