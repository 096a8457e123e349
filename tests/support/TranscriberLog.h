#pragma once

// Everything a transcriber reports, in order, from whichever thread reports it.

#include "engines/Transcriber.h"

#include <QStringList>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vocari::test {

// Entries read "text: …", "commit: …" or "status: …".
class TranscriberLog
{
public:
    explicit TranscriberLog(Transcriber &transcriber)
    {
        transcriber.setOnText([this](const QString &text) { add("text: " + text); });
        transcriber.setOnCommit([this](const QString &text) { add("commit: " + text); });
        transcriber.setOnStatus([this](const QString &text) { add("status: " + text); });
    }

    void add(const QString &entry)
    {
        {
            std::lock_guard lock(m_lock);
            m_entries << entry;
        }
        m_changed.notify_all();
    }

    QStringList entries() const
    {
        std::lock_guard lock(m_lock);
        return m_entries;
    }

    // The texts of one kind ("text", "commit" or "status"), in order.
    QStringList texts(const QString &kind) const
    {
        QStringList out;
        for (const QString &entry : entries()) {
            if (entry.startsWith(kind + ": "))
                out << entry.mid(kind.size() + 2);
        }
        return out;
    }

    // Waits (generously, for slow sanitizer builds) until an entry of the kind has arrived.
    bool waitFor(const QString &kind)
    {
        std::unique_lock lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::minutes(2), [&] {
            return std::any_of(m_entries.begin(), m_entries.end(),
                               [&](const QString &e) { return e.startsWith(kind + ": "); });
        });
    }

private:
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    QStringList m_entries;
};

} // namespace vocari::test
