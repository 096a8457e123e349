#include "engines/parakeet/Segmenter.h"

#include <cmath>
#include <gtest/gtest.h>
#include <vector>

using vocari::Segmenter;

namespace {

constexpr int64_t kSecond = 16000;

// A square wave of the given amplitude (its RMS over any whole frame), or silence.
std::vector<float> tone(int64_t samples, float amplitude = 0.1f)
{
    std::vector<float> out(static_cast<size_t>(samples));
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = (i / 8) % 2 ? amplitude : -amplitude;
    return out;
}

std::vector<float> silence(int64_t samples)
{
    return tone(samples, 0.0f);
}

struct Recorder
{
    std::vector<std::vector<float>> segments;
    Segmenter segmenter;

    explicit Recorder(bool eager = false)
        : segmenter(eager, [this](std::vector<float> s) { segments.push_back(std::move(s)); })
    {
    }
    void feed(const std::vector<float> &samples) { segmenter.append(samples); }
    int64_t size(size_t i) const { return int64_t(segments.at(i).size()); }
};

// The frame's RMS computed as the segmenter does: squares summed in single precision.
float frameRms(const std::vector<float> &frame)
{
    float sum = 0.0f;
    for (float x : frame)
        sum += x * x;
    return std::sqrt(sum / float(frame.size()));
}

} // namespace

TEST(Segmenter, AnalysesWholeFramesAndKeepsOnlyThePreRollOfSilence)
{
    Recorder r;
    r.feed(tone(319));
    EXPECT_EQ(r.segmenter.bufferedSamples(), 0) << "a partial frame waits for its rest";
    r.feed(tone(1));
    EXPECT_EQ(r.segmenter.bufferedSamples(), Segmenter::frame);

    Recorder quiet;
    for (int i = 0; i < 200; ++i) {
        quiet.feed(silence(1000));
        ASSERT_LE(quiet.segmenter.bufferedSamples(), Segmenter::preRoll);
    }
    quiet.segmenter.flush();
    EXPECT_TRUE(quiet.segments.empty());
    EXPECT_EQ(quiet.segmenter.bufferedSamples(), 0);
    EXPECT_EQ(quiet.segmenter.cuts(), 1); // the flush cuts, and discards the pre-roll
}

TEST(Segmenter, PhraseStartsWithThePreRollBeforeItsFirstSpeech)
{
    Recorder r;
    std::vector<float> before(static_cast<size_t>(kSecond));
    for (size_t i = 0; i < before.size(); ++i)
        before[i] = i % 2 ? 0.001f : -0.001f; // quiet, but recognisable
    r.feed(before);
    r.feed(tone(kSecond));
    r.segmenter.flush();

    ASSERT_EQ(r.segments.size(), 1u);
    const auto &s = r.segments[0];
    ASSERT_EQ(int64_t(s.size()), Segmenter::preRoll + kSecond);
    // The pre-roll is the last 0.3 s of the quiet audio, in order.
    EXPECT_FLOAT_EQ(s[0], before[before.size() - size_t(Segmenter::preRoll)]);
    EXPECT_FLOAT_EQ(s[size_t(Segmenter::preRoll) - 1], before.back());
    EXPECT_FLOAT_EQ(std::abs(s[size_t(Segmenter::preRoll)]), 0.1f);
}

TEST(Segmenter, APauseCutsOnceTheSoftLimitIsReachedKeepingOnlyTheTail)
{
    // 0.3 s before, 1.2 s of speech, then a pause: 1.9 s in all.
    const auto phrase = [](Recorder &r, int64_t pause) {
        r.feed(silence(Segmenter::preRoll));
        r.feed(tone(19200));
        r.feed(silence(pause));
    };
    Recorder normal(false);
    phrase(normal, Segmenter::pauseToCut);
    EXPECT_TRUE(normal.segments.empty()) << "1.9 s is below the 3 s soft limit";
    Recorder eager(true);
    phrase(eager, Segmenter::pauseToCut);
    ASSERT_EQ(eager.segments.size(), 1u) << "1.9 s is above the eager 1.5 s soft limit";
    EXPECT_EQ(eager.size(0), Segmenter::preRoll + 19200 + Segmenter::keepTail);
    Recorder almost(true);
    phrase(almost, Segmenter::pauseToCut - Segmenter::frame);
    EXPECT_TRUE(almost.segments.empty()) << "one frame less is not yet a pause";

    // Short speech and a long silence: the cut comes when the phrase reaches the soft limit.
    Recorder r;
    r.feed(silence(kSecond));
    r.feed(tone(kSecond));
    int silentFrames = 0;
    while (r.segments.empty() && silentFrames < 1000) {
        r.feed(silence(Segmenter::frame));
        ++silentFrames;
    }
    EXPECT_EQ(Segmenter::preRoll + kSecond + silentFrames * Segmenter::frame,
              Segmenter::softLimitNormal);
    ASSERT_EQ(r.segments.size(), 1u);
    EXPECT_EQ(r.size(0), Segmenter::preRoll + kSecond + Segmenter::keepTail);
}

TEST(Segmenter, ContinuousSpeechIsCutAtTheHardLimitWithoutTrimming)
{
    Recorder r;
    for (int64_t fed = 0; fed < 30 * kSecond; fed += 2048)
        r.feed(tone(std::min<int64_t>(2048, 30 * kSecond - fed)));
    ASSERT_EQ(r.segments.size(), 2u);
    EXPECT_EQ(r.size(0), Segmenter::hardLimit);
    EXPECT_EQ(r.size(1), Segmenter::hardLimit);
    r.segmenter.flush();
    ASSERT_EQ(r.segments.size(), 3u);
    EXPECT_EQ(r.size(2), 30 * kSecond - 2 * Segmenter::hardLimit);
    EXPECT_EQ(r.segmenter.cuts(), 3);
}

TEST(Segmenter, FlushKeepsTheRemainderAndTooLittleSpeechIsDiscardedButCounted)
{
    Recorder shortPause;
    shortPause.feed(tone(kSecond));
    shortPause.feed(silence(1600));
    shortPause.segmenter.flush();
    ASSERT_EQ(shortPause.segments.size(), 1u);
    EXPECT_EQ(shortPause.size(0), kSecond + 1600);

    // A long pause plus an unanalysed remainder: only analysed silence is dropped, so the
    // remainder stays as part of the tail.
    Recorder longPause;
    longPause.feed(silence(Segmenter::preRoll));
    longPause.feed(tone(kSecond));
    longPause.feed(silence(8000 + 100));
    longPause.segmenter.flush();
    ASSERT_EQ(longPause.segments.size(), 1u);
    EXPECT_EQ(longPause.size(0), Segmenter::preRoll + kSecond + Segmenter::keepTail + 100);

    // A click of two frames at the very start, then silence until the soft limit cuts.
    Recorder click;
    click.feed(tone(2 * Segmenter::frame));
    click.feed(silence(2 * Segmenter::softLimitNormal));
    EXPECT_TRUE(click.segments.empty());
    EXPECT_EQ(click.segmenter.cuts(), 1);
    // The pre-roll counts as voiced audio, so the same click after 0.3 s of quiet survives.
    Recorder enough;
    enough.feed(silence(Segmenter::preRoll));
    enough.feed(tone(Segmenter::frame));
    enough.segmenter.flush();
    EXPECT_EQ(enough.segments.size(), 1u);
}

TEST(Segmenter, SpeechIsAnRmsAboveANoiseFloorThatAdaptsToTheRoom)
{
    // 0.007 is below the starting threshold of 0.01 ...
    Recorder fresh;
    fresh.feed(tone(kSecond, 0.007f));
    fresh.segmenter.flush();
    EXPECT_TRUE(fresh.segments.empty());
    // ... but after two seconds of a very quiet room the threshold has fallen to 0.006.
    Recorder quiet;
    quiet.feed(tone(2 * kSecond, 0.0005f));
    EXPECT_LT(quiet.segmenter.noiseFloor(), 0.0024f);
    quiet.feed(tone(kSecond, 0.007f));
    quiet.segmenter.flush();
    EXPECT_EQ(quiet.segments.size(), 1u);

    // A frame whose RMS lands exactly on the threshold is silence (it moves the floor); one a
    // little louder is speech (it leaves the floor alone). Found by searching the count of loud
    // samples and their value, ulp by ulp.
    const float threshold =
        std::max(Segmenter::initialNoiseFloor * 2.5f, Segmenter::minimumThreshold);
    std::vector<float> frame(size_t(Segmenter::frame), 0.0f);
    for (size_t loud = 1; loud <= 64 && frameRms(frame) != threshold; ++loud) {
        float value = threshold * std::sqrt(float(Segmenter::frame) / float(loud)) * 0.9995f;
        for (int step = 0; step < 8000; ++step, value = std::nextafter(value, 1.0f)) {
            std::fill(frame.begin(), frame.begin() + std::ptrdiff_t(loud), value);
            if (frameRms(frame) == threshold)
                break;
        }
    }
    ASSERT_EQ(frameRms(frame), threshold);
    Recorder equal;
    equal.feed(frame);
    EXPECT_FLOAT_EQ(equal.segmenter.noiseFloor(),
                    Segmenter::initialNoiseFloor * 0.95f + threshold * 0.05f);
    frame[0] *= 1.01f;
    Recorder above;
    above.feed(frame);
    EXPECT_EQ(above.segmenter.noiseFloor(), Segmenter::initialNoiseFloor);
}
