#include "PacedSource.h"

#include <QMetaObject>
#include <algorithm>
#include <cmath>

namespace vocari::bench {

PacedSource::PacedSource(double sampleRate, std::vector<float> samples)
    : m_sampleRate(sampleRate), m_samples(std::move(samples))
{
}

PacedSource::~PacedSource()
{
    stop();
}

QList<InputDevices::Device> PacedSource::inputs() const
{
    return {{QStringLiteral("paced"), QStringLiteral("Recording played at real time")}};
}

AudioFormat PacedSource::inputFormat(const QString &) const
{
    return {m_sampleRate, 1};
}

void PacedSource::start(const QString &, Tap tap)
{
    stop();
    const Clock::time_point origin = Clock::now();
    m_player = std::jthread(
        [this, tap = std::move(tap), origin](std::stop_token stop) { play(stop, tap, origin); });
}

void PacedSource::stop()
{
    if (m_player.joinable()) {
        m_player.request_stop();
        m_player.join();
    }
}

void PacedSource::play(std::stop_token stop, Tap tap, Clock::time_point origin)
{
    // 2048 frames at 48 kHz, the size of the system capture's buffers.
    const auto frames = size_t(std::lround(m_sampleRate * 2048.0 / 48000.0));
    size_t sent = 0;
    while (sent < m_samples.size() && !stop.stop_requested()) {
        const size_t count = std::min(frames, m_samples.size() - sent);
        // A buffer is ready once its last sample has been "spoken".
        const auto due = origin + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>((sent + count) / m_sampleRate));
        std::this_thread::sleep_until(due);
        if (stop.stop_requested())
            return;
        tap(AudioBuffer::fromMono(m_sampleRate, std::span(m_samples).subspan(sent, count)));
        sent += count;
    }
    if (!stop.stop_requested() && m_onEnd)
        QMetaObject::invokeMethod(this, m_onEnd, Qt::QueuedConnection);
}

} // namespace vocari::bench
