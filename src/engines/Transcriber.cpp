#include "engines/Transcriber.h"

namespace vocari {

void Transcriber::setOnText(TextCallback callback)
{
    std::lock_guard lock(m_callbackLock);
    m_onText = std::move(callback);
}

void Transcriber::setOnCommit(TextCallback callback)
{
    std::lock_guard lock(m_callbackLock);
    m_onCommit = std::move(callback);
}

void Transcriber::setOnStatus(TextCallback callback)
{
    std::lock_guard lock(m_callbackLock);
    m_onStatus = std::move(callback);
}

void Transcriber::deliverText(const QString &text) const
{
    deliver(&Transcriber::m_onText, text);
}

void Transcriber::deliverCommit(const QString &text) const
{
    deliver(&Transcriber::m_onCommit, text);
}

void Transcriber::deliverStatus(const QString &text) const
{
    deliver(&Transcriber::m_onStatus, text);
}

void Transcriber::deliver(const TextCallback Transcriber::*slot, const QString &text) const
{
    // Copy under the lock, call outside it: a callback may replace the callbacks itself.
    TextCallback callback;
    {
        std::lock_guard lock(m_callbackLock);
        callback = this->*slot;
    }
    if (callback)
        callback(text);
}

} // namespace vocari
