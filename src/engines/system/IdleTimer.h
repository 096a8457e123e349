#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vocari {

// Calls a function once after a delay, unless started again or stopped first. The call comes
// from a thread of the timer's own; stop() does not wait for a call already under way, so a
// caller must be ready for a late one.
class IdleTimer
{
public:
    using Callback = std::function<void()>;

    virtual ~IdleTimer() = default;
    virtual void start(std::chrono::milliseconds delay, Callback callback) = 0;
    virtual void stop() = 0;
};

// The timer of the running program: one sleeping thread, started on first use.
std::unique_ptr<IdleTimer> makeThreadIdleTimer();

} // namespace vocari
