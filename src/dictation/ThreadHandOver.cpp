#include "dictation/ThreadHandOver.h"

#include <QCoreApplication>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
#endif

namespace vocari::ThreadHandOver {

namespace {

void markHandedOver([[maybe_unused]] void *event)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(event);
#endif
}

void markTakenOver([[maybe_unused]] void *event)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(event);
#endif
}

// Lives on the main thread for the rest of the process, so that posting to it never races
// with its destruction.
Receiver *mainThreadReceiver()
{
    static Receiver *const receiver = [] {
        auto *created = new Receiver;
        if (const QCoreApplication *app = QCoreApplication::instance())
            created->moveToThread(app->thread());
        return created;
    }();
    return receiver;
}

} // namespace

FunctionEvent::FunctionEvent(std::function<void()> function)
    : QEvent(eventType()), m_function(std::move(function))
{
}

FunctionEvent::~FunctionEvent()
{
    // Also when the event is dropped unrun: its function is destroyed here.
    markTakenOver(this);
}

QEvent::Type FunctionEvent::eventType()
{
    static const auto type = QEvent::Type(QEvent::registerEventType());
    return type;
}

void FunctionEvent::run()
{
    if (m_function)
        m_function();
}

void post(QObject *receiver, std::function<void()> function)
{
    auto *event = new FunctionEvent(std::move(function));
    markHandedOver(event);
    QCoreApplication::postEvent(receiver, event);
}

void postToMainThread(std::function<void()> function)
{
    post(mainThreadReceiver(), std::move(function));
}

bool Receiver::event(QEvent *event)
{
    // Before anything of the event is read; for other events the mark is harmless.
    markTakenOver(event);
    if (event->type() != FunctionEvent::eventType())
        return QObject::event(event);
    static_cast<FunctionEvent *>(event)->run();
    return true;
}

} // namespace vocari::ThreadHandOver
