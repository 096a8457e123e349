#pragma once

#include <QDateTime>
#include <chrono>
#include <memory>

namespace vocari {

// Where a dictation reads the time: the wall clock for how long the user spoke and for the
// preview's deadline, the monotonic clock for the timing log.
class Clock
{
public:
    virtual ~Clock() = default;

    virtual QDateTime now() const = 0;
    virtual std::chrono::steady_clock::time_point steadyNow() const = 0;

    // The system's clocks.
    static std::shared_ptr<const Clock> system();
};

} // namespace vocari
