#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace vocari {

// Hands blocks of 16-bit samples from the thread that captures audio to the decoding thread.
// Pushing only moves a block into the queue under a short lock, so the capturing thread never
// waits for decoding. Closing lets the consumer drain what is left; aborting drops it.
class SampleQueue
{
public:
    using Block = std::vector<int16_t>;

    // False, and the block is dropped, once the queue is closed or aborted.
    bool push(Block block);
    // The next block, waiting for one; none once the queue is closed and empty, or aborted.
    std::optional<Block> pop();
    // No more blocks will come.
    void close();
    // Stop now: pending blocks are dropped and pop() returns none at once.
    void abort();
    bool isAborted() const;

private:
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Block> m_blocks;
    bool m_closed = false;
    bool m_aborted = false;
};

} // namespace vocari
