#include "engines/parakeet/GreedyTdt.h"

#include "engines/parakeet/ParakeetErrors.h"

#include <algorithm>

namespace vocari {

void EncoderFrames::copyFrame(int64_t t, std::span<float> out) const
{
    const float *at = data + t * timeStride;
    if (widthStride == 1) {
        std::copy_n(at, width, out.begin());
        return;
    }
    for (int64_t d = 0; d < width; ++d)
        out[size_t(d)] = at[d * widthStride];
}

void throwIfCancelled(std::stop_token stop)
{
    if (stop.stop_requested())
        throw TranscriptionCancelled();
}

std::vector<int64_t> greedyTDT(const EncoderFrames &encoder, int64_t frames, TokenStepper &stepper,
                               std::stop_token stop)
{
    const int64_t count = std::clamp<int64_t>(frames, 0, encoder.length);
    const int64_t blank = stepper.blankId();
    const std::span<float> step = stepper.frame();
    stepper.start();

    std::vector<int64_t> tokens;
    int64_t t = 0;
    int symbols = 0; // tokens emitted on frame t so far
    int64_t copied = -1;
    while (t < count) {
        throwIfCancelled(stop);
        if (copied != t) {
            encoder.copyFrame(t, step);
            copied = t;
        }
        const JointDecision decision = stepper.decide();
        const bool isBlank = decision.token == blank;
        if (!isBlank) {
            tokens.push_back(decision.token);
            stepper.accept(decision.token);
            ++symbols;
        }
        if (decision.duration >= 1) {
            t += decision.duration;
            symbols = 0;
        } else if (isBlank || symbols >= kMaxSymbolsPerFrame) {
            // A blank never stays on its frame, and a frame holds at most eight tokens; a
            // negative duration is taken as 0.
            t += 1;
            symbols = 0;
        }
    }
    return tokens;
}

} // namespace vocari
