#pragma once

#include "engines/PCMConverter.h"
#include "engines/Transcriber.h"
#include "engines/system/DeliveryGate.h"
#include "engines/system/ResultRelay.h"
#include "engines/system/SampleQueue.h"
#include "engines/system/SphinxDecoderCache.h"
#include "engines/system/SphinxModel.h"
#include "engines/system/VocabularySpelling.h"

#include <QFuture>
#include <QStringList>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

namespace vocari {

class SphinxDecoder;

// The built-in engine: PocketSphinx from the system's packages, with live text while the user
// speaks. Captured audio is converted to 16 kHz mono 16-bit samples and queued for a decoding
// thread of its own; the decoder's partial hypotheses become provisional text, and each
// utterance it detects as ended (speech followed by about half a second of silence) becomes a
// final phrase.
//
// Vocabulary: PocketSphinx recognises only the words of its pronunciation dictionary (about
// 126 000 for English, many names and technical words among them), and Debian's English
// language model covers every one of them, so a term made of dictionary words needs nothing
// to be heard. The list is used to write such terms as the user spells them ("GitHub",
// "New York"); a term with a word the dictionary lacks cannot be recognised and is ignored
// (the debug log names such words).
//
// The decoder comes from a process-wide cache, so only the first dictation in a language (or
// the first after an hour's pause) waits for the model to load.
//
// The transcriber must outlive the tasks returned by prepare() and finish(), and must not be
// destroyed from inside one of its own callbacks.
class SystemTranscriber final : public Transcriber
{
public:
    SystemTranscriber(QString locale, QStringList vocabulary,
                      QStringList modelRoots = SphinxModelFinder::defaultRoots(),
                      std::shared_ptr<SphinxDecoderCache> decoders = SphinxDecoderCache::shared());
    ~SystemTranscriber() override;

    std::optional<QString> failure() const override;
    QCoro::Task<> prepare() override;
    void feed(const AudioBuffer &buffer) override;
    QCoro::Task<QString> finish() override;
    void cancel() override;

private:
    void startDecoding(std::shared_ptr<SphinxDecoder> decoder);
    void decode(SphinxDecoder &decoder);
    bool decodeBlock(SphinxDecoder &decoder, const SampleQueue::Block &block);
    bool finishUtterance(SphinxDecoder &decoder);
    void fail(const QString &reason);

    const QString m_locale;
    const QStringList m_vocabulary;
    const QStringList m_modelRoots;
    const std::shared_ptr<SphinxDecoderCache> m_decoders;
    const VocabularySpelling m_spelling;

    PCMConverter m_converter{kEngineFormat}; // used by feed() only
    SampleQueue m_queue;
    DeliveryGate m_gate;
    ResultRelay m_results;

    // Decoding thread's own state.
    bool m_inSpeech = false;
    QString m_partial;

    mutable std::mutex m_failureLock;
    std::optional<QString> m_failure;

    std::atomic<bool> m_cancelled{false};
    // Cleared by the destructor; a prepare() still waiting for the model checks it on resuming.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
    QFuture<void> m_decodingDone;
    std::thread m_decodingThread;
};

// The built-in engine for a recognition language and the user's vocabulary.
std::unique_ptr<Transcriber> makeSystemTranscriber(const QString &locale,
                                                   const QStringList &vocabulary);

// Loads the language's decoder into the shared cache in the background, so that the first
// dictation does not wait for it.
void warmSystemEngine(const QString &locale);

} // namespace vocari
