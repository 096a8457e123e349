#pragma once

#include "engines/Transcriber.h"

#include <exception>

namespace vocari {

// A model folder, file or network that cannot be used; the message names the file or tensor.
class ModelLoadError : public TranscriberError
{
public:
    using TranscriberError::TranscriberError;
};

// A network that failed while running; the message names the network.
class InferenceError : public TranscriberError
{
public:
    using TranscriberError::TranscriberError;
};

// A network that ran but answered with something the decoder cannot use.
class RuntimeError : public TranscriberError
{
public:
    enum class Kind
    {
        BadOutput
    };

    // "The speech model returned an unexpected result."; the detail only goes to the log.
    static RuntimeError badOutput(const QString &detail);

    Kind kind() const { return m_kind; }

private:
    RuntimeError(Kind kind, const QString &message);

    Kind m_kind;
};

// The caller stopped waiting for the result; nothing is returned.
class TranscriptionCancelled : public std::exception
{
public:
    const char *what() const noexcept override { return "The transcription was cancelled."; }
};

} // namespace vocari
