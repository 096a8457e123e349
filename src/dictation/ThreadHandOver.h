#pragma once

#include <QEvent>
#include <QObject>
#include <functional>

namespace vocari {

// Hands work from one thread to another through Qt's event queue.
//
// Qt's queue synchronises through futexes that ThreadSanitizer cannot see, so in a
// sanitizer build every object passed along it would look like a data race. Each event is
// therefore marked as handed over when it is posted and as taken over when it runs, which
// the sanitizer understands; in other builds the marks compile to nothing.
namespace ThreadHandOver {

// An event that carries a function to run on the receiving thread.
class FunctionEvent : public QEvent
{
public:
    explicit FunctionEvent(std::function<void()> function);
    ~FunctionEvent() override;
    static QEvent::Type eventType();

    // Runs the function; called by the receiver when the event arrives.
    void run();

private:
    std::function<void()> m_function;
};

// Posts the function to the receiver's thread, after the events posted to it before. The
// receiver's event() passes FunctionEvents to run() (see Receiver).
void post(QObject *receiver, std::function<void()> function);

// Runs the function on the application's main thread, after everything posted there before
// it from the same thread. Safe to call from any thread.
void postToMainThread(std::function<void()> function);

// A QObject whose event() runs FunctionEvents.
class Receiver : public QObject
{
public:
    using QObject::QObject;
    bool event(QEvent *event) override;
};

} // namespace ThreadHandOver
} // namespace vocari
