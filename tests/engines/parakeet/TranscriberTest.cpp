#include "ParakeetFixtures.h"
#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/ParakeetRuntime.h"
#include "engines/parakeet/ParakeetTranscriber.h"
#include "support/EventLoop.h"
#include "support/TranscriberLog.h"

#include <QCoroTask>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <gtest/gtest.h>
#include <numbers>
#include <thread>

using namespace vocari;
using namespace vocari::test;
using namespace std::chrono_literals;

namespace {

// Feeds samples as a capture device would: 2048-frame buffers of interleaved audio.
void feedAudio(Transcriber &transcriber, const std::vector<float> &mono, double rate = 16000,
               int channels = 1)
{
    std::vector<float> interleaved;
    for (float sample : mono)
        interleaved.insert(interleaved.end(), size_t(channels), sample);
    const std::span all(interleaved);
    for (size_t at = 0, step = 2048 * size_t(channels); at < all.size(); at += step)
        transcriber.feed(AudioBuffer::fromInterleaved(
            {rate, channels}, all.subspan(at, std::min(step, all.size() - at))));
}

// A 600 Hz tone (speech to the segmenter), or silence, at 16 kHz.
std::vector<float> tone(double seconds, float amplitude = 0.3f)
{
    std::vector<float> out(size_t(seconds * 16000));
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = amplitude * float(std::sin(2 * std::numbers::pi * 600 * double(i) / 16000));
    return out;
}

std::vector<float> silence(double seconds)
{
    return tone(seconds, 0.0f);
}

std::vector<float> operator+(std::vector<float> a, const std::vector<float> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Phrase requests that the test answers itself, in the order they come. recognizer() makes
// recognizers that forward to the script, which outlives the transcriber that uses one.
class Script : public std::enable_shared_from_this<Script>
{
public:
    struct Request
    {
        std::vector<float> samples;
        std::stop_token stop;
        PhraseCallback done;

        void answer(const QString &text) { done({text, nullptr}); }
        void fail(const QString &message)
        {
            done({{}, std::make_exception_ptr(TranscriberError(message))});
        }
    };

    std::unique_ptr<PhraseRecognizer> recognizer()
    {
        return std::make_unique<Forward>(shared_from_this());
    }
    // The next request not yet taken, waiting for it (bounded).
    std::optional<Request> next()
    {
        std::unique_lock lock(m_lock);
        if (!m_changed.wait_for(lock, 20s, [this] { return !m_requests.empty(); }))
            return std::nullopt;
        Request request = std::move(m_requests.front());
        m_requests.pop_front();
        return request;
    }
    // Answers the next request; false if none came.
    bool answerNext(const QString &text)
    {
        auto request = next();
        if (request)
            request->answer(text);
        return bool(request);
    }
    size_t pending()
    {
        std::lock_guard lock(m_lock);
        return m_requests.size();
    }

    std::atomic<int> warmUps = 0;

private:
    struct Forward : PhraseRecognizer
    {
        explicit Forward(std::shared_ptr<Script> script) : script(std::move(script)) {}
        void warmUp() override { ++script->warmUps; }
        void recognize(std::vector<float> samples, std::stop_token stop,
                       PhraseCallback done) override
        {
            std::lock_guard lock(script->m_lock);
            script->m_requests.push_back({std::move(samples), stop, std::move(done)});
            script->m_changed.notify_all();
        }
        std::shared_ptr<Script> script;
    };

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Request> m_requests;
};

const ParakeetTranscriber::Options noDrafts{std::chrono::hours(1)};

} // namespace

TEST(ParakeetTranscriber, PhrasesAreCommittedAsTheyAreCutThroughBothLayouts)
{
    const auto &sentence = ToneSentence::load();
    ParakeetRuntime runtime({std::chrono::hours(1), false});
    for (const char *fixture : {"split", "community"}) {
        for (bool eager : {false, true}) {
            SCOPED_TRACE(std::string(fixture) + (eager ? " eager" : " normal"));
            ParakeetTranscriber transcriber(
                std::make_unique<RuntimeRecognizer>(runtime, fixturePath(fixture)), eager,
                noDrafts);
            TranscriberLog log(transcriber);
            QCoro::waitFor(transcriber.prepare());
            // A 44.1 kHz stereo device, as in a real dictation.
            feedAudio(transcriber, sentence.samples(44100), 44100, 2);
            EXPECT_EQ(QCoro::waitFor(transcriber.finish()), sentence.text);
            EXPECT_EQ(log.entries(),
                      QStringList({"text: " + sentence.phrases[0], "commit: " + sentence.phrases[0],
                                   "text: " + sentence.text, "commit: " + sentence.phrases[1]}));
            EXPECT_FALSE(transcriber.failure());
        }
    }
}

TEST(ParakeetTranscriber, SilenceAndEmptyPhrasesGiveNoCallbacks)
{
    ParakeetRuntime runtime({std::chrono::hours(1), false});
    ParakeetTranscriber quiet(std::make_unique<RuntimeRecognizer>(runtime, fixturePath("split")),
                              false, noDrafts);
    TranscriberLog log(quiet);
    QCoro::waitFor(quiet.prepare());
    feedAudio(quiet, silence(5));
    EXPECT_EQ(QCoro::waitFor(quiet.finish()), "");
    EXPECT_TRUE(log.entries().isEmpty());

    // A phrase that transcribes to nothing is not committed.
    auto script = std::make_shared<Script>();
    ParakeetTranscriber scripted(script->recognizer(), true, noDrafts);
    TranscriberLog scriptedLog(scripted);
    QCoro::waitFor(scripted.prepare());
    EXPECT_EQ(script->warmUps, 1);
    feedAudio(scripted, tone(1) + silence(1) + tone(1) + silence(1));
    ASSERT_TRUE(script->answerNext(""));
    ASSERT_TRUE(script->answerNext("B"));
    EXPECT_EQ(QCoro::waitFor(scripted.finish()), "B");
    EXPECT_EQ(scriptedLog.entries(), QStringList({"text: B", "commit: B"}));

    // finish() without prepare() has nothing to wait for.
    ParakeetTranscriber unprepared(script->recognizer(), false, noDrafts);
    feedAudio(unprepared, tone(1));
    EXPECT_EQ(QCoro::waitFor(unprepared.finish()), "");
}

TEST(ParakeetTranscriber, AFailedPhraseIsReportedAndTheDictationGoesOn)
{
    auto script = std::make_shared<Script>();
    ParakeetTranscriber transcriber(script->recognizer(), true, noDrafts);
    TranscriberLog log(transcriber);
    QCoro::waitFor(transcriber.prepare());
    feedAudio(transcriber, tone(1) + silence(1) + tone(1) + silence(1) + tone(1));
    auto first = script->next();
    ASSERT_TRUE(first);
    first->fail("Decoder.onnx failed: out of memory");
    ASSERT_TRUE(script->answerNext("second"));
    auto finished = transcriber.finish();
    ASSERT_TRUE(script->answerNext("third")); // the flushed tail
    EXPECT_EQ(QCoro::waitFor(std::move(finished)), "second third");
    EXPECT_EQ(transcriber.failure(), "Decoder.onnx failed: out of memory");
    EXPECT_EQ(log.entries(), QStringList({"text: second", "commit: second", "text: second third",
                                          "commit: third"}));
}

TEST(ParakeetTranscriber, CancelStopsAtOnceAndDeliversNothingMore)
{
    auto script = std::make_shared<Script>();
    auto transcriber = std::make_unique<ParakeetTranscriber>(script->recognizer(), true, noDrafts);
    TranscriberLog log(*transcriber);
    QCoro::waitFor(transcriber->prepare());
    feedAudio(*transcriber, tone(1) + silence(1) + tone(1) + silence(1));
    auto first = script->next();
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->stop.stop_requested());

    transcriber->cancel();
    // The phrase being transcribed is told to stop; its late answer is not delivered, and the
    // phrase queued behind it is never asked for.
    EXPECT_TRUE(first->stop.stop_requested());
    first->answer("late");
    feedAudio(*transcriber, tone(1) + silence(1)); // audio after cancel goes nowhere
    transcriber.reset();                           // joins the consumer and the drafter
    EXPECT_TRUE(log.entries().isEmpty());
    EXPECT_EQ(script->pending(), 0u);
}

TEST(ParakeetTranscriber, DraftsShowTheUnfinishedPhraseOnlyWhileItIsCurrent)
{
    const ParakeetTranscriber::Options often{10ms};

    // Speech goes on while a cut phrase waits for its text: no draft is asked for until the
    // phrase is done, then one of the speech so far is shown after the commit.
    {
        auto script = std::make_shared<Script>();
        ParakeetTranscriber transcriber(script->recognizer(), true, often);
        TranscriberLog log(transcriber);
        // The phrase is cut and queued before the drafter starts, so however slowly this runs,
        // the first request is the phrase and not a draft of it.
        feedAudio(transcriber, tone(1) + silence(1));
        QCoro::waitFor(transcriber.prepare());
        auto phrase = script->next();
        ASSERT_TRUE(phrase);
        EXPECT_EQ(phrase->samples.size(), size_t(1.2 * 16000)); // cut, not a draft
        feedAudio(transcriber, tone(0.5));
        // Fifty draft periods with the phrase queued. (A drafter that ignored the queue could
        // go unnoticed on a machine too busy to run it meanwhile, never the other way round.)
        std::this_thread::sleep_for(500ms);
        EXPECT_EQ(script->pending(), 0u) << "a draft was asked for while a phrase was queued";
        phrase->answer("one");

        auto draft = script->next();
        ASSERT_TRUE(draft) << "no draft of the phrase in progress";
        // The pre-roll and the speech so far.
        EXPECT_EQ(draft->samples.size() % Segmenter::frame, 0u);
        EXPECT_GE(draft->samples.size(), size_t(Segmenter::minSpeech));
        draft->answer("draft");
        EXPECT_TRUE(waitUntil([&] { return log.entries().contains("text: one draft"); }));
        EXPECT_EQ(log.entries().mid(0, 2), QStringList({"text: one", "commit: one"}));
    }

    // A draft whose phrase is cut while it is being made is not shown: a click at the very
    // start, enough silence after it to draft, then silence until the phrase is cut (and,
    // holding too little speech, discarded, so nothing is queued either).
    {
        auto script = std::make_shared<Script>();
        auto transcriber = std::make_unique<ParakeetTranscriber>(script->recognizer(), true, often);
        TranscriberLog log(*transcriber);
        QCoro::waitFor(transcriber->prepare());
        feedAudio(*transcriber, tone(0.02) + silence(0.3));
        auto stale = script->next();
        ASSERT_TRUE(stale);
        feedAudio(*transcriber, silence(2));
        stale->answer("stale");
        // The drafter asks for the next draft only once it has dealt with this one.
        feedAudio(*transcriber, tone(0.02) + silence(0.3));
        ASSERT_TRUE(script->next());
        transcriber.reset();
        EXPECT_TRUE(log.entries().isEmpty()) << log.entries().join(" | ").toStdString();
    }

    // After finish begins no draft is shown, even one already under way.
    {
        auto script = std::make_shared<Script>();
        ParakeetTranscriber transcriber(script->recognizer(), true, often);
        TranscriberLog log(transcriber);
        QCoro::waitFor(transcriber.prepare());
        feedAudio(transcriber, tone(0.5));
        auto late = script->next();
        ASSERT_TRUE(late);
        auto finishing = transcriber.finish();
        EXPECT_TRUE(late->stop.stop_requested());
        late->answer("late");
        ASSERT_TRUE(script->answerNext("final"));
        EXPECT_EQ(QCoro::waitFor(std::move(finishing)), "final");
        EXPECT_EQ(log.entries(), QStringList({"text: final", "commit: final"}));
    }
}
