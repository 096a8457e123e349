#pragma once

// Running the event loop from a test while it waits for something to happen.

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>
#include <chrono>

namespace vocari::test {

// Runs the event loop until `done` holds or the limit passes; returns whether it holds. Limits
// are far beyond what a condition needs, so that only a missing event fails a test.
template <typename Predicate>
bool waitUntil(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const QDeadlineTimer deadline(limit);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return true;
}

// Runs the event loop for a while, for real timers and sleeps.
inline void spin(std::chrono::milliseconds duration)
{
    waitUntil([] { return false; }, duration);
}

} // namespace vocari::test
