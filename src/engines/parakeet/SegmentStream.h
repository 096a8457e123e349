#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace vocari {

// An unbounded first-in first-out queue of phrases from the segmenter to the transcriber's
// consumer: a phrase is never dropped for lack of room (the segmenter keeps each below 15 s).
class SegmentStream
{
public:
    // Adds a phrase; after close() it is dropped.
    void push(std::vector<float> segment);
    // Ends the stream: next() hands out what is queued, then nothing.
    void close();
    // The next phrase, waiting for one; none once the stream is closed and empty, or when stop
    // is requested.
    std::optional<std::vector<float>> next(std::stop_token stop);

private:
    std::mutex m_lock;
    std::condition_variable_any m_ready;
    std::deque<std::vector<float>> m_segments;
    bool m_closed = false;
};

} // namespace vocari
