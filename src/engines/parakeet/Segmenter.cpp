#include "engines/parakeet/Segmenter.h"

#include <algorithm>
#include <cmath>

namespace vocari {

Segmenter::Segmenter(bool eager, Emit emit)
    : m_softLimit(eager ? softLimitEager : softLimitNormal), m_emit(std::move(emit))
{
}

void Segmenter::append(std::span<const float> samples)
{
    std::vector<std::vector<float>> finished;
    {
        std::lock_guard lock(m_lock);
        m_pending.insert(m_pending.end(), samples.begin(), samples.end());
        size_t at = 0;
        while (m_pending.size() - at >= size_t(frame)) {
            process(std::span(m_pending).subspan(at, size_t(frame)), finished);
            at += size_t(frame);
        }
        m_pending.erase(m_pending.begin(), m_pending.begin() + std::ptrdiff_t(at));
    }
    emitAll(finished);
}

void Segmenter::flush()
{
    std::vector<std::vector<float>> finished;
    {
        std::lock_guard lock(m_lock);
        // The remainder was never analysed: it lengthens the phrase but not its silent run.
        m_segment.insert(m_segment.end(), m_pending.begin(), m_pending.end());
        m_pending.clear();
        cut(finished);
    }
    emitAll(finished);
}

void Segmenter::process(std::span<const float> frameSamples, std::vector<std::vector<float>> &out)
{
    const auto n = int64_t(frameSamples.size());
    float sum = 0.0f;
    for (float x : frameSamples)
        sum += x * x;
    const float rms = std::sqrt(sum / float(n));
    const float threshold = std::max(m_noiseFloor * 2.5f, minimumThreshold);
    const bool speech = rms > threshold;
    if (!speech)
        m_noiseFloor = m_noiseFloor * 0.95f + rms * 0.05f;

    m_segment.insert(m_segment.end(), frameSamples.begin(), frameSamples.end());

    bool pause = false;
    if (speech) {
        m_heardSpeech = true;
        m_silentRun = 0;
    } else {
        m_silentRun += n;
        pause = m_silentRun >= pauseToCut;
        if (!m_heardSpeech) {
            // Before any speech only the pre-roll is worth keeping.
            if (int64_t(m_segment.size()) > preRoll)
                m_segment.erase(m_segment.begin(), m_segment.end() - preRoll);
            return;
        }
    }

    const auto length = int64_t(m_segment.size());
    if (length >= hardLimit || (length >= m_softLimit && pause))
        cut(out);
}

void Segmenter::cut(std::vector<std::vector<float>> &out)
{
    if (m_heardSpeech) {
        const auto length = int64_t(m_segment.size());
        const int64_t drop = std::max<int64_t>(m_silentRun - keepTail, 0);
        const int64_t keep = length - drop;
        const int64_t voiced = length - m_silentRun;
        if (voiced >= minSpeech)
            out.emplace_back(m_segment.begin(), m_segment.begin() + keep);
    }
    m_segment.clear(); // keeps its capacity for the next phrase
    m_heardSpeech = false;
    m_silentRun = 0;
    ++m_cuts;
}

void Segmenter::emitAll(std::vector<std::vector<float>> &finished)
{
    if (!m_emit)
        return;
    for (auto &segment : finished)
        m_emit(std::move(segment));
}

int64_t Segmenter::cuts() const
{
    std::lock_guard lock(m_lock);
    return m_cuts;
}

int64_t Segmenter::bufferedSamples() const
{
    std::lock_guard lock(m_lock);
    return int64_t(m_segment.size());
}

float Segmenter::noiseFloor() const
{
    std::lock_guard lock(m_lock);
    return m_noiseFloor;
}

std::optional<Segmenter::Snapshot> Segmenter::snapshot(int64_t minSamples) const
{
    std::lock_guard lock(m_lock);
    if (!m_heardSpeech || int64_t(m_segment.size()) < minSamples)
        return std::nullopt;
    return Snapshot{m_segment, m_cuts};
}

} // namespace vocari
