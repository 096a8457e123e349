#include "engines/parakeet/SerialWorker.h"

#include <pthread.h>
#include <string>

namespace vocari {

SerialWorker::SerialWorker(const char *threadName) : m_thread([this] { run(); })
{
    // Linux limits thread names to 15 characters.
    pthread_setname_np(m_thread.native_handle(), std::string(threadName).substr(0, 15).c_str());
}

SerialWorker::~SerialWorker()
{
    {
        std::lock_guard lock(m_lock);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void SerialWorker::post(Job job)
{
    {
        std::lock_guard lock(m_lock);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_all();
}

void SerialWorker::schedule(Clock::duration delay, Job job)
{
    {
        std::lock_guard lock(m_lock);
        m_deadline = Clock::now() + delay;
        m_scheduled = std::move(job);
    }
    m_wake.notify_all();
}

void SerialWorker::cancelScheduled()
{
    Job dropped;
    {
        std::lock_guard lock(m_lock);
        m_deadline.reset();
        dropped = std::move(m_scheduled);
    }
}

bool SerialWorker::hasScheduled() const
{
    std::lock_guard lock(m_lock);
    return m_deadline.has_value();
}

void SerialWorker::run()
{
    std::unique_lock lock(m_lock);
    while (true) {
        if (m_stopping)
            break;
        Job job;
        if (!m_jobs.empty()) {
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        } else if (m_deadline && Clock::now() >= *m_deadline) {
            m_deadline.reset();
            job = std::move(m_scheduled);
        } else if (m_deadline) {
            m_wake.wait_until(lock, *m_deadline);
            continue;
        } else {
            m_wake.wait(lock);
            continue;
        }
        lock.unlock();
        job();
        job = nullptr; // whatever it captured is released outside the lock too
        lock.lock();
    }
    // Dropped jobs may own promises whose destruction wakes waiters: release them unlocked.
    std::deque<Job> dropped = std::move(m_jobs);
    Job scheduled = std::move(m_scheduled);
    lock.unlock();
}

} // namespace vocari
