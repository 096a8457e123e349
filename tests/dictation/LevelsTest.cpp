#include "dictation/Levels.h"

#include "dictation/TimingLog.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace vocari {
namespace {

AudioBuffer constantRms(float rms, uint32_t frames = 2048)
{
    std::vector<float> samples(frames);
    for (uint32_t i = 0; i < frames; ++i)
        samples[i] = i % 2 ? rms : -rms;
    return AudioBuffer::fromMono(44100.0, samples);
}

TEST(InputLevelTest, LevelIsLinearInDecibelsBetweenItsBounds)
{
    EXPECT_EQ(inputLevel(constantRms(0.0f)), 0.0f);
    EXPECT_FLOAT_EQ(inputLevel(constantRms(0.001f)), 0.03f);    // -60 dBFS, raised to the floor
    EXPECT_NEAR(inputLevel(constantRms(0.25f)), 0.999f, 1e-3);  // about -12.04 dBFS
    EXPECT_FLOAT_EQ(inputLevel(constantRms(0.5f)), 1.0f);       // about 1.15, clamped
    EXPECT_NEAR(inputLevel(constantRms(0.0316f)), 0.55f, 1e-3); // -30 dBFS
    EXPECT_NEAR(inputLevel(constantRms(0.01f)), 0.3f, 1e-4);    // -40 dBFS

    // Digital silence and the threshold just above it.
    EXPECT_EQ(inputLevel(constantRms(1e-8f)), 0.0f);
    EXPECT_FLOAT_EQ(inputLevel(constantRms(2e-7f)), 0.03f);
}

TEST(InputLevelTest, OnlyTheFirstChannelOfARealBufferCounts)
{
    EXPECT_EQ(inputLevel(AudioBuffer()), 0.0f);
    EXPECT_EQ(inputLevel(AudioBuffer({48000.0, 1}, 2048)), 0.0f); // no frames yet

    // Left silent, right loud: digital silence. And the other way round: full level.
    std::vector<float> interleaved;
    for (int i = 0; i < 1024; ++i) {
        interleaved.push_back(0.0f);
        interleaved.push_back(0.5f);
    }
    EXPECT_EQ(inputLevel(AudioBuffer::fromInterleaved({48000.0, 2}, interleaved)), 0.0f);
    std::reverse(interleaved.begin(), interleaved.end());
    EXPECT_FLOAT_EQ(inputLevel(AudioBuffer::fromInterleaved({48000.0, 2}, interleaved)), 1.0f);

    // A buffer with a broken sample shows nothing rather than garbage.
    std::vector<float> broken(2048, 0.1f);
    broken[7] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(inputLevel(AudioBuffer::fromMono(48000.0, broken)), 0.0f);
}

TEST(LevelHistoryTest, RisesAtOnceAndFallsSlowly)
{
    LevelHistory history;
    ASSERT_EQ(history.values().size(), LevelHistory::kLength);
    EXPECT_FALSE(history.push(0.0f)); // zeros shifted into zeros

    EXPECT_TRUE(history.push(0.8f));
    EXPECT_TRUE(history.push(0.1f));
    const QList<float> &values = history.values();
    EXPECT_EQ(values.size(), LevelHistory::kLength);
    EXPECT_FLOAT_EQ(values[LevelHistory::kLength - 2], 0.8f);
    EXPECT_NEAR(values.last(), 0.604f, 1e-6);
    EXPECT_EQ(values.first(), 0.0f);

    history.push(0.9f);
    EXPECT_FLOAT_EQ(history.values().last(), 0.9f);

    // The oldest entry drops off after kLength pushes.
    for (int i = 0; i < LevelHistory::kLength; ++i)
        history.push(1.0f);
    EXPECT_EQ(history.values(), QList<float>(LevelHistory::kLength, 1.0f));
    EXPECT_FALSE(history.push(1.0f));

    EXPECT_TRUE(history.reset());
    EXPECT_EQ(history.values(), QList<float>(LevelHistory::kLength, 0.0f));
    EXPECT_FALSE(history.reset());
}

TEST(ListeningCheckTest, SilenceAndTheTimeLimitCountOnlyForARealDictation)
{
    const ListeningCheck quietLong = checkListening(kSilentBufferLimit, 5001, 5, false);
    EXPECT_TRUE(quietLong.micSilent);
    EXPECT_TRUE(quietLong.overTime);
    EXPECT_FALSE(checkListening(kSilentBufferLimit - 1, 5000, 5, false).micSilent);
    EXPECT_FALSE(checkListening(0, 5000, 5, false).overTime);   // not more than 5 s yet
    EXPECT_FALSE(checkListening(0, 600000, 0, false).overTime); // no limit

    // The preview's simulated audio is never a silent microphone nor over time.
    const ListeningCheck preview = checkListening(100, 600000, 1, true);
    EXPECT_FALSE(preview.micSilent);
    EXPECT_FALSE(preview.overTime);
}

TEST(TimingLogTest, LineHasEveryFieldInItsFormat)
{
    DictationTiming timing;
    timing.engineName = QStringLiteral("Parakeet v3");
    timing.spoke = 3.26;
    timing.ready = 0.414;
    timing.transcribe = 0.6251;
    timing.releaseToInsert = 0.7;
    timing.words = 7;
    EXPECT_EQ(timingLine(timing),
              QStringLiteral("Parakeet v3 (on release) · spoke 3.3 s · ready 0.41 s · transcribe "
                             "0.63 s · release→insert 0.70 s · 7 words"));

    timing.tidy = 0.012;
    timing.live = false;
    EXPECT_TRUE(timingLine(timing).contains(
        QStringLiteral("transcribe 0.63 s · tidy 0.01 s · release→insert 0.70 s")));

    // An engine name with placeholders in it is taken literally.
    timing.engineName = QStringLiteral("Odd %1 name");
    timing.live = true;
    timing.tidy.reset();
    timing.words = 0;
    EXPECT_EQ(timingLine(timing),
              QStringLiteral("Odd %1 name (live) · spoke 3.3 s · ready 0.41 s · transcribe 0.63 s "
                             "· release→insert 0.70 s · 0 words"));
}

TEST(TimingLogTest, WordsAreThePiecesBetweenSpaces)
{
    EXPECT_EQ(countWords(QString()), 0);
    EXPECT_EQ(countWords(QStringLiteral("   ")), 0);
    EXPECT_EQ(countWords(QStringLiteral("one")), 1);
    EXPECT_EQ(countWords(QStringLiteral("  two   words ")), 2);
    EXPECT_EQ(countWords(QStringLiteral("tab\tjoined, still one")), 3);
}

} // namespace
} // namespace vocari
