#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace vocari {

// One thread that runs jobs one at a time in the order they were posted, plus one delayed job
// that a later schedule replaces. Jobs still queued when the worker is destroyed are dropped
// without running; the job in progress finishes first.
class SerialWorker
{
public:
    using Job = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    explicit SerialWorker(const char *threadName);
    ~SerialWorker();
    SerialWorker(const SerialWorker &) = delete;
    SerialWorker &operator=(const SerialWorker &) = delete;

    void post(Job job);
    // Runs job on the worker after delay unless rescheduled or cancelled first.
    void schedule(Clock::duration delay, Job job);
    void cancelScheduled();
    bool hasScheduled() const;

    bool isCurrentThread() const { return std::this_thread::get_id() == m_thread.get_id(); }

private:
    void run();

    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::deque<Job> m_jobs;
    std::optional<Clock::time_point> m_deadline;
    Job m_scheduled;
    bool m_stopping = false;
    std::thread m_thread; // last: starts once everything above exists
};

} // namespace vocari
