#include "engines/system/SystemTranscriber.h"

#include "engines/system/SphinxDecoder.h"

#include <QCoro/QCoroFuture>
#include <QPromise>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>
#include <algorithm>
#include <chrono>
#include <cmath>

namespace vocari {

namespace {

using namespace std::chrono_literals;

// Loading the English model takes about half a second on a warm disk cache (a cached decoder
// none at all); a status line is only worth showing when it takes longer than that.
constexpr auto kSlowLoad = 500ms;
// The decoder is fed at most this many samples (0.1 s) at a time, so partial text stays live
// and a cancel is noticed quickly even when a large block was queued at once.
constexpr size_t kSliceSamples = 1600;

struct LoadedDecoder
{
    std::shared_ptr<SphinxDecoder> decoder;
    QString error;
};

LoadedDecoder loadDecoder(const std::shared_ptr<SphinxDecoderCache> &decoders,
                          const SphinxModel &model, const QStringList &vocabulary)
{
    QString error;
    std::shared_ptr<SphinxDecoder> decoder = decoders->acquire(model, &error);
    if (!decoder)
        return {nullptr, error};
    QStringList unknown;
    for (const QString &term : vocabulary) {
        const auto words = term.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (const QString &word : words) {
            if (!decoder->knowsWord(word))
                unknown << word;
        }
    }
    if (!unknown.isEmpty())
        qCDebug(lcSphinx) << "Vocabulary words the dictionary lacks, which cannot be recognised:"
                          << unknown;
    return {std::move(decoder), {}};
}

int16_t toSample(float value)
{
    return int16_t(std::lround(std::clamp(value, -1.0f, 1.0f) * 32767.0f));
}

} // namespace

SystemTranscriber::SystemTranscriber(QString locale, QStringList vocabulary, QStringList modelRoots,
                                     std::shared_ptr<SphinxDecoderCache> decoders)
    : m_locale(std::move(locale)), m_vocabulary(std::move(vocabulary)),
      m_modelRoots(std::move(modelRoots)), m_decoders(std::move(decoders)),
      m_spelling(m_vocabulary),
      m_results([this](const QString &text) { m_gate.run([&] { deliverText(text); }); },
                [this](const QString &text) { m_gate.run([&] { deliverCommit(text); }); })
{
}

SystemTranscriber::~SystemTranscriber()
{
    *m_alive = false;
    m_queue.abort();
    m_gate.close();
    if (m_decodingThread.joinable())
        m_decodingThread.join();
}

std::optional<QString> SystemTranscriber::failure() const
{
    std::lock_guard lock(m_failureLock);
    return m_failure;
}

QCoro::Task<> SystemTranscriber::prepare()
{
    if (m_cancelled || m_decodingThread.joinable())
        co_return;
    const auto model = SphinxModelFinder::find(m_locale, m_modelRoots);
    if (!model) {
        m_queue.abort();
        throw TranscriberError(
            QStringLiteral("Speech recognition is unavailable for this language."));
    }

    const auto alive = m_alive;
    QTimer slowLoad;
    slowLoad.setSingleShot(true);
    QObject::connect(&slowLoad, &QTimer::timeout, [this, alive] {
        if (*alive)
            m_gate.run([this] { deliverStatus(QStringLiteral("Loading speech model…")); });
    });
    slowLoad.start(kSlowLoad);
    // The future gets a statement of its own: GCC 12 miscompiles lambdas inside a co_await
    // operand (a captured copy was destroyed twice).
    QFuture<LoadedDecoder> loading =
        QtConcurrent::run(loadDecoder, m_decoders, *model, m_vocabulary);
    const LoadedDecoder loaded = co_await loading;
    if (!*alive)
        co_return;
    slowLoad.stop();

    if (!loaded.decoder) {
        m_queue.abort();
        throw TranscriberError(loaded.error);
    }
    if (!m_cancelled)
        startDecoding(loaded.decoder);
}

void SystemTranscriber::feed(const AudioBuffer &buffer)
{
    if (m_cancelled.load(std::memory_order_relaxed))
        return;
    const auto converted = m_converter.convert(buffer);
    if (!converted || converted->frameLength() == 0)
        return;
    const auto samples = converted->channel(0);
    SampleQueue::Block block(samples.size());
    std::transform(samples.begin(), samples.end(), block.begin(), toSample);
    m_queue.push(std::move(block));
}

QCoro::Task<QString> SystemTranscriber::finish()
{
    m_queue.close();
    if (m_decodingThread.joinable()) {
        const auto alive = m_alive;
        const QFuture<void> done = m_decodingDone;
        co_await done;
        if (!*alive)
            co_return QString();
        // The thread has signalled its very last step; joining it no longer waits.
        m_decodingThread.join();
    }
    co_return m_results.text();
}

void SystemTranscriber::cancel()
{
    m_cancelled = true;
    m_queue.abort();
    m_gate.close();
}

void SystemTranscriber::startDecoding(std::shared_ptr<SphinxDecoder> decoder)
{
    QPromise<void> done;
    m_decodingDone = done.future();
    done.start();
    m_decodingThread =
        std::thread([this, decoder = std::move(decoder), done = std::move(done)]() mutable {
            decode(*decoder);
            decoder.reset();
            done.finish();
        });
}

void SystemTranscriber::decode(SphinxDecoder &decoder)
{
    if (!decoder.startStream() || !decoder.startUtterance()) {
        fail(QStringLiteral("The speech decoder could not start."));
        return;
    }
    while (const auto block = m_queue.pop()) {
        if (!decodeBlock(decoder, *block))
            return;
    }
    if (m_queue.isAborted())
        return;
    // The audio has ended: whatever the user was still saying is final now.
    const bool ended = m_inSpeech ? finishUtterance(decoder) : decoder.endUtterance();
    if (!ended)
        fail(QStringLiteral("The speech decoder stopped with an error."));
}

bool SystemTranscriber::decodeBlock(SphinxDecoder &decoder, const SampleQueue::Block &block)
{
    const std::span<const int16_t> samples(block);
    for (size_t offset = 0; offset < samples.size(); offset += kSliceSamples) {
        if (m_queue.isAborted())
            return false;
        if (!decoder.process(
                samples.subspan(offset, std::min(kSliceSamples, samples.size() - offset)))) {
            fail(QStringLiteral("The speech decoder stopped with an error."));
            return false;
        }
        const bool inSpeech = decoder.inSpeech();
        if (inSpeech) {
            const QString words = m_spelling.apply(decoder.hypothesis());
            if (words != m_partial) {
                m_partial = words;
                m_results.apply(words, false);
            }
        } else if (m_inSpeech) {
            // Speech followed by enough silence: the utterance is over.
            if (!finishUtterance(decoder) || !decoder.startUtterance()) {
                fail(QStringLiteral("The speech decoder stopped with an error."));
                return false;
            }
        }
        m_inSpeech = inSpeech;
    }
    return true;
}

bool SystemTranscriber::finishUtterance(SphinxDecoder &decoder)
{
    if (!decoder.endUtterance())
        return false;
    const QString words = m_spelling.apply(decoder.hypothesis());
    if (!words.isEmpty()) {
        m_results.apply(words, true);
    } else if (!m_partial.isEmpty()) {
        // Noise that briefly looked like words: withdraw the provisional text rather than
        // finalising an empty phrase, which would leave a stray space inside the text.
        m_results.apply(QString(), false);
    }
    m_partial.clear();
    m_inSpeech = false;
    return true;
}

void SystemTranscriber::fail(const QString &reason)
{
    qCWarning(lcSphinx) << reason;
    {
        std::lock_guard lock(m_failureLock);
        m_failure = reason;
    }
    m_queue.abort();
}

std::unique_ptr<Transcriber> makeSystemTranscriber(const QString &locale,
                                                   const QStringList &vocabulary)
{
    return std::make_unique<SystemTranscriber>(locale, vocabulary);
}

void warmSystemEngine(const QString &locale)
{
    // The decoder is lent for the moment of loading only; it then waits in the cache.
    (void)QtConcurrent::run([locale] {
        if (const std::optional<SphinxModel> model = SphinxModelFinder::find(locale))
            SphinxDecoderCache::shared()->acquire(*model);
    });
}

} // namespace vocari
