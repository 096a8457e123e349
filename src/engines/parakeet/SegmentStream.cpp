#include "engines/parakeet/SegmentStream.h"

namespace vocari {

void SegmentStream::push(std::vector<float> segment)
{
    {
        std::lock_guard lock(m_lock);
        if (m_closed)
            return;
        m_segments.push_back(std::move(segment));
    }
    m_ready.notify_all();
}

void SegmentStream::close()
{
    {
        std::lock_guard lock(m_lock);
        m_closed = true;
    }
    m_ready.notify_all();
}

std::optional<std::vector<float>> SegmentStream::next(std::stop_token stop)
{
    std::unique_lock lock(m_lock);
    m_ready.wait(lock, stop, [this] { return !m_segments.empty() || m_closed; });
    if (stop.stop_requested() || m_segments.empty())
        return std::nullopt;
    std::vector<float> segment = std::move(m_segments.front());
    m_segments.pop_front();
    return segment;
}

} // namespace vocari
