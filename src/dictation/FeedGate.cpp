#include "dictation/FeedGate.h"

#include "engines/Transcriber.h"

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

void FeedGate::push(const AudioBuffer &buffer)
{
    std::vector<AudioBuffer> backlog;
    {
        const std::lock_guard guard(m_mutex);
        if (m_discarded)
            return;
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
    m_transcriber->feed(buffer);
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
