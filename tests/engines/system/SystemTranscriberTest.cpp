#include "engines/system/SystemTranscriber.h"

#include "engines/WavFile.h"
#include "engines/system/SphinxDecoder.h"
#include "support/TranscriberLog.h"

#include <QCoro/QCoroTask>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSet>
#include <QTemporaryDir>
#include <chrono>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/wait.h>
#include <unistd.h>

using namespace vocari;
using test::TranscriberLog;

namespace {

const QString kUnavailable = QStringLiteral("Speech recognition is unavailable for this language.");
const QString kOrder = QStringLiteral("I would like to order a large pizza with extra cheese.");
const QString kProject = QStringLiteral("We need more time to finish the project.");

// Runs a tool to completion. A plain fork and exec rather than QProcess: QProcess starts
// children with a vfork-like clone that ThreadSanitizer cannot follow, which then reports
// races that do not exist.
bool runTool(const char *program, const QStringList &arguments)
{
    std::vector<QByteArray> storage{QByteArray(program)};
    for (const QString &argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &argument : storage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        execvp(program, argv.data());
        _exit(127);
    }
    int status = 0;
    const bool ran = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                     WEXITSTATUS(status) == 0;
    if (!ran)
        ADD_FAILURE() << program << " failed (status " << status << ")";
    return ran;
}

// Speech made on the spot: espeak-ng reads the SSML text, sox brings it to the rate and
// channel count asked for and applies any further effects.
std::optional<WavAudio> speak(const QString &ssml, AudioFormat format,
                              const QStringList &effects = {})
{
    QTemporaryDir dir;
    const QString voice = dir.filePath(QStringLiteral("voice.wav"));
    const QString shaped = dir.filePath(QStringLiteral("shaped.wav"));
    if (!runTool("espeak-ng", {"-m", "-v", "en-us+m1", "-s", "130", "-w", voice,
                               QStringLiteral("<speak>%1</speak>").arg(ssml)}) ||
        !runTool("sox", QStringList{voice, "-r", QString::number(format.sampleRate), "-c",
                                    QString::number(format.channels), shaped} +
                            effects))
        return std::nullopt;
    QString error;
    auto audio = WavFile::read(shaped, &error);
    if (!audio)
        ADD_FAILURE() << qPrintable(error);
    return audio;
}

// Debian's English model under another language's folder in root, optionally with a language
// model that is not one.
void linkEnglishModel(const QString &root, const QString &code, bool brokenLanguageModel = false)
{
    const QString debian = QStringLiteral("/usr/share/pocketsphinx/model/en-us/");
    const QDir model(QDir(root).filePath(code));
    ASSERT_TRUE(QDir().mkpath(model.path()));
    ASSERT_TRUE(QFile::link(debian + "en-us", model.filePath(code)));
    ASSERT_TRUE(QFile::link(debian + "cmudict-en-us.dict", model.filePath("cmudict.dict")));
    const QString lm = model.filePath(code + ".lm.bin");
    if (!brokenLanguageModel) {
        ASSERT_TRUE(QFile::link(debian + "en-us.lm.bin", lm));
        return;
    }
    QFile file(lm);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("not a language model");
}

// An idle timer that fires only when the test says so.
class ManualTimer final : public IdleTimer
{
public:
    void start(std::chrono::milliseconds delay, Callback callback) override
    {
        std::lock_guard lock(m_lock);
        m_delay = delay;
        m_callback = std::move(callback);
    }
    void stop() override { current(nullptr); }
    std::optional<std::chrono::milliseconds> pending() const
    {
        std::lock_guard lock(m_lock);
        return m_callback ? std::optional(m_delay) : std::nullopt;
    }
    // Calls the given callback (one taken earlier: a call already under way when the timer
    // was stopped), or else the pending one.
    void fire(Callback callback = nullptr)
    {
        if (!callback)
            callback = current(nullptr);
        if (callback)
            callback();
    }
    // The pending callback; with an argument, replaces it and returns the old one.
    Callback current() const
    {
        std::lock_guard lock(m_lock);
        return m_callback;
    }
    Callback current(Callback replacement)
    {
        std::lock_guard lock(m_lock);
        return std::exchange(m_callback, std::move(replacement));
    }

private:
    mutable std::mutex m_lock;
    std::chrono::milliseconds m_delay{};
    Callback m_callback;
};

// A cache of its own with a timer that the test fires, and no memory-pressure monitor.
struct TestCache
{
    ManualTimer *timer = new ManualTimer;
    std::shared_ptr<SphinxDecoderCache> decoders = SphinxDecoderCache::create(
        {std::chrono::hours(1), false, std::unique_ptr<IdleTimer>(timer)});
    int loads() const { return decoders->status().loads; }
};

// A second of silence after the last word, so that the decoder sees the utterance end.
const QStringList kTrailingSilence{"pad", "0", "1"};
// No silence at all after the last word.
const QStringList kNoTrailingSilence{"reverse", "silence", "1", "0.01", "0.1%", "reverse"};

void feedAll(Transcriber &transcriber, const WavAudio &audio, uint32_t framesPerBuffer)
{
    for (uint32_t first = 0; first < audio.frames(); first += framesPerBuffer)
        transcriber.feed(audio.slice(first, framesPerBuffer));
}

// The distinct words of four letters or more that the text shares with what was said.
int sharedWords(const QString &text, const QString &said)
{
    const auto words = [](const QString &s) {
        QSet<QString> set;
        for (const QString &word : s.toLower().remove(QLatin1Char('.')).split(QLatin1Char(' '))) {
            if (word.size() >= 4)
                set.insert(word);
        }
        return set;
    };
    return int(words(text).intersect(words(said)).size());
}

// The message prepare() threw, if it threw one.
std::optional<QString> prepareError(Transcriber &transcriber)
{
    return QCoro::waitFor([&]() -> QCoro::Task<std::optional<QString>> {
        try {
            co_await transcriber.prepare();
        } catch (const TranscriberError &error) {
            co_return error.message();
        }
        co_return std::nullopt;
    }());
}

QString finish(Transcriber &transcriber)
{
    return QCoro::waitFor(transcriber.finish());
}

} // namespace

TEST(SystemTranscriber, ShowsProvisionalTextThenCommitsEachPhraseFromAnyCaptureFormat)
{
    struct Case
    {
        const char *locale;
        AudioFormat format;
        uint32_t framesPerBuffer;
    };
    TestCache cache;
    for (const Case c : {Case{"en-US", kEngineFormat, 1600}, Case{"en-GB", {44100, 2}, 4410},
                         Case{"en-GB", {22050, 1}, 1000}, Case{"en-US", {48000, 1}, 480}}) {
        SCOPED_TRACE(c.format.sampleRate);
        const auto audio = speak(kOrder, c.format, kTrailingSilence);
        ASSERT_TRUE(audio);
        SystemTranscriber transcriber(QLatin1String(c.locale), {"Extra Cheese", "Kubernetes"},
                                      SphinxModelFinder::defaultRoots(), cache.decoders);
        TranscriberLog recorder(transcriber);
        ASSERT_EQ(prepareError(transcriber), std::nullopt);
        feedAll(transcriber, *audio, c.framesPerBuffer);
        const QString text = finish(transcriber);
        EXPECT_GE(sharedWords(text, kOrder), 3) << qPrintable(text);
        EXPECT_FALSE(transcriber.failure());
        // The decoder writes in lower case; the vocabulary's spelling wins.
        EXPECT_FALSE(text.contains(QLatin1String("extra cheese"))) << qPrintable(text);

        // Provisional text (never ending in the space that follows a final phrase) came first.
        const QStringList entries = recorder.entries();
        const auto firstCommit = std::find_if(entries.begin(), entries.end(), [](const QString &e) {
            return e.startsWith("commit: ");
        });
        ASSERT_NE(firstCommit, entries.end());
        EXPECT_TRUE(std::any_of(entries.begin(), firstCommit, [](const QString &e) {
            return e.startsWith("text: ") && e.size() > 6 && !e.endsWith(QLatin1Char(' '));
        }));
        const QStringList commits = recorder.texts("commit");
        EXPECT_EQ(commits.join(QLatin1Char(' ')), text);
        EXPECT_EQ(recorder.texts("text").last().trimmed(), text);
        for (const QString &commit : commits)
            EXPECT_EQ(commit, commit.trimmed());
    }
    // One dictation after the other, the decoder was loaded once; it waits for the next one
    // for an hour.
    EXPECT_EQ(cache.loads(), 1);
    EXPECT_EQ(cache.timer->pending(), std::chrono::hours(1));
}

TEST(SystemTranscriber, FinishFinalisesWhatIsStillBeingSaid)
{
    // Two sentences with a pause between them, the second cut off right after its last word:
    // only the pause ends an utterance by itself, so the second phrase is still open when the
    // audio ends and finish() must make it final.
    const auto audio = speak(kOrder + QStringLiteral(" <break time=\"1500ms\"/> ") + kProject,
                             kEngineFormat, kNoTrailingSilence);
    ASSERT_TRUE(audio);
    SystemTranscriber transcriber(QStringLiteral("en-US"), {});
    TranscriberLog recorder(transcriber);
    ASSERT_EQ(prepareError(transcriber), std::nullopt);
    feedAll(transcriber, *audio, 800);
    const QString text = finish(transcriber);

    const QStringList commits = recorder.texts("commit");
    ASSERT_GE(commits.size(), 2) << qPrintable(text);
    EXPECT_GE(sharedWords(commits.first(), kOrder), 3) << qPrintable(commits.first());
    EXPECT_GE(sharedWords(commits.last(), kProject), 1) << qPrintable(commits.last());
    EXPECT_EQ(text, commits.join(QLatin1Char(' ')));
    EXPECT_EQ(recorder.texts("text").last().trimmed(), text);

    // Finishing again, or feeding after the end, changes nothing.
    const auto eventCount = recorder.entries().size();
    feedAll(transcriber, *audio, 1600);
    EXPECT_EQ(finish(transcriber), text);
    EXPECT_EQ(recorder.entries().size(), eventCount);
}

TEST(SystemTranscriber, EveryDictationHearsTheSameAudioTheSameWay)
{
    // The decoder is shared by the whole program and adapts to what it hears: a dictation after
    // others (here one with seconds of digital silence before other words) must give the words
    // the first one gave.
    const auto speech = speak(kOrder, kEngineFormat);
    const auto other = speak(QStringLiteral("<break time=\"2000ms\"/>") + kProject, kEngineFormat);
    ASSERT_TRUE(speech && other);
    const auto dictate = [](const WavAudio &audio) {
        SystemTranscriber transcriber(QStringLiteral("en-US"), {});
        EXPECT_EQ(prepareError(transcriber), std::nullopt);
        feedAll(transcriber, audio, 800);
        return finish(transcriber);
    };
    const QString first = dictate(*speech);
    ASSERT_FALSE(first.isEmpty());
    dictate(*other);
    dictate(*speech);
    EXPECT_EQ(dictate(*speech), first);
}

TEST(SystemTranscriber, CancelDeliversNothingFurther)
{
    const auto audio = speak(kOrder + QStringLiteral(" <break time=\"1s\"/> ") + kProject,
                             kEngineFormat, kTrailingSilence);
    ASSERT_TRUE(audio);

    // Cancelled from outside while the decoder still has most of the audio ahead of it.
    TestCache cache;
    const auto make = [&] {
        return std::make_unique<SystemTranscriber>(QStringLiteral("en-US"), QStringList(),
                                                   SphinxModelFinder::defaultRoots(),
                                                   cache.decoders);
    };
    auto transcriber = make();
    TranscriberLog recorder(*transcriber);
    ASSERT_EQ(prepareError(*transcriber), std::nullopt);
    feedAll(*transcriber, *audio, 1600);
    ASSERT_TRUE(recorder.waitFor("text"));
    transcriber->cancel();
    const auto deliveredBeforeCancel = recorder.entries().size();
    feedAll(*transcriber, *audio, 1600);
    finish(*transcriber);
    transcriber.reset(); // joins the decoding thread: anything it would still send is sent now
    EXPECT_EQ(recorder.entries().size(), deliveredBeforeCancel);
    EXPECT_TRUE(recorder.texts("commit").isEmpty());

    // Cancelled from inside its own first callback, on the decoding thread. Its decoder is the
    // one cancelled above in mid-utterance, and starts afresh.
    auto selfCancelled = make();
    TranscriberLog inner(*selfCancelled);
    selfCancelled->setOnText([&](const QString &text) {
        inner.add("text: " + text);
        selfCancelled->cancel();
    });
    ASSERT_EQ(prepareError(*selfCancelled), std::nullopt);
    feedAll(*selfCancelled, *audio, 1600);
    finish(*selfCancelled);
    selfCancelled.reset();
    // Only the callback that cancelled; a slow model load may have sent a status line before.
    EXPECT_EQ(inner.texts("text").size(), 1);
    EXPECT_TRUE(inner.texts("commit").isEmpty());
    EXPECT_EQ(cache.loads(), 1);
}

TEST(SystemTranscriber, ReportsLanguagesWithoutAUsableModel)
{
    QTemporaryDir emptyRoot;
    QTemporaryDir brokenRoot;
    linkEnglishModel(brokenRoot.path(), QStringLiteral("en-us"), true);
    const QString unloadable =
        QStringLiteral("The speech model for this language could not be loaded.");
    const std::vector<std::tuple<QString, QStringList, QString>> cases{
        {QStringLiteral("xx-YY"), SphinxModelFinder::defaultRoots(), kUnavailable},
        {QString(), SphinxModelFinder::defaultRoots(), kUnavailable},
        {QStringLiteral("en-US"), {emptyRoot.path()}, kUnavailable},
        {QStringLiteral("en-US"), {brokenRoot.path()}, unloadable},
    };
    const auto audio = speak(kOrder, kEngineFormat);
    ASSERT_TRUE(audio);
    QLoggingCategory::setFilterRules(QStringLiteral("vocari.engine.system.warning=false"));
    for (const auto &[locale, roots, message] : cases) {
        SystemTranscriber transcriber(locale, {}, roots);
        TranscriberLog recorder(transcriber);
        EXPECT_EQ(prepareError(transcriber), message) << qPrintable(locale);
        feedAll(transcriber, *audio, 1600);
        EXPECT_EQ(finish(transcriber), QString());
        transcriber.cancel();
        // Nothing heard; a slow load (as under a sanitizer) may have reported its status.
        EXPECT_TRUE(recorder.texts("text").isEmpty());
        EXPECT_TRUE(recorder.texts("commit").isEmpty());
        EXPECT_FALSE(transcriber.failure());
    }
    QLoggingCategory::setFilterRules(QString());
}

TEST(SphinxDecoderCache, KeepsTheLastLanguageLoadedUntilAnHourIdleOrMemoryPressure)
{
    const auto english = SphinxModelFinder::find(QStringLiteral("en-US"));
    ASSERT_TRUE(english);
    QTemporaryDir root;
    linkEnglishModel(root.path(), QStringLiteral("de"));
    const auto german = SphinxModelFinder::find(QStringLiteral("de-DE"), {root.path()});
    ASSERT_TRUE(german);

    TestCache cache;
    auto lent = cache.decoders->acquire(*english);
    ASSERT_TRUE(lent);
    SphinxDecoder *const decoder = lent.get();
    EXPECT_FALSE(cache.timer->pending()) << "no unload while a dictation uses it";
    lent.reset();
    EXPECT_TRUE(cache.decoders->status().cached);
    EXPECT_EQ(cache.decoders->acquire(*english).get(), decoder);
    EXPECT_EQ(cache.loads(), 1);

    // A timer call already under way when the decoder was lent again unloads nothing.
    const auto late = cache.timer->current();
    cache.decoders->acquire(*english).reset();
    cache.timer->fire(late);
    EXPECT_TRUE(cache.decoders->status().cached);
    // An hour without use unloads it.
    cache.timer->fire();
    EXPECT_FALSE(cache.decoders->status().cached);
    cache.decoders->acquire(*english).reset();
    EXPECT_EQ(cache.loads(), 2);

    // Memory pressure unloads it, and a decoder lent out at the time is not taken back.
    lent = cache.decoders->acquire(*english);
    cache.decoders->unload();
    lent.reset();
    EXPECT_FALSE(cache.decoders->status().cached);
    EXPECT_FALSE(cache.timer->pending());

    // Another language loads its own model, which then replaces the first.
    cache.decoders->acquire(*english).reset();
    cache.decoders->acquire(*german).reset();
    EXPECT_EQ(cache.loads(), 4);
    cache.decoders->acquire(*english).reset();
    EXPECT_EQ(cache.loads(), 5);
}
