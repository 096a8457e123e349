#pragma once

#include <QString>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace vocari {

class ParakeetRuntime;

// What became of one phrase: its text, or the error that stopped it.
struct PhraseResult
{
    QString text;
    std::exception_ptr error;
};
using PhraseCallback = std::function<void(PhraseResult)>;

// What a Parakeet transcriber needs of the model: text for one phrase of 16 kHz mono samples,
// delivered later, and a way to get the model ready before the first phrase.
class PhraseRecognizer
{
public:
    virtual ~PhraseRecognizer() = default;

    // Starts loading the model; failures are ignored (the first phrase reports them).
    virtual void warmUp() = 0;
    // Recognises one phrase and calls done exactly once, on any thread. A stop request cancels
    // the work (done then gets TranscriptionCancelled).
    virtual void recognize(std::vector<float> samples, std::stop_token stop,
                           PhraseCallback done) = 0;
};

// The shared runtime with the networks of one model folder.
class RuntimeRecognizer final : public PhraseRecognizer
{
public:
    RuntimeRecognizer(ParakeetRuntime &runtime, QString directory);

    void warmUp() override;
    void recognize(std::vector<float> samples, std::stop_token stop, PhraseCallback done) override;

private:
    ParakeetRuntime &m_runtime;
    const QString m_directory;
};

// One phrase's result on its way from the thread that computes it to the one that waits. The
// waiter may give up; a result that arrives after that is dropped.
class PendingPhrase
{
public:
    PendingPhrase();

    // What to hand to PhraseRecognizer::recognize().
    PhraseCallback callback() const;
    // The text, waiting for it; rethrows the phrase's error, or throws TranscriptionCancelled
    // when stop is requested first.
    QString wait(std::stop_token stop);

private:
    struct Shared
    {
        std::mutex lock;
        std::condition_variable_any arrived;
        std::optional<PhraseResult> result;
    };
    std::shared_ptr<Shared> m_shared;
};

} // namespace vocari
