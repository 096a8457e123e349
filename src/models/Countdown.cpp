#include "models/Countdown.h"

#include <QTimer>

namespace vocari {

namespace {

class TimerCountdown : public Countdown
{
public:
    explicit TimerCountdown(QObject *parent) : Countdown(parent)
    {
        m_timer.setSingleShot(true);
        connect(&m_timer, &QTimer::timeout, this, &Countdown::expired);
    }
    void start(std::chrono::milliseconds interval) override { m_timer.start(interval); }
    void stop() override { m_timer.stop(); }

private:
    QTimer m_timer;
};

} // namespace

CountdownFactory timerCountdowns()
{
    return [](QObject *parent) -> Countdown * { return new TimerCountdown(parent); };
}

} // namespace vocari
