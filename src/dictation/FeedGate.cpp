#include "dictation/FeedGate.h"

#include "engines/Transcriber.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vocari {

FeedGate::FeedGate(std::shared_ptr<Transcriber> transcriber, double limitSeconds)
    : m_transcriber(std::move(transcriber)), m_limitSeconds(limitSeconds)
{
}

std::vector<AudioBuffer> FeedGate::takeQueue(bool &feed)
{
    feed = m_open && !m_discarded;
    if (!feed)
        return {};
    m_queuedSeconds = 0;
    return std::exchange(m_queue, {});
}

namespace {

// The buffer without its first `frames` frames.
AudioBuffer withoutFirst(const AudioBuffer &buffer, uint32_t frames)
{
    const uint32_t kept = buffer.frameLength() - frames;
    AudioBuffer rest(buffer.format(), kept);
    rest.setFrameLength(kept);
    for (int c = 0; c < buffer.format().channels; ++c) {
        const std::span<const float> from = buffer.channel(c).subspan(frames);
        std::copy(from.begin(), from.end(), rest.channel(c).begin());
    }
    return rest;
}

} // namespace

void FeedGate::push(const AudioBuffer &captured)
{
    std::vector<AudioBuffer> backlog;
    AudioBuffer trimmed;
    const AudioBuffer *pushed = &captured;
    {
        const std::lock_guard guard(m_mutex);
        if (m_discarded)
            return;
        if (m_skipSeconds > 0 && captured.format().sampleRate > 0) {
            // Counted in whole frames, so that what is left to skip never drifts below one.
            const long frames = std::lround(m_skipSeconds * captured.format().sampleRate);
            const long length = long(captured.frameLength());
            if (frames >= length) {
                m_skipSeconds = frames == length ? 0 : m_skipSeconds - captured.durationSeconds();
                return;
            }
            m_skipSeconds = 0;
            if (frames > 0) {
                trimmed = withoutFirst(captured, uint32_t(frames));
                pushed = &trimmed;
            }
        }
        const AudioBuffer &buffer = *pushed;
        if (!m_open) {
            const double duration = buffer.durationSeconds();
            // The first seconds are kept whole: the buffer that crosses the bound still goes in.
            if (m_queuedSeconds < m_limitSeconds) {
                m_queue.push_back(buffer);
                m_queuedSeconds += duration;
            } else {
                m_droppedSeconds += duration;
            }
            return;
        }
        bool feed = false;
        backlog = takeQueue(feed);
    }
    for (const AudioBuffer &queued : backlog)
        m_transcriber->feed(queued);
    m_transcriber->feed(*pushed);
}

void FeedGate::skip(double seconds)
{
    const std::lock_guard guard(m_mutex);
    m_skipSeconds = std::max(m_skipSeconds, seconds);
}

void FeedGate::open()
{
    const std::lock_guard guard(m_mutex);
    m_open = true;
}

void FeedGate::drain()
{
    std::vector<AudioBuffer> backlog;
    {
        const std::lock_guard guard(m_mutex);
        bool feed = false;
        backlog = takeQueue(feed);
    }
    for (const AudioBuffer &queued : backlog)
        m_transcriber->feed(queued);
}

void FeedGate::discard()
{
    const std::lock_guard guard(m_mutex);
    m_discarded = true;
    m_queue.clear();
    m_queuedSeconds = 0;
}

bool FeedGate::isOpen() const
{
    const std::lock_guard guard(m_mutex);
    return m_open;
}

double FeedGate::queuedSeconds() const
{
    const std::lock_guard guard(m_mutex);
    return m_queuedSeconds;
}

double FeedGate::droppedSeconds() const
{
    const std::lock_guard guard(m_mutex);
    return m_droppedSeconds;
}

} // namespace vocari
