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

} // namespace
} // namespace vocari::test
