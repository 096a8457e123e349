#pragma once

#include "dictation/AudioEngine.h"

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace vocari::bench {

// A capture device that plays a recording at the pace of a microphone: from start() on, one
// buffer of about 43 ms (what the system's capture hands over at 48 kHz) each time that much
// time has passed, on a thread of its own, until the recording ends; then onEnd runs on the
// main thread, where the benchmark releases the key.
class PacedSource final : public AudioEngine
{
    Q_OBJECT
public:
    using Clock = std::chrono::steady_clock;

    // 16 kHz or any other rate, mono.
    PacedSource(double sampleRate, std::vector<float> samples);
    ~PacedSource() override;

    void setOnEnd(std::function<void()> onEnd) { m_onEnd = std::move(onEnd); }

    bool hasDefaultInput() const override { return true; }
    QList<InputDevices::Device> inputs() const override;
    AudioFormat inputFormat(const QString &deviceId) const override;
    void start(const QString &deviceId, Tap tap) override;
    void stop() override;

private:
    void play(std::stop_token stop, Tap tap, Clock::time_point origin);

    const double m_sampleRate;
    const std::vector<float> m_samples;
    std::function<void()> m_onEnd;
    std::jthread m_player; // last: joins before the rest goes
};

} // namespace vocari::bench
