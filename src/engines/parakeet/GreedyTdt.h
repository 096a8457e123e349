#pragma once

#include <cstdint>
#include <span>
#include <stop_token>
#include <vector>

namespace vocari {

// Read access to encoder frames laid out as [1, D, T] with arbitrary element strides.
struct EncoderFrames
{
    const float *data = nullptr;
    int64_t width = 0;       // D: values per frame
    int64_t length = 0;      // T: frames
    int64_t widthStride = 0; // elements between (0, d, t) and (0, d + 1, t)
    int64_t timeStride = 0;  // elements between (0, d, t) and (0, d, t + 1)

    // Copies frame t into out, which holds width values.
    void copyFrame(int64_t t, std::span<float> out) const;
};

// The joint network's answer for one step.
struct JointDecision
{
    int64_t token = 0;
    int64_t duration = 0; // encoder frames to advance
};

// One layout's prediction and joint networks as the greedy search drives them.
class TokenStepper
{
public:
    virtual ~TokenStepper() = default;

    // The token that means "nothing on this step".
    virtual int64_t blankId() const = 0;
    // Puts the prediction network in its start state, with the blank as the last token.
    virtual void start() = 0;
    // Where the encoder frame for the next decide() goes; the same buffer every time.
    virtual std::span<float> frame() = 0;
    // Runs the joint network on frame() and the current prediction state.
    virtual JointDecision decide() = 0;
    // Moves the prediction network on by an emitted token. Not called for blanks, so after a
    // blank the previous state stays.
    virtual void accept(int64_t token) = 0;
};

// At most this many tokens are emitted on one frame while the joint network answers duration 0.
inline constexpr int kMaxSymbolsPerFrame = 8;

// Throws TranscriptionCancelled when stop has been requested.
void throwIfCancelled(std::stop_token stop);

// Greedy token-and-duration search over the first min(frames, encoder.length) frames: a token
// and a duration per joint step, the prediction network advanced only on real tokens, a blank
// never staying on its frame, and at most kMaxSymbolsPerFrame tokens per frame. Tests stop before
// every joint step.
std::vector<int64_t> greedyTDT(const EncoderFrames &encoder, int64_t frames, TokenStepper &stepper,
                               std::stop_token stop);

} // namespace vocari
