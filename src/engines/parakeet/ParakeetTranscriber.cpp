#include "engines/parakeet/ParakeetTranscriber.h"

#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/ParakeetRuntime.h"

#include <QCoroFuture>
#include <condition_variable>

namespace vocari {

namespace {

QString describe(const std::exception &error)
{
    if (const auto *userFacing = dynamic_cast<const TranscriberError *>(&error))
        return userFacing->message();
    return QString::fromUtf8(error.what());
}

// Sleeps for interval unless stop is requested first.
void sleepFor(std::chrono::milliseconds interval, std::stop_token stop)
{
    std::mutex lock;
    std::condition_variable_any never;
    std::unique_lock held(lock);
    never.wait_for(held, stop, interval, [] { return false; });
}

} // namespace

ParakeetTranscriber::ParakeetTranscriber(const QString &directory, bool eager)
    : ParakeetTranscriber(std::make_unique<RuntimeRecognizer>(ParakeetRuntime::shared(), directory),
                          eager, Options{})
{
}

ParakeetTranscriber::ParakeetTranscriber(std::unique_ptr<PhraseRecognizer> recognizer, bool eager,
                                         Options options)
    : m_recognizer(std::move(recognizer)), m_options(options), m_converter(kEngineFormat),
      m_resultFuture(m_result.future()),
      m_segmenter(eager, [this](std::vector<float> segment) { enqueue(std::move(segment)); })
{
}

ParakeetTranscriber::~ParakeetTranscriber()
{
    {
        std::lock_guard lock(m_lock);
        m_stopped = true;
        m_cancelled = true;
    }
    m_stream.close();
    // The threads are stopped and joined as members, before anything they use goes.
}

std::optional<QString> ParakeetTranscriber::failure() const
{
    std::lock_guard lock(m_lock);
    return m_failure;
}

QCoro::Task<> ParakeetTranscriber::prepare()
{
    if (m_prepared)
        co_return;
    m_prepared = true;
    m_recognizer->warmUp();
    m_result.start();
    m_consumer = std::jthread([this](std::stop_token stop) { consume(stop); });
    m_drafter = std::jthread([this](std::stop_token stop) { runDrafts(stop); });
    co_return;
}

void ParakeetTranscriber::feed(const AudioBuffer &buffer)
{
    const auto converted = m_converter.convert(buffer);
    if (!converted || converted->format().channels < 1)
        return;
    m_segmenter.append(converted->channel(0));
}

void ParakeetTranscriber::enqueue(std::vector<float> segment)
{
    // Called by the segmenter after it released its own lock.
    {
        std::lock_guard lock(m_lock);
        ++m_queued;
    }
    m_stream.push(std::move(segment));
}

QCoro::Task<QString> ParakeetTranscriber::finish()
{
    {
        std::lock_guard lock(m_lock);
        m_stopped = true;
    }
    m_drafter.request_stop();
    m_segmenter.flush();
    m_stream.close();
    if (!m_prepared)
        co_return QString();
    co_return co_await m_resultFuture;
}

void ParakeetTranscriber::cancel()
{
    {
        std::lock_guard lock(m_lock);
        m_stopped = true;
        m_cancelled = true;
    }
    m_drafter.request_stop();
    m_stream.close();
    m_consumer.request_stop();
}

QString ParakeetTranscriber::joinedParts() const
{
    return m_parts.join(u' ');
}

void ParakeetTranscriber::consume(std::stop_token stop)
{
    while (auto segment = m_stream.next(stop)) {
        QString text;
        try {
            PendingPhrase pending;
            m_recognizer->recognize(std::move(*segment), stop, pending.callback());
            text = pending.wait(stop);
        } catch (const TranscriptionCancelled &) {
            break;
        } catch (const std::exception &error) {
            // The phrase is lost; the dictation goes on with the next one.
            std::lock_guard lock(m_lock);
            --m_queued;
            m_failure = describe(error);
            continue;
        }

        QString joined;
        bool deliver = false;
        {
            std::lock_guard lock(m_lock);
            --m_queued;
            if (!text.isEmpty()) {
                m_parts << text;
                joined = joinedParts();
                deliver = !m_cancelled;
            }
        }
        if (deliver) {
            deliverText(joined);
            deliverCommit(text);
        }
    }

    std::lock_guard lock(m_lock);
    m_result.addResult(joinedParts());
    m_result.finish();
}

void ParakeetTranscriber::runDrafts(std::stop_token stop)
{
    const auto stopped = [this] {
        std::lock_guard lock(m_lock);
        return m_stopped;
    };
    while (!stop.stop_requested() && !stopped()) {
        sleepFor(m_options.draftInterval, stop);
        {
            std::lock_guard lock(m_lock);
            if (m_queued > 0 || m_stopped)
                continue;
        }
        // The phrase being assembled, once it has heard speech and holds at least 0.25 s,
        // copied together with the cut count it belongs to.
        auto draft = m_segmenter.snapshot(Segmenter::minSpeech);
        if (!draft)
            continue;

        QString text;
        try {
            PendingPhrase pending;
            m_recognizer->recognize(std::move(draft->samples), stop, pending.callback());
            text = pending.wait(stop);
        } catch (const TranscriptionCancelled &) {
            break;
        } catch (const std::exception &) {
            continue; // a failed draft is simply not shown
        }
        if (text.isEmpty())
            continue;

        QString shown;
        {
            std::lock_guard lock(m_lock);
            if (m_queued > 0 || m_stopped || stop.stop_requested())
                continue;
            shown = m_parts.isEmpty() ? text : joinedParts() + u' ' + text;
        }
        // A cut while the draft was made means it no longer describes the phrase in progress.
        if (m_segmenter.cuts() != draft->cuts)
            continue;
        deliverText(shown);
    }
}

} // namespace vocari
