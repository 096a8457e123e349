#pragma once

#include <QObject>
#include <chrono>
#include <functional>

namespace vocari {

// A restartable single-shot wait. A download takes its waits (the pause before a retry, the
// give-up time of a silent transfer) from a CountdownFactory, so that a test can see which
// intervals are used and end a wait itself instead of sleeping through it.
class Countdown : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    // Starts the wait anew, dropping one that is running.
    virtual void start(std::chrono::milliseconds interval) = 0;
    virtual void stop() = 0;

signals:
    void expired();
};

// Makes a countdown owned by parent.
using CountdownFactory = std::function<Countdown *(QObject *parent)>;

// Countdowns on QTimer, in the event loop of the thread that makes them.
CountdownFactory timerCountdowns();

} // namespace vocari
