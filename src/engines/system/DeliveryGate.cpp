#include "engines/system/DeliveryGate.h"

#include <algorithm>

namespace vocari {

bool DeliveryGate::run(const std::function<void()> &call)
{
    const auto self = std::this_thread::get_id();
    {
        std::lock_guard lock(m_lock);
        if (m_closed)
            return false;
        m_running.push_back(self);
    }
    // Leave the gate whatever the call does, or close() would wait forever.
    struct Leave
    {
        DeliveryGate &gate;
        std::thread::id self;
        ~Leave()
        {
            std::lock_guard lock(gate.m_lock);
            gate.m_running.erase(std::find(gate.m_running.begin(), gate.m_running.end(), self));
            gate.m_finished.notify_all();
        }
    } leave{*this, self};
    call();
    return true;
}

void DeliveryGate::close()
{
    std::unique_lock lock(m_lock);
    m_closed = true;
    m_finished.wait(lock, [this] { return !othersRunning(); });
}

bool DeliveryGate::isClosed() const
{
    std::lock_guard lock(m_lock);
    return m_closed;
}

bool DeliveryGate::othersRunning() const
{
    const auto self = std::this_thread::get_id();
    return std::any_of(m_running.begin(), m_running.end(),
                       [&](std::thread::id id) { return id != self; });
}

} // namespace vocari
