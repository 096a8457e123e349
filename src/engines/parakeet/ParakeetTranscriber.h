#pragma once

#include "engines/PCMConverter.h"
#include "engines/Transcriber.h"
#include "engines/parakeet/PhraseRecognizer.h"
#include "engines/parakeet/SegmentStream.h"
#include "engines/parakeet/Segmenter.h"

#include <QFuture>
#include <QPromise>
#include <QStringList>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace vocari {

// The transcriber for a local Parakeet model. Captured audio is converted to 16 kHz mono and
// cut into phrases at pauses; each phrase is transcribed as soon as it is cut, so that only the
// last one remains when the user stops speaking. Committed phrases are joined with single
// spaces. While the user is still speaking, a drafter shows a provisional transcription of the
// unfinished phrase every 0.7 s.
//
// Threads: feed() runs on the audio thread; a consumer thread transcribes the phrases in
// order and a drafter thread makes the drafts, both started by prepare(); finish() and cancel()
// come from the session. The segmenter and the shared state have one lock each and never hold
// both at once; no callback is called under a lock.
class ParakeetTranscriber final : public Transcriber
{
public:
    struct Options
    {
        std::chrono::milliseconds draftInterval{700};
    };

    // A transcriber for the model in directory, on the shared runtime. eager cuts phrases
    // sooner (for live typing).
    ParakeetTranscriber(const QString &directory, bool eager);
    ParakeetTranscriber(std::unique_ptr<PhraseRecognizer> recognizer, bool eager, Options options);
    ~ParakeetTranscriber() override;

    std::optional<QString> failure() const override;
    // Starts the warm-up, the consumer and the drafter; never throws.
    QCoro::Task<> prepare() override;
    void feed(const AudioBuffer &buffer) override;
    QCoro::Task<QString> finish() override;
    void cancel() override;

private:
    void enqueue(std::vector<float> segment);
    void consume(std::stop_token stop);
    void runDrafts(std::stop_token stop);
    QString joinedParts() const; // with m_lock held

    const std::unique_ptr<PhraseRecognizer> m_recognizer;
    const Options m_options;
    PCMConverter m_converter; // audio thread only
    SegmentStream m_stream;

    mutable std::mutex m_lock; // guards the fields below
    QStringList m_parts;
    int m_queued = 0; // phrases handed to the stream and not yet transcribed
    bool m_stopped = false;
    bool m_cancelled = false;
    std::optional<QString> m_failure;

    QPromise<QString> m_result; // the consumer's final text
    QFuture<QString> m_resultFuture;
    bool m_prepared = false;

    Segmenter m_segmenter;
    // Last, so that they stop and join before anything they use is destroyed.
    std::jthread m_consumer;
    std::jthread m_drafter;
};

} // namespace vocari
