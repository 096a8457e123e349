#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vocari {

// Lets callbacks through until it is closed. Closing waits for the callbacks already running
// on other threads, so once close() returns none is running and none will start. A callback
// that closes the gate itself is not waited for (it is the caller), so cancelling from inside
// a callback cannot deadlock. No lock is held while a callback runs.
class DeliveryGate
{
public:
    // Runs the call unless the gate is closed; returns whether it ran.
    bool run(const std::function<void()> &call);
    void close();
    bool isClosed() const;

private:
    bool othersRunning() const;

    mutable std::mutex m_lock;
    std::condition_variable m_finished;
    bool m_closed = false;
    std::vector<std::thread::id> m_running; // one entry per call in progress
};

} // namespace vocari
