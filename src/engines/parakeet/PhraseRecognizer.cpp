#include "engines/parakeet/PhraseRecognizer.h"

#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/ParakeetRuntime.h"

namespace vocari {

RuntimeRecognizer::RuntimeRecognizer(ParakeetRuntime &runtime, QString directory)
    : m_runtime(runtime), m_directory(std::move(directory))
{
}

void RuntimeRecognizer::warmUp()
{
    m_runtime.warmUp(m_directory);
}

void RuntimeRecognizer::recognize(std::vector<float> samples, std::stop_token stop,
                                  PhraseCallback done)
{
    m_runtime.transcribe(std::move(samples), m_directory, std::move(stop),
                         [done = std::move(done)](const ParakeetRuntime::Transcription &result,
                                                  std::exception_ptr error) {
                             done({result.text, error});
                         });
}

PendingPhrase::PendingPhrase() : m_shared(std::make_shared<Shared>()) {}

PhraseCallback PendingPhrase::callback() const
{
    return [shared = m_shared](PhraseResult result) {
        {
            std::lock_guard lock(shared->lock);
            shared->result = std::move(result);
        }
        shared->arrived.notify_all();
    };
}

QString PendingPhrase::wait(std::stop_token stop)
{
    std::unique_lock lock(m_shared->lock);
    if (!m_shared->arrived.wait(lock, stop, [this] { return m_shared->result.has_value(); }))
        throw TranscriptionCancelled();
    if (m_shared->result->error)
        std::rethrow_exception(m_shared->result->error);
    return m_shared->result->text;
}

} // namespace vocari
