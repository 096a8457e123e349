#include "engines/MemoryPressureMonitor.h"

#include <QLoggingCategory>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace vocari {

Q_LOGGING_CATEGORY(lcMemoryPressure, "vocari.engine.memory", QtInfoMsg)

MemoryPressureMonitor::MemoryPressureMonitor(Handler handler, const QString &path,
                                             const QByteArray &trigger)
    : m_handler(std::move(handler))
{
    m_pressureFd = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_pressureFd < 0) {
        qCDebug(lcMemoryPressure) << "no memory pressure information at" << path;
        return;
    }
    // The trigger is written with its terminating NUL, as the kernel documentation shows.
    if (::write(m_pressureFd, trigger.constData(), size_t(trigger.size()) + 1) < 0) {
        qCDebug(lcMemoryPressure) << "memory pressure trigger refused:" << strerror(errno);
        ::close(m_pressureFd);
        m_pressureFd = -1;
        return;
    }
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC);
    if (m_wakeFd < 0) {
        ::close(m_pressureFd);
        m_pressureFd = -1;
        return;
    }
    m_thread = std::thread([this] { watch(); });
}

MemoryPressureMonitor::~MemoryPressureMonitor()
{
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(m_wakeFd, &one, sizeof one);
        m_thread.join();
    }
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
    if (m_pressureFd >= 0)
        ::close(m_pressureFd);
}

void MemoryPressureMonitor::watch()
{
    pollfd fds[2] = {{m_pressureFd, POLLPRI, 0}, {m_wakeFd, POLLIN, 0}};
    while (true) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents)
            return; // asked to stop
        if (fds[0].revents & POLLERR)
            return; // the trigger is gone
        if (fds[0].revents & POLLPRI)
            m_handler();
    }
}

} // namespace vocari
