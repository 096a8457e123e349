#pragma once

#include "dictation/AudioEngine.h"

#include <QByteArray>
#include <QThread>
#include <QTimer>
#include <functional>

class QMediaDevices;

namespace vocari {

class CaptureSession;

// Audio capture through Qt Multimedia (PulseAudio or PipeWire): a QAudioSource on a capture
// thread of its own, reading the device in its preferred format and handing the tap planar
// float buffers of 2048 frames. A stream that breaks or goes quiet without a word (a killed
// stream, a restarted sound server) is opened again; when that keeps failing, captureLost()
// says so.
//
// Device changes are announced through QMediaDevices where the Qt version does so; as Qt 6.4
// with PulseAudio updates its device list without telling anyone, the list is also compared
// with its previous state a few times a second while capture runs.
class QtAudioEngine final : public AudioEngine
{
    Q_OBJECT
public:
    static constexpr uint32_t kFramesPerBuffer = 2048;

    explicit QtAudioEngine(QObject *parent = nullptr);
    ~QtAudioEngine() override;

    bool hasDefaultInput() const override;
    QList<InputDevices::Device> inputs() const override;
    AudioFormat inputFormat(const QString &deviceId) const override;
    void start(const QString &deviceId, Tap tap) override;
    void stop() override;

private:
    // What a configuration change is measured against.
    struct DeviceState
    {
        QList<InputDevices::Device> inputs;
        QByteArray defaultId;
        bool operator==(const DeviceState &) const = default;
    };
    static DeviceState currentDeviceState();
    void checkDevices();
    // Runs the work on the capture thread and waits until it is done.
    void runOnCaptureThread(const std::function<void()> &work);

    QMediaDevices *m_mediaDevices;
    QTimer m_devicePoll;
    DeviceState m_devices;
    QThread m_captureThread;
    CaptureSession *m_session; // lives on the capture thread
    quint64 m_runs = 0;        // captures started so far
    bool m_capturing = false;
};

} // namespace vocari
