// Whole dictations on real capture: a private PulseAudio server, speech from espeak-ng played
// into its null sink, and the application's own audio engine recording it.

#include "PulseServer.h"
#include "dictation/Dictation.h"
#include "dictation/InputDevices.h"
#include "engines/Transcriber.h"
#include "engines/WavFile.h"
#include "settings/Preferences.h"
#include "support/EventLoop.h"
#include "support/MissingTool.h"
#include "support/ScopedSettings.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <thread>

using namespace std::chrono_literals;

#if defined(__SANITIZE_THREAD__)
// The sound server and the players are forked from this multi-threaded process; the children
// only exec, which is safe.
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

// PulseAudio's client library, GLib's event loop and Qt's backend on top of them hand data
// between their own threads through lock-free queues, eventfds and futexes that this
// sanitizer cannot see in these uninstrumented libraries: Qt builds its device list on
// PulseAudio's thread (the allocations and copies below) and guards it with its own locks.
// The application's own hand-overs are checked by the dictation tests, which have no such
// libraries in the way.
extern "C" const char *__tsan_default_suppressions()
{
    return "called_from_lib:libpulse.so.0\n"
           "called_from_lib:libpulsecommon-16.1.so\n"
           "called_from_lib:libQt6Multimedia.so.6\n"
           "called_from_lib:libglib-2.0.so.0\n"
           "race:QArrayData::allocate\n"
           "race:QByteArray::QByteArray\n"
           "race:QCoreApplicationPrivate::cleanupThreadData\n"
           // QThread wakes its waiters under a futex-based QMutex before it is destroyed, and
           // Qt's log formatting caches its pattern under one too.
           "race:QWaitCondition::~QWaitCondition\n"
           "race:qFormatLogMessage\n";
}
#endif

namespace vocari::test {
namespace {

using Phase = Dictation::Phase;

// Keeps account of everything it is fed and answers with a fixed text.
class RecordingTranscriber : public Transcriber
{
public:
    struct Record
    {
        AudioFormat format;
        uint64_t frames = 0;
        int buffers = 0;
        int shortBuffers = 0;
        double audibleSeconds = 0;
        float peak = 0;
        std::set<std::thread::id> threads;
        double seconds() const { return format.sampleRate > 0 ? frames / format.sampleRate : 0; }
    };

    explicit RecordingTranscriber(QString reply) : m_reply(std::move(reply)) {}

    Record record() const
    {
        std::lock_guard lock(m_lock);
        return m_record;
    }

    std::optional<QString> failure() const override { return std::nullopt; }
    QCoro::Task<> prepare() override { co_return; }
    void feed(const AudioBuffer &buffer) override
    {
        const float level = inputLevel(buffer);
        std::lock_guard lock(m_lock);
        m_record.format = buffer.format();
        m_record.frames += buffer.frameLength();
        ++m_record.buffers;
        if (buffer.frameLength() != 2048)
            ++m_record.shortBuffers;
        if (level > 0.0f)
            m_record.audibleSeconds += buffer.durationSeconds();
        m_record.peak = std::max(m_record.peak, level);
        m_record.threads.insert(std::this_thread::get_id());
    }
    QCoro::Task<QString> finish() override { co_return m_reply; }
    void cancel() override {}

private:
    const QString m_reply;
    mutable std::mutex m_lock;
    Record m_record;
};

bool hasInput(const QString &id, const QString &name)
{
    return InputDevices::list().contains(InputDevices::Device{id, name});
}

class PulseCaptureTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        QString error;
        s_server = PulseServer::start(&error);
        if (!s_server) {
            s_skipReason = error;
            return;
        }
        // Before anything in this process talks to the sound server.
        qputenv("PULSE_SERVER", s_server->address().toUtf8());
        if (!s_server->addMicrophone())
            s_setupError = QStringLiteral("the test microphone could not be added");
        s_speech = s_server->folder() + QStringLiteral("/speech.wav");
        ChildProcess::run(QStringLiteral("espeak-ng"),
                          {QStringLiteral("-w"), s_speech,
                           QStringLiteral("Every word of this sentence reaches the dictation.")},
                          {});
    }

    static void TearDownTestSuite() { s_server.reset(); }

    void SetUp() override
    {
        if (!s_server)
            VOCARI_SKIP_FOR_MISSING(std::string("No PulseAudio server could be started here: ") +
                                    s_skipReason.toStdString());
        ASSERT_TRUE(s_setupError.isEmpty()) << s_setupError.toStdString();
        const auto speech = WavFile::read(s_speech);
        ASSERT_TRUE(speech) << "espeak-ng made no speech file";
        m_speechSeconds = speech->durationSeconds();
        ASSERT_GT(m_speechSeconds, 1.0);
        ASSERT_TRUE(waitUntil([] {
            return InputDevices::route({}).id() == QByteArray(PulseServer::kMicrophone);
        })) << "Qt does not see the test microphone";
    }

    // Starts a dictation on the real audio engine into a recorder.
    void press(QString reply)
    {
        m_recorder = std::make_shared<RecordingTranscriber>(std::move(reply));
        m_dictation.setOnFinished([this](const QString &text) { m_finished.append(text); });
        m_dictation.keyDown(false, QStringLiteral("Recorder"), [this](bool) { return m_recorder; });
        ASSERT_TRUE(waitUntil([this] { return m_dictation.phase() == Phase::listening; }));
    }

    void playSpeech()
    {
        const auto player = s_server->play(s_speech);
        ASSERT_TRUE(player) << "paplay is missing";
        ASSERT_TRUE(waitUntil([&] { return !player->isRunning(); }, 20s));
        ASSERT_EQ(player->exitCode(), 0) << "paplay failed";
        spin(400ms); // the end of the sentence is still on its way through the server
    }

    void release()
    {
        m_dictation.keyUp();
        ASSERT_TRUE(waitUntil([this] { return !m_finished.isEmpty(); }));
        EXPECT_EQ(m_dictation.phase(), Phase::idle);
    }

    static inline std::unique_ptr<PulseServer> s_server;
    static inline QString s_skipReason;
    static inline QString s_setupError;
    static inline QString s_speech;

    ScopedSettings m_settings;
    double m_speechSeconds = 0;
    Dictation m_dictation;
    std::shared_ptr<RecordingTranscriber> m_recorder;
    QStringList m_finished;
};

TEST_F(PulseCaptureTest, SpokenSentenceArrivesWholeThroughTheCaptureThread)
{
    float loudest = 0;
    QObject::connect(&m_dictation, &Dictation::levelsChanged,
                     [&] { loudest = std::max(loudest, m_dictation.levels().last()); });
    QElapsedTimer listened;
    press(QStringLiteral("heard it"));
    listened.start();
    playSpeech();
    release();
    const double listenedSeconds = listened.elapsed() / 1000.0;

    EXPECT_EQ(m_finished, QStringList{QStringLiteral("heard it")});
    EXPECT_EQ(m_dictation.notice(), std::nullopt);
    const auto record = m_recorder->record();
    EXPECT_TRUE(record.format.isValid());
    EXPECT_LT(record.shortBuffers * 10, record.buffers) << "buffers are not of 2048 frames";
    EXPECT_EQ(record.threads.size(), 1u);
    EXPECT_EQ(record.threads.count(std::this_thread::get_id()), 0u) << "fed on the main thread";
    // All of the time listened, give or take the start-up of the stream.
    EXPECT_GT(record.seconds(), m_speechSeconds);
    EXPECT_LT(record.seconds(), listenedSeconds + 0.5);
    EXPECT_GT(record.audibleSeconds, 0.5 * m_speechSeconds);
    EXPECT_LT(record.audibleSeconds, m_speechSeconds + 1.0);
    EXPECT_GT(record.peak, 0.3f);
    EXPECT_GT(loudest, 0.3f);
    EXPECT_FALSE(m_dictation.micSilent());
}

TEST_F(PulseCaptureTest, NothingPlayingEndsWithTheNoSoundNotice)
{
    press(QString());
    ASSERT_TRUE(waitUntil([this] { return m_dictation.micSilent(); }))
        << "the silent microphone was not noticed";
    release();
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_dictation.notice(),
              QStringLiteral("No sound from the microphone. Check Microphone access."));
    const auto record = m_recorder->record();
    EXPECT_GE(record.buffers, Dictation::kSilentBufferLimit);
    EXPECT_EQ(record.audibleSeconds, 0.0);
}

TEST_F(PulseCaptureTest, ChosenInputIsUsedAndAMissingOneFallsBackToTheDefault)
{
    const auto quiet =
        s_server->pactl({QStringLiteral("load-module"), QStringLiteral("module-null-source"),
                         QStringLiteral("source_name=vocari_quiet "
                                        "description=Quiet_Input")});
    ASSERT_TRUE(quiet);
    ASSERT_TRUE(waitUntil([] {
        return hasInput(QStringLiteral("vocari_quiet"), QStringLiteral("Quiet_Input")) &&
               hasInput(QLatin1String(PulseServer::kMicrophone),
                        QLatin1String(PulseServer::kMicrophoneName));
    })) << "Qt does not list both inputs";
    EXPECT_EQ(m_dictation.audioEngine().inputs(), InputDevices::list());

    // The chosen input hears nothing of the speech played into the default one.
    m_settings.store().setValue(SettingsKey::inputDevice, QStringLiteral("vocari_quiet"));
    press(QString());
    playSpeech();
    release();
    EXPECT_EQ(m_recorder->record().audibleSeconds, 0.0);
    EXPECT_GT(m_recorder->record().buffers, 0);

    // A device that is gone: the default input, without any notice.
    m_settings.store().setValue(SettingsKey::inputDevice, QStringLiteral("unplugged-usb-mic"));
    m_finished.clear();
    press(QStringLiteral("heard it"));
    playSpeech();
    release();
    EXPECT_GT(m_recorder->record().audibleSeconds, 0.5 * m_speechSeconds);
    EXPECT_EQ(m_dictation.notice(), std::nullopt);

    s_server->pactl({QStringLiteral("unload-module"), *quiet});
}

TEST_F(PulseCaptureTest, CaptureStreamKilledByTheServerIsReopened)
{
    press(QStringLiteral("heard it"));
    ASSERT_TRUE(waitUntil([this] { return m_recorder->record().buffers > 3; }));
    const auto outputs = s_server->pactl(
        {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")});
    ASSERT_TRUE(outputs);
    QString ours;
    for (const QString &line : outputs->split(u'\n')) {
        const QStringList fields = line.split(u'\t');
        if (fields.size() > 3 && fields[3] == QStringLiteral("protocol-native.c"))
            ours = fields[0];
    }
    ASSERT_FALSE(ours.isEmpty()) << outputs->toStdString();
    ASSERT_TRUE(s_server->command(QStringLiteral("kill-source-output ") + ours));
    const int buffersAtKill = m_recorder->record().buffers;
    // Qt reports nothing; the engine notices the silence of a dead stream and reopens it.
    EXPECT_TRUE(waitUntil([&] { return m_recorder->record().buffers > buffersAtKill + 10; }))
        << "capture did not resume";
    EXPECT_EQ(m_dictation.phase(), Phase::listening);
    release();
    EXPECT_EQ(m_finished, QStringList{QStringLiteral("heard it")});
}

TEST_F(PulseCaptureTest, UnpluggedMicrophoneEndsTheDictationOnlyWhenNoInputIsLeft)
{
    // Another input remains and becomes the default: capture moves over and goes on.
    const auto quiet =
        s_server->pactl({QStringLiteral("load-module"), QStringLiteral("module-null-source"),
                         QStringLiteral("source_name=vocari_quiet")});
    ASSERT_TRUE(quiet);
    press(QStringLiteral("heard it"));
    ASSERT_TRUE(
        s_server->pactl({QStringLiteral("set-default-source"), QStringLiteral("vocari_quiet")}));
    ASSERT_TRUE(s_server->removeMicrophone());
    ASSERT_TRUE(waitUntil([] {
        return !hasInput(QLatin1String(PulseServer::kMicrophone),
                         QLatin1String(PulseServer::kMicrophoneName));
    }));
    const int buffersAtRemoval = m_recorder->record().buffers;
    spin(1s);
    EXPECT_EQ(m_dictation.phase(), Phase::listening);
    EXPECT_GT(m_recorder->record().buffers, buffersAtRemoval + 5) << "capture did not go on";
    release();
    EXPECT_EQ(m_finished, QStringList{QStringLiteral("heard it")});
    EXPECT_EQ(m_dictation.notice(), std::nullopt);

    // The only input goes away: the dictation ends with a notice.
    ASSERT_TRUE(s_server->addMicrophone());
    ASSERT_TRUE(s_server->pactl({QStringLiteral("unload-module"), *quiet}));
    ASSERT_TRUE(waitUntil([] {
        return InputDevices::list().size() == 1 &&
               InputDevices::route({}).id() == QByteArray(PulseServer::kMicrophone);
    }));
    m_finished.clear();
    press(QStringLiteral("never delivered"));
    ASSERT_TRUE(s_server->removeMicrophone());
    ASSERT_TRUE(waitUntil([this] { return !m_finished.isEmpty(); }));
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_dictation.phase(), Phase::idle);
    EXPECT_EQ(m_dictation.notice(), QStringLiteral("Microphone disconnected."));

    ASSERT_TRUE(s_server->addMicrophone());
}

TEST_F(PulseCaptureTest, CaptureThatCannotBeResumedEndsTheDictation)
{
    press(QStringLiteral("never delivered"));
    ASSERT_TRUE(waitUntil([this] { return m_recorder->record().buffers > 3; }));
    // The sound server goes away for good: every attempt to open the stream again fails.
    // (Last in this file: the server is gone for whatever runs after it in this process.)
    s_server->crash();
    ASSERT_TRUE(waitUntil([this] { return !m_finished.isEmpty(); }, 20s))
        << "the dictation kept listening to a dead stream";
    EXPECT_EQ(m_finished, QStringList{QString()});
    EXPECT_EQ(m_dictation.phase(), Phase::idle);
    EXPECT_EQ(m_dictation.notice(), QStringLiteral("Microphone disconnected."));
}

} // namespace
} // namespace vocari::test
