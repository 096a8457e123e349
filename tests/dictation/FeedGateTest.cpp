#include "dictation/FeedGate.h"

#include "Fakes.h"

#include <gtest/gtest.h>

namespace vocari::test {
namespace {

// A 0.1 s buffer at 16 kHz whose first sample is `number` / 1000.
AudioBuffer numbered(int number)
{
    std::vector<float> samples(1600, 0.01f);
    samples[0] = float(number) / 1000.0f;
    return AudioBuffer::fromMono(16000.0, samples);
}

std::vector<float> firstSamples(int from, int to)
{
    std::vector<float> samples;
    for (int number = from; number <= to; ++number)
        samples.push_back(float(number) / 1000.0f);
    return samples;
}

// Ordering, the bound and a feeding capture thread are checked through the dictation itself;
// these are the gate's own end cases.
TEST(FeedGateTest, DrainFeedsWhatIsLeftOnlyOnceOpen)
{
    const auto transcriber = std::make_shared<ScriptedTranscriber>();
    FeedGate gate(transcriber, 10.0);
    gate.push(numbered(1));
    gate.push(numbered(2));
    gate.drain(); // not ready yet: nothing may reach the transcriber
    EXPECT_EQ(transcriber->fedBuffers, 0);

    gate.open();
    gate.drain();
    EXPECT_EQ(transcriber->fedFirstSamples(), firstSamples(1, 2));
    gate.drain();
    EXPECT_EQ(transcriber->fedBuffers, 2);
}

TEST(FeedGateTest, DiscardDropsTheQueueAndEverythingAfter)
{
    const auto transcriber = std::make_shared<ScriptedTranscriber>();
    FeedGate gate(transcriber, 10.0);
    gate.push(numbered(1));
    gate.discard();
    gate.open();
    gate.push(numbered(2));
    gate.drain();
    EXPECT_EQ(transcriber->fedBuffers, 0);
    EXPECT_EQ(gate.queuedSeconds(), 0.0);
}

TEST(FeedGateTest, SkipLeavesOutTheNextSecondsOfAudioOnly)
{
    const auto transcriber = std::make_shared<ScriptedTranscriber>();
    FeedGate gate(transcriber, 10.0);
    gate.push(numbered(1)); // captured before the skip: kept, though not fed yet
    gate.skip(0.25);
    gate.push(numbered(2));
    gate.push(numbered(3));
    gate.open();
    // The third skipped buffer is cut: its last 0.05 s (800 samples of 0.01) goes on.
    gate.push(numbered(4));
    gate.push(numbered(5));
    EXPECT_EQ(transcriber->fedFirstSamples(), (std::vector<float>{0.001f, 0.01f, 0.005f}));
    EXPECT_NEAR(transcriber->fedSeconds(), 0.1 + 0.05 + 0.1, 1e-9);

    // A second skip while one runs does not add up: it lasts as long as the longer of them.
    gate.skip(0.15);
    gate.skip(0.1);
    gate.push(numbered(6));
    gate.push(numbered(7));
    EXPECT_NEAR(transcriber->fedSeconds(), 0.25 + 0.05, 1e-9);
}

} // namespace
} // namespace vocari::test
