#include "dictation/Levels.h"

#include <algorithm>
#include <cmath>

namespace vocari {

namespace {
// Below this rms the input is taken as digital silence, not as a quiet room.
constexpr float kSilenceRms = 1e-7f;
// A falling level moves the newest entry only this far towards itself.
constexpr float kFallWeight = 0.28f;
constexpr float kKeepWeight = 0.72f;
} // namespace

float inputLevel(const AudioBuffer &buffer)
{
    if (buffer.format().channels < 1 || buffer.frameLength() == 0)
        return 0.0f;
    const auto samples = buffer.channel(0);
    float sumOfSquares = 0.0f;
    for (const float sample : samples)
        sumOfSquares += sample * sample;
    const float rms = std::sqrt(sumOfSquares / float(samples.size()));
    if (!(rms > kSilenceRms))
        return 0.0f;
    const float level = (20.0f * std::log10(rms) + 52.0f) / 40.0f;
    return std::clamp(level, 0.03f, 1.0f);
}

LevelHistory::LevelHistory() : m_values(kLength, 0.0f) {}

bool LevelHistory::push(float level)
{
    const float last = m_values.last();
    const float smoothed = level > last ? level : kFallWeight * level + kKeepWeight * last;
    // Shifting changes nothing only when every entry already equals the new one.
    const bool unchanged = std::all_of(m_values.cbegin(), m_values.cend(),
                                       [smoothed](float value) { return value == smoothed; });
    m_values.removeFirst();
    m_values.append(smoothed);
    return !unchanged;
}

bool LevelHistory::reset()
{
    const QList<float> zeros(kLength, 0.0f);
    if (m_values == zeros)
        return false;
    m_values = zeros;
    return true;
}

ListeningCheck checkListening(int silentBuffers, qint64 listenedMs, qint64 maxSeconds, bool preview)
{
    if (preview)
        return {};
    return {silentBuffers >= kSilentBufferLimit, maxSeconds >= 1 && listenedMs > maxSeconds * 1000};
}

} // namespace vocari
