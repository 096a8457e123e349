#include "ParakeetFixtures.h"
#include "engines/MemoryPressureMonitor.h"
#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/ParakeetRuntime.h"
#include "engines/parakeet/PhraseRecognizer.h"
#include "support/EventLoop.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

using namespace vocari;
using namespace vocari::test;
using namespace std::chrono_literals;

namespace {

ParakeetRuntime::Options quiet(std::chrono::milliseconds idle = 1h)
{
    return {idle, false};
}

QString folder(const char *fixture)
{
    return QDir::cleanPath(fixturePath(fixture));
}

// One transcription's text, handed over the way the transcriber takes it.
QString textOf(ParakeetRuntime &runtime, std::vector<float> samples, const QString &directory,
               std::stop_token stop = {})
{
    PendingPhrase pending;
    RuntimeRecognizer(runtime, directory).recognize(std::move(samples), stop, pending.callback());
    return pending.wait({});
}

// The message of the error a transcription ends with.
template <typename Error>
QString failureOf(ParakeetRuntime &runtime, std::vector<float> samples, const QString &directory,
                  std::stop_token stop = {})
{
    try {
        textOf(runtime, std::move(samples), directory, stop);
    } catch (const Error &error) {
        return QString::fromUtf8(error.what());
    }
    return QStringLiteral("(no %1)").arg(typeid(Error).name());
}

} // namespace

TEST(ParakeetRuntime, ReusesTheLoadedSetUntilAnotherFolderReplacesItAndFailedLoadsLeaveItAlone)
{
    const auto &sentence = ToneSentence::load();
    ParakeetRuntime runtime(quiet());
    EXPECT_EQ(textOf(runtime, sentence.phrase(0), folder("split")), sentence.phrases[0]);
    // The same folder, spelt differently, is the same set: no second load.
    EXPECT_EQ(textOf(runtime, sentence.phrase(1), fixturePath("split") + "/"), sentence.phrases[1]);
    EXPECT_EQ(runtime.status().loads, 1);
    EXPECT_EQ(runtime.status().loadedDirectory, folder("split"));
    EXPECT_TRUE(runtime.status().unloadScheduled);

    EXPECT_EQ(textOf(runtime, sentence.phrase(0), folder("community")), sentence.phrases[0]);
    EXPECT_EQ(runtime.status().loads, 2);
    EXPECT_EQ(runtime.status().loadedDirectory, folder("community"));

    ModelCopy noJoint("split");
    noJoint.remove("JointDecisionv3.onnx");
    EXPECT_EQ(
        failureOf<ModelLoadError>(runtime, sentence.phrase(0), noJoint.path()),
        QStringLiteral("The model folder %1 is missing JointDecisionv3.onnx.").arg(noJoint.path()));
    ModelCopy corrupt("split");
    corrupt.write("Decoder.onnx", "not a network");
    EXPECT_TRUE(failureOf<ModelLoadError>(runtime, sentence.phrase(0), corrupt.path())
                    .startsWith("Decoder.onnx is not a network that can be loaded"));
    EXPECT_EQ(runtime.status().loadedDirectory, folder("community"));

    // The loaded set is still there and still used.
    EXPECT_EQ(textOf(runtime, sentence.phrase(1), folder("community")), sentence.phrases[1]);
    EXPECT_EQ(runtime.status().loads, 2);
}

TEST(ParakeetRuntime, DropsTheSetOnRequestOnMemoryPressureAndWhenIdle)
{
    const auto &sentence = ToneSentence::load();
    ParakeetRuntime runtime(quiet());
    const QString split = folder("split");

    // Warm-up loads ahead of the first phrase and arms the idle unload.
    runtime.warmUp(split);
    runtime.models(split).waitForFinished();
    EXPECT_EQ(runtime.status().loadedDirectory, split);
    EXPECT_EQ(runtime.status().loads, 1);
    EXPECT_TRUE(runtime.status().unloadScheduled);
    runtime.warmUp(fixturePath("no-such-model")); // errors are ignored
    runtime.models(split).waitForFinished();
    EXPECT_EQ(runtime.status().loadedDirectory, split);
    EXPECT_EQ(runtime.status().loads, 1);

    runtime.unload().waitForFinished();
    EXPECT_TRUE(runtime.status().loadedDirectory.isEmpty());
    EXPECT_TRUE(runtime.status().unloadScheduled); // the idle timer is left alone
    EXPECT_EQ(textOf(runtime, sentence.phrase(0), split), sentence.phrases[0]);
    EXPECT_EQ(runtime.status().loads, 2);

    // Jobs run in order, so the set requested after the pressure event is a fresh load.
    runtime.handleMemoryPressure();
    runtime.models(split).waitForFinished();
    EXPECT_EQ(runtime.status().loads, 3);

    // Pressure is watched only where the kernel offers it, and not when asked not to.
    EXPECT_FALSE(MemoryPressureMonitor([] {}, "/nonexistent/pressure/memory").isActive());
    EXPECT_FALSE(runtime.watchesMemoryPressure());
    EXPECT_EQ(ParakeetRuntime(ParakeetRuntime::Options{}).watchesMemoryPressure(),
              MemoryPressureMonitor([] {}).isActive());

    // An idle runtime drops its set once the idle delay has passed since the last use.
    ParakeetRuntime brief(quiet(50ms));
    EXPECT_EQ(textOf(brief, sentence.phrase(0), split), sentence.phrases[0]);
    EXPECT_TRUE(waitUntil([&] { return brief.status().loadedDirectory.isEmpty(); }));
    EXPECT_FALSE(brief.status().unloadScheduled);
    EXPECT_EQ(textOf(brief, sentence.phrase(0), split), sentence.phrases[0]);
    EXPECT_EQ(brief.status().loads, 2);
}

TEST(ParakeetRuntime, ErrorsAndCancellationReachTheCallerAndTheRuntimeGoesOn)
{
    const auto &sentence = ToneSentence::load();
    ParakeetRuntime runtime(quiet());
    EXPECT_EQ(failureOf<RuntimeError>(runtime, sentence.phrase(0), folder("empty-token")),
              "The speech model returned an unexpected result.");
    EXPECT_TRUE(runtime.status().unloadScheduled); // a failed inference re-arms the timer too

    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_EQ(failureOf<TranscriptionCancelled>(runtime, sentence.phrase(0), folder("split"),
                                                stopped.get_token()),
              "The transcription was cancelled.");

    // Empty input gives empty text without running anything.
    EXPECT_EQ(textOf(runtime, {}, folder("split")), "");

    // Results arrive in the order the phrases were submitted, whichever folder they need.
    std::mutex lock;
    std::vector<int> order;
    std::vector<QFuture<QString>> texts;
    for (int i = 0; i < 6; ++i) {
        texts.push_back(
            runtime.transcribe(sentence.phrase(i % 2), folder(i % 3 ? "split" : "community")));
        texts.back().then(QtFuture::Launch::Sync, [&, i](const QString &) {
            std::lock_guard guard(lock);
            order.push_back(i);
        });
    }
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(texts[size_t(i)].result(), sentence.phrases[i % 2]);
    EXPECT_TRUE(waitUntil([&] {
        std::lock_guard guard(lock);
        return order.size() == 6;
    }));
    std::lock_guard guard(lock);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}
