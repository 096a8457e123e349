#pragma once

#include <QByteArray>
#include <QString>
#include <functional>
#include <thread>

namespace vocari {

// Calls a handler, on a thread of its own, whenever the kernel reports memory pressure through
// a pressure-stall-information trigger (by default: tasks stalled on memory for 150 ms within
// any 2 s). Where the kernel offers no such file or refuses the trigger, the monitor stays
// inactive and never calls.
class MemoryPressureMonitor
{
public:
    using Handler = std::function<void()>;

    static constexpr const char *defaultPath = "/proc/pressure/memory";
    static constexpr const char *defaultTrigger = "some 150000 2000000";

    explicit MemoryPressureMonitor(Handler handler,
                                   const QString &path = QString::fromLatin1(defaultPath),
                                   const QByteArray &trigger = defaultTrigger);
    ~MemoryPressureMonitor();
    MemoryPressureMonitor(const MemoryPressureMonitor &) = delete;
    MemoryPressureMonitor &operator=(const MemoryPressureMonitor &) = delete;

    bool isActive() const { return m_thread.joinable(); }

private:
    void watch();

    Handler m_handler;
    int m_pressureFd = -1;
    int m_wakeFd = -1;
    std::thread m_thread;
};

} // namespace vocari
