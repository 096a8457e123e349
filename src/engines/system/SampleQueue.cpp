#include "engines/system/SampleQueue.h"

namespace vocari {

bool SampleQueue::push(Block block)
{
    {
        std::lock_guard lock(m_lock);
        if (m_closed || m_aborted)
            return false;
        m_blocks.push_back(std::move(block));
    }
    m_changed.notify_one();
    return true;
}

std::optional<SampleQueue::Block> SampleQueue::pop()
{
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [this] { return m_aborted || m_closed || !m_blocks.empty(); });
    if (m_aborted || m_blocks.empty())
        return std::nullopt;
    Block block = std::move(m_blocks.front());
    m_blocks.pop_front();
    return block;
}

void SampleQueue::close()
{
    {
        std::lock_guard lock(m_lock);
        m_closed = true;
    }
    m_changed.notify_all();
}

void SampleQueue::abort()
{
    std::deque<Block> dropped;
    {
        std::lock_guard lock(m_lock);
        m_aborted = true;
        dropped.swap(m_blocks); // freed outside the lock
    }
    m_changed.notify_all();
}

bool SampleQueue::isAborted() const
{
    std::lock_guard lock(m_lock);
    return m_aborted;
}

} // namespace vocari
