#include "ParakeetFixtures.h"
#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/ParakeetInference.h"

#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <numbers>
#include <thread>

using namespace vocari;
using namespace vocari::test;

namespace {

std::shared_ptr<ModelSet> models(const char *fixture)
{
    static std::map<std::string, std::shared_ptr<ModelSet>> cache;
    auto &set = cache[fixture];
    if (!set)
        set = loadModelSet(fixturePath(fixture));
    return set;
}

// Frames the fixture encoder produces for n samples.
int64_t encoderFrames(int64_t samples)
{
    const auto &sentence = ToneSentence::load();
    return samples / sentence.hop / sentence.subsampling;
}

} // namespace

TEST(ParakeetInference, ToneSentenceDecodesInBothLayouts)
{
    const auto &sentence = ToneSentence::load();

    for (const char *fixture : {"split", "split-dynamic", "community"}) {
        SCOPED_TRACE(fixture);
        auto set = models(fixture);
        EXPECT_EQ(decode(sentence.phrase(0), *set), sentence.phrases[0]);
        EXPECT_EQ(decode(sentence.phrase(1), *set), sentence.phrases[1]);
        EXPECT_EQ(decode(sentence.samples(), *set), sentence.text);
        // A set decodes phrase after phrase with nothing carried over.
        EXPECT_EQ(decode(sentence.phrase(0), *set), sentence.phrases[0]);
    }
}

TEST(ParakeetInference, SignalIsPaddedOnlyForAFixedLengthInput)
{
    // (tensor length, real samples) for a phrase and the network's fixed length (0: dynamic).
    using Plan = std::pair<int64_t, int64_t>;
    const auto plan = [](int64_t samples, int64_t fixed) {
        const SignalPlan p = planSignal(samples, fixed);
        return std::pair(p.tensorLength, p.realLength);
    };
    EXPECT_EQ(plan(32000, 240000), Plan(240000, 32000));
    EXPECT_EQ(plan(32000, 0), Plan(32000, 32000));
    // Beyond 15 s only the start is used; a network fixed to another length gets that length.
    EXPECT_EQ(plan(300000, 0), Plan(240000, 240000));
    EXPECT_EQ(plan(32000, 16000), Plan(16000, 16000));

    // 300000 samples: the first 240000 are transcribed, in both kinds of network.
    const auto &sentence = ToneSentence::load();
    std::vector<float> longInput = sentence.samples();
    longInput.resize(300000, 0.0f);
    std::vector<float> head(longInput.begin(), longInput.begin() + 240000);
    // Past 15 s the "Hello" tone, which must not be heard.
    for (size_t i = 240000; i < longInput.size(); ++i)
        longInput[i] = 0.3f * float(std::sin(2 * std::numbers::pi * 600.0 * double(i) / 16000));
    EXPECT_EQ(decode(longInput, *models("split")), decode(head, *models("split")));
    EXPECT_EQ(decode(longInput, *models("split-dynamic")), sentence.text);

    EXPECT_EQ(decode({}, *models("split")), "");
}

TEST(ParakeetInference, DegenerateJointNetworksStillEnd)
{
    const std::vector<float> second(16000, 0.0f);
    // Always blank with duration 0: every frame once, nothing emitted.
    EXPECT_EQ(decode(second, *models("blank-joint")), "");
    // Always the same token with duration 0: eight per frame, then the next frame.
    const auto &sentence = ToneSentence::load();
    EXPECT_EQ(decode(second, *models("repeat-joint")),
              sentence.repeatPiece.repeated(8 * encoderFrames(16000)));
}

TEST(ParakeetInference, UnusableOutputsAreBadOutput)
{
    const std::vector<float> second(16000, 0.1f);
    for (const char *fixture : {"empty-token", "squeezed-encoder"}) {
        SCOPED_TRACE(fixture);
        try {
            decode(second, *models(fixture));
            FAIL() << "decoded";
        } catch (const RuntimeError &error) {
            EXPECT_EQ(error.kind(), RuntimeError::Kind::BadOutput);
            EXPECT_EQ(error.message(), "The speech model returned an unexpected result.");
        }
    }
}

TEST(ParakeetInference, StopIsHonouredBeforeAnyStageAndInsideTheSearch)
{
    const auto &sentence = ToneSentence::load();
    std::stop_source stopped;
    stopped.request_stop();
    for (const char *fixture : {"split", "community"})
        EXPECT_THROW(decode(sentence.samples(), *models(fixture), stopped.get_token()),
                     TranscriptionCancelled);

    // A stop from another thread while a long input is being searched.
    std::stop_source source;
    std::vector<float> tones(240000);
    for (size_t i = 0; i < tones.size(); ++i)
        tones[i] = 0.3f * float(std::sin(double(i) * 0.2));
    std::jthread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        source.request_stop();
    });
    EXPECT_THROW(
        {
            for (int i = 0; i < 1000; ++i)
                decode(tones, *models("repeat-joint"), source.get_token());
        },
        TranscriptionCancelled);
    // And the set works afterwards.
    EXPECT_EQ(decode(sentence.phrase(0), *models("split")), sentence.phrases[0]);
}
