#pragma once

#include "engines/AudioBuffer.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace vocari {

// An error whose message is meant for the user: it is shown as a one-line notice as it is.
class TranscriberError : public std::runtime_error
{
public:
    explicit TranscriberError(const QString &message)
        : std::runtime_error(message.toStdString())
    {
    }
    QString message() const { return QString::fromStdString(what()); }
};

// One speech engine, driven by a dictation: set the callbacks, await prepare(), feed every
// captured buffer from the audio thread, then either await finish() or call cancel(). A new
// dictation uses a new transcriber.
//
// The callbacks are invoked from the engine's own threads, never under one of its locks;
// callers that touch a user interface move the work to their main thread themselves. They
// may be replaced at any time from any thread.
class Transcriber
{
public:
    using TextCallback = std::function<void(const QString &)>;

    virtual ~Transcriber() = default;

    // The whole text recognised so far, provisional text included, whenever it changes.
    void setOnText(TextCallback callback);
    // Each newly committed phrase, on its own.
    void setOnCommit(TextCallback callback);
    // Progress to show while preparing.
    void setOnStatus(TextCallback callback);

    // What went wrong while transcribing after prepare() succeeded, if anything did.
    virtual std::optional<QString> failure() const = 0;

    // Gets the engine ready for audio; throws TranscriberError with a user-readable message.
    virtual QCoro::Task<> prepare() = 0;
    // Hands over one captured buffer in any format; returns at once.
    virtual void feed(const AudioBuffer &buffer) = 0;
    // Ends the audio, waits for the remaining recognition and returns the final text.
    virtual QCoro::Task<QString> finish() = 0;
    // Stops at once; nothing further is delivered.
    virtual void cancel() = 0;

protected:
    void deliverText(const QString &text) const;
    void deliverCommit(const QString &text) const;
    void deliverStatus(const QString &text) const;

private:
    void deliver(const TextCallback Transcriber::*slot, const QString &text) const;

    mutable std::mutex m_callbackLock;
    TextCallback m_onText;
    TextCallback m_onCommit;
    TextCallback m_onStatus;
};

} // namespace vocari
