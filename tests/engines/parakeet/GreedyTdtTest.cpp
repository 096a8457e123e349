#include "engines/parakeet/GreedyTdt.h"

#include "engines/parakeet/ParakeetErrors.h"

#include <functional>
#include <gtest/gtest.h>

using namespace vocari;

namespace {

constexpr int64_t kBlank = 100;

// A joint network scripted by a function of (frame value, last token), recording every call.
struct ScriptedStepper : TokenStepper
{
    using Script = std::function<JointDecision(float frameValue, int64_t lastToken)>;

    explicit ScriptedStepper(Script script, int64_t width = 2)
        : script(std::move(script)), values(size_t(width))
    {
    }
    int64_t blankId() const override { return kBlank; }
    void start() override { ++starts, last = kBlank; }
    std::span<float> frame() override { return values; }
    JointDecision decide() override
    {
        visited.push_back(values[0]);
        if (onDecide)
            onDecide();
        return script(values[0], last);
    }
    void accept(int64_t token) override { accepted.push_back(last = token); }

    Script script;
    std::vector<float> values;
    int starts = 0;
    int64_t last = kBlank;
    std::vector<float> visited; // first value of the frame at every joint run
    std::vector<int64_t> accepted;
    std::function<void()> onDecide;
};

// Encoder frames [1, width, length] in row-major order where frame t holds t + d / 10.
struct Frames
{
    std::vector<float> data;
    EncoderFrames view;

    Frames(int64_t width, int64_t length) : data(size_t(width * length))
    {
        for (int64_t d = 0; d < width; ++d)
            for (int64_t t = 0; t < length; ++t)
                data[size_t(d * length + t)] = float(t) + float(d) / 10.0f;
        view = {data.data(), width, length, length, 1};
    }
};

} // namespace

TEST(GreedyTdt, BlankAndDurationRules)
{
    const Frames frames(2, 6);

    // Blank with duration 0 on every frame: no tokens, every frame visited exactly once.
    ScriptedStepper blank([](float, int64_t) { return JointDecision{kBlank, 0}; });
    EXPECT_TRUE(greedyTDT(frames.view, 6, blank, {}).empty());
    EXPECT_EQ(blank.visited, (std::vector<float>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(blank.starts, 1);
    EXPECT_TRUE(blank.accepted.empty());

    // The same token with duration 0 forever: exactly eight tokens per frame.
    ScriptedStepper repeat([](float, int64_t) { return JointDecision{7, 0}; });
    EXPECT_EQ(greedyTDT(frames.view, 3, repeat, {}), std::vector<int64_t>(24, 7));
    EXPECT_EQ(repeat.accepted.size(), 24u);
    EXPECT_EQ(repeat.visited.size(), 24u);

    // Durations skip frames; a token with a duration moves on at once; negative is like 0.
    ScriptedStepper skipping([](float value, int64_t last) {
        if (value == 0)
            return JointDecision{1, 2};
        if (value == 2 && last == 1)
            return JointDecision{2, -1};
        if (value == 2)
            return JointDecision{kBlank, 3};
        return JointDecision{kBlank, 1};
    });
    EXPECT_EQ(greedyTDT(frames.view, 6, skipping, {}), (std::vector<int64_t>{1, 2}));
    EXPECT_EQ(skipping.visited, (std::vector<float>{0, 2, 2, 5}));
}

TEST(GreedyTdt, FrameCountIsLimitedToTheEncoderAndFramesAreReadThroughStrides)
{
    const Frames frames(3, 4);
    ScriptedStepper stepper([](float, int64_t) { return JointDecision{kBlank, 1}; }, 3);
    greedyTDT(frames.view, 1000, stepper, {});
    EXPECT_EQ(stepper.visited.size(), 4u);
    stepper.visited.clear();
    greedyTDT(frames.view, -5, stepper, {});
    EXPECT_TRUE(stepper.visited.empty());

    // Frame t of a [1, D, T] array is every value at time t: d · T + t.
    std::vector<float> copy(3);
    frames.view.copyFrame(2, copy);
    EXPECT_EQ(copy, (std::vector<float>{2.0f, 2.1f, 2.2f}));

    // The same frames stored time-major ([1, T, D] memory seen as [1, D, T]).
    std::vector<float> timeMajor{0.0f, 0.1f, 0.2f, 1.0f, 1.1f, 1.2f};
    const EncoderFrames transposed{timeMajor.data(), 3, 2, 1, 3};
    transposed.copyFrame(1, copy);
    EXPECT_EQ(copy, (std::vector<float>{1.0f, 1.1f, 1.2f}));
}

TEST(GreedyTdt, StopIsTestedBeforeEveryJointStep)
{
    const Frames frames(2, 10);
    std::stop_source source;
    ScriptedStepper stepper([](float, int64_t) { return JointDecision{3, 1}; });
    stepper.onDecide = [&] {
        if (stepper.visited.size() == 4)
            source.request_stop();
    };
    EXPECT_THROW(greedyTDT(frames.view, 10, stepper, source.get_token()), TranscriptionCancelled);
    EXPECT_EQ(stepper.visited.size(), 4u);

    ScriptedStepper untouched([](float, int64_t) { return JointDecision{3, 1}; });
    EXPECT_THROW(greedyTDT(frames.view, 10, untouched, source.get_token()), TranscriptionCancelled);
    EXPECT_TRUE(untouched.visited.empty());
}
