#include "dictation/FeedGate.h"

#include "Fakes.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

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

TEST(FeedGateTest, HoldsBuffersUntilOpenThenFeedsThemFirst)
{
    const auto transcriber = std::make_shared<ScriptedTranscriber>();
    FeedGate gate(transcriber, 10.0);
    gate.push(numbered(1));
    gate.push(numbered(2));
    EXPECT_EQ(transcriber->fedBuffers, 0);
    EXPECT_NEAR(gate.queuedSeconds(), 0.2, 1e-9);
    EXPECT_FALSE(gate.isOpen());

    gate.open();
    EXPECT_TRUE(gate.isOpen());
    EXPECT_EQ(transcriber->fedBuffers, 0); // the capture thread feeds, not the opener
    gate.push(numbered(3));
    gate.push(numbered(4));
    EXPECT_EQ(transcriber->fedFirstSamples(), firstSamples(1, 4));
    EXPECT_EQ(gate.queuedSeconds(), 0.0);
    EXPECT_EQ(gate.droppedSeconds(), 0.0);
}

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

TEST(FeedGateTest, KeepsTheFirstSecondsAndCountsWhatItDrops)
{
    const auto transcriber = std::make_shared<ScriptedTranscriber>();
    FeedGate gate(transcriber, 0.25);
    for (int number = 1; number <= 10; ++number)
        gate.push(numbered(number));
    // 0.2 s is under the bound, so the third buffer goes in and the queue then holds 0.3 s.
    EXPECT_NEAR(gate.queuedSeconds(), 0.3, 1e-9);
    EXPECT_NEAR(gate.droppedSeconds(), 0.7, 1e-9);

    gate.open();
    gate.push(numbered(11));
    EXPECT_EQ(transcriber->fedFirstSamples(), (std::vector<float>{0.001f, 0.002f, 0.003f, 0.011f}));
    EXPECT_NEAR(gate.droppedSeconds(), 0.7, 1e-9);
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

TEST(FeedGateTest, OpeningWhileCaptureRunsKeepsCaptureOrderAndOneFeederAtATime)
{
    for (int round = 0; round < 20; ++round) {
        const auto transcriber = std::make_shared<ScriptedTranscriber>();
        FeedGate gate(transcriber, 1000.0);
        constexpr int kBuffers = 300;
        std::atomic<int> pushed{0};
        std::thread capture([&] {
            for (int number = 1; number <= kBuffers; ++number) {
                gate.push(numbered(number));
                pushed = number;
            }
        });
        while (pushed < round * kBuffers / 20)
            std::this_thread::yield();
        gate.open();
        capture.join();
        gate.drain();
        ASSERT_EQ(transcriber->fedFirstSamples(), firstSamples(1, kBuffers)) << "round " << round;
        EXPECT_EQ(transcriber->overlappingFeeds, 0);
    }
}

} // namespace
} // namespace vocari::test
