#include "dictation/Clock.h"

namespace vocari {

namespace {
class SystemClock final : public Clock
{
public:
    QDateTime now() const override { return QDateTime::currentDateTime(); }
    std::chrono::steady_clock::time_point steadyNow() const override
    {
        return std::chrono::steady_clock::now();
    }
};
} // namespace

std::shared_ptr<const Clock> Clock::system()
{
    static const auto clock = std::make_shared<const SystemClock>();
    return clock;
}

} // namespace vocari
