#include "platform/audio/QtAudioEngine.h"

#include "dictation/ThreadHandOver.h"
#include "platform/audio/CaptureAssembler.h"

#include <QAudioSource>
#include <QLoggingCategory>
#include <QMediaDevices>
#include <QPointer>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

Q_LOGGING_CATEGORY(lcCapture, "vocari.capture", QtInfoMsg)

namespace vocari {

namespace {
using Clock = std::chrono::steady_clock;
constexpr auto kDevicePollInterval = std::chrono::milliseconds(250);
// A stream that delivers nothing for this long has died without telling: Qt 6.4 reports no
// error when PulseAudio kills a stream or the server restarts.
constexpr auto kStallLimit = std::chrono::milliseconds(1500);
constexpr auto kStallCheckInterval = std::chrono::milliseconds(250);
// A device that keeps failing is not reopened forever.
constexpr int kMaxReopens = 5;
const QString kOpenFailed = QStringLiteral("The microphone could not be opened.");
} // namespace

// The capture itself, living on the capture thread: one QAudioSource at a time, its bytes cut
// into buffers for the tap. A stream that breaks or stalls is opened again, on the chosen
// device while it exists and otherwise on the default input.
class CaptureSession : public ThreadHandOver::Receiver
{
public:
    CaptureSession()
    {
        m_stallCheck.setInterval(kStallCheckInterval);
        connect(&m_stallCheck, &QTimer::timeout, this, &CaptureSession::checkStalled);
    }

    // Starts capture from the device; returns an error message, empty on success. `lost` is
    // called on this thread if capture later stops for good.
    QString open(const QString &deviceId, const QAudioDevice &device, AudioEngine::Tap tap,
                 std::function<void()> lost)
    {
        close();
        m_deviceId = deviceId;
        m_tap = std::move(tap);
        m_lost = std::move(lost);
        m_reopens = 0;
        const QString error = openSource(device);
        if (!error.isEmpty()) {
            m_tap = nullptr;
            return error;
        }
        m_stallCheck.start();
        return {};
    }

    // Delivers what was captured so far, stops, and lets the tap go.
    void close()
    {
        m_stallCheck.stop();
        closeSource();
        m_tap = nullptr;
        m_lost = nullptr;
    }

private:
    QString openSource(const QAudioDevice &device)
    {
        if (device.isNull())
            return kNoInputMessage;
        const QAudioFormat format = device.preferredFormat();
        CaptureAssembler assembler(format, QtAudioEngine::kFramesPerBuffer);
        if (!assembler.isValid())
            return kNoInputMessage;

        auto source = std::make_unique<QAudioSource>(device, format);
        // Two buffers' worth keeps the latency low without starving the reads.
        source->setBufferSize(format.bytesForFrames(2 * QtAudioEngine::kFramesPerBuffer));
        QIODevice *io = source->start();
        if (!io || source->error() != QAudio::NoError) {
            qCWarning(lcCapture) << "Could not open" << device.id() << source->error();
            return kOpenFailed;
        }
        connect(io, &QIODevice::readyRead, this, &CaptureSession::readAvailable);
        connect(source.get(), &QAudioSource::stateChanged, this, &CaptureSession::stateChanged);
        m_source = std::move(source);
        m_io = io;
        m_assembler.emplace(assembler);
        m_lastAudio = Clock::now();
        return {};
    }

    void closeSource()
    {
        if (!m_source)
            return;
        readAvailable();
        if (m_tap && m_assembler)
            m_assembler->flush(m_tap);
        m_source->disconnect(this);
        if (m_io)
            m_io->disconnect(this);
        m_source->stop();
        m_source.reset();
        m_io = nullptr;
        m_assembler.reset();
    }

    void readAvailable()
    {
        if (!m_io || !m_tap)
            return;
        const QByteArray bytes = m_io->readAll();
        if (bytes.isEmpty())
            return;
        m_lastAudio = Clock::now();
        m_reopens = 0;
        m_assembler->append(bytes, m_tap);
    }

    void stateChanged(QAudio::State state)
    {
        if (state != QAudio::StoppedState || !m_source || m_source->error() == QAudio::NoError)
            return;
        qCInfo(lcCapture) << "Capture stopped with" << m_source->error();
        // The source that reports this cannot be destroyed inside its own signal.
        QMetaObject::invokeMethod(this, &CaptureSession::reopen, Qt::QueuedConnection);
    }

    void checkStalled()
    {
        if (m_source && Clock::now() - m_lastAudio < kStallLimit)
            return;
        qCInfo(lcCapture) << "No audio for" << kStallLimit.count() << "ms; reopening capture";
        reopen();
    }

    void reopen()
    {
        if (!m_tap)
            return;
        closeSource();
        if (m_reopens >= kMaxReopens) {
            qCWarning(lcCapture) << "Capture could not be resumed; giving up";
            m_stallCheck.stop();
            m_tap = nullptr;
            if (const auto lost = std::exchange(m_lost, nullptr))
                lost();
            return;
        }
        ++m_reopens;
        const QString error = openSource(InputDevices::route(m_deviceId));
        if (!error.isEmpty())
            qCWarning(lcCapture) << "Could not resume capture:" << error;
    }

    QString m_deviceId;
    AudioEngine::Tap m_tap;
    std::function<void()> m_lost;
    std::unique_ptr<QAudioSource> m_source;
    // Owned by the source, which deletes it when the stream fails (a sound server that dies).
    QPointer<QIODevice> m_io;
    std::optional<CaptureAssembler> m_assembler;
    QTimer m_stallCheck{this};
    Clock::time_point m_lastAudio;
    int m_reopens = 0;
};

QtAudioEngine::QtAudioEngine(QObject *parent)
    : AudioEngine(parent), m_mediaDevices(new QMediaDevices(this)), m_session(new CaptureSession)
{
    m_captureThread.setObjectName(QStringLiteral("vocari capture"));
    m_session->moveToThread(&m_captureThread);
    connect(&m_captureThread, &QThread::finished, m_session, &QObject::deleteLater);
    m_captureThread.start();

    connect(m_mediaDevices, &QMediaDevices::audioInputsChanged, this, &QtAudioEngine::checkDevices);
    m_devicePoll.setInterval(kDevicePollInterval);
    connect(&m_devicePoll, &QTimer::timeout, this, &QtAudioEngine::checkDevices);
}

QtAudioEngine::~QtAudioEngine()
{
    stop();
    m_captureThread.quit();
    m_captureThread.wait();
}

bool QtAudioEngine::hasDefaultInput() const
{
    return !QMediaDevices::defaultAudioInput().isNull();
}

QList<InputDevices::Device> QtAudioEngine::inputs() const
{
    return InputDevices::list();
}

AudioFormat QtAudioEngine::inputFormat(const QString &deviceId) const
{
    const QAudioDevice device = InputDevices::route(deviceId);
    if (device.isNull())
        return {};
    const QAudioFormat format = device.preferredFormat();
    return {double(format.sampleRate()), format.channelCount()};
}

void QtAudioEngine::start(const QString &deviceId, Tap tap)
{
    // Taken before the stream opens, so that a device vanishing meanwhile counts as a change.
    m_devices = currentDeviceState();
    const QAudioDevice device = InputDevices::route(deviceId);
    const quint64 run = ++m_runs;
    const QPointer<QtAudioEngine> self(this);
    // Reported for this run only: a late report must not end a later capture.
    auto lost = [self, run] {
        ThreadHandOver::postToMainThread([self, run] {
            if (self && self->m_capturing && self->m_runs == run)
                emit self->captureLost();
        });
    };
    QString error;
    runOnCaptureThread(
        [&] { error = m_session->open(deviceId, device, std::move(tap), std::move(lost)); });
    if (!error.isEmpty())
        throw CaptureError(error);
    m_capturing = true;
    m_devicePoll.start();
}

void QtAudioEngine::stop()
{
    m_capturing = false;
    m_devicePoll.stop();
    runOnCaptureThread([this] { m_session->close(); });
}

void QtAudioEngine::runOnCaptureThread(const std::function<void()> &work)
{
    if (!m_captureThread.isRunning())
        return;
    // The caller learns at once whether capture runs, and after a stop no buffer is on its
    // way any more. The capture thread never waits for the main thread: no deadlock.
    struct Completion
    {
        std::mutex lock;
        std::condition_variable changed;
        bool done = false;
    };
    const auto completion = std::make_shared<Completion>();
    ThreadHandOver::post(m_session, [&work, completion] {
        work();
        const std::lock_guard guard(completion->lock);
        completion->done = true;
        completion->changed.notify_one();
    });
    std::unique_lock guard(completion->lock);
    completion->changed.wait(guard, [&] { return completion->done; });
}

QtAudioEngine::DeviceState QtAudioEngine::currentDeviceState()
{
    return {InputDevices::list(), QMediaDevices::defaultAudioInput().id()};
}

void QtAudioEngine::checkDevices()
{
    DeviceState now = currentDeviceState();
    if (now == m_devices)
        return;
    m_devices = std::move(now);
    emit configurationChanged();
}

} // namespace vocari
