#include "engines/system/IdleTimer.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace vocari {

namespace {

class ThreadIdleTimer final : public IdleTimer
{
public:
    ~ThreadIdleTimer() override
    {
        {
            std::lock_guard lock(m_state->lock);
            m_state->stopping = true;
            m_state->callback = nullptr;
        }
        m_state->wake.notify_all();
        if (!m_thread.joinable())
            return;
        // The callback may drop the last owner of this timer on its own thread; joining would
        // then wait for itself. The thread owns its state, so it can finish on its own.
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }

    void start(std::chrono::milliseconds delay, Callback callback) override
    {
        {
            std::lock_guard lock(m_state->lock);
            m_state->deadline = Clock::now() + delay;
            m_state->callback = std::move(callback);
            if (!m_thread.joinable())
                m_thread = std::thread([state = m_state] { run(*state); });
        }
        m_state->wake.notify_all();
    }

    void stop() override
    {
        std::lock_guard lock(m_state->lock);
        m_state->deadline.reset();
        m_state->callback = nullptr;
    }

private:
    using Clock = std::chrono::steady_clock;

    struct State
    {
        std::mutex lock;
        std::condition_variable wake;
        std::optional<Clock::time_point> deadline;
        Callback callback;
        bool stopping = false;
    };

    static void run(State &state)
    {
        std::unique_lock lock(state.lock);
        while (!state.stopping) {
            if (!state.deadline) {
                state.wake.wait(lock);
                continue;
            }
            if (state.wake.wait_until(lock, *state.deadline) != std::cv_status::timeout)
                continue; // started again, stopped or stopping: look at the state anew
            if (!state.deadline || Clock::now() < *state.deadline)
                continue;
            state.deadline.reset();
            Callback callback = std::move(state.callback);
            state.callback = nullptr;
            lock.unlock();
            if (callback)
                callback();
            lock.lock();
        }
    }

    std::shared_ptr<State> m_state = std::make_shared<State>();
    std::thread m_thread;
};

} // namespace

std::unique_ptr<IdleTimer> makeThreadIdleTimer()
{
    return std::make_unique<ThreadIdleTimer>();
}

} // namespace vocari
