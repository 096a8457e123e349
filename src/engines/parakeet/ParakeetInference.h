#pragma once

#include <QString>
#include <cstdint>
#include <span>
#include <stop_token>

namespace vocari {

struct ModelSet;

// Samples a phrase may hold: 15 s at 16 kHz. Longer input is cut to its start.
inline constexpr int64_t kMaxPhraseSamples = 240000;

// How many samples the preprocessor is given for a phrase of sampleCount samples: the phrase at
// its real length when the network's time axis is dynamic (fixedLength 0), else the network's
// fixed length, zero-padded. Either way at most kMaxPhraseSamples (or the fixed length) are real.
struct SignalPlan
{
    int64_t tensorLength; // samples in the signal tensor
    int64_t realLength;   // samples copied from the phrase; the rest is zeros
};
SignalPlan planSignal(int64_t sampleCount, int64_t fixedLength);

// Turns one phrase of 16 kHz mono samples into text: features, encoder, greedy token-and-
// duration search, detokenisation. Empty input gives an empty string without running anything.
// Stop is tested before each stage and before every joint step (TranscriptionCancelled), and a
// request to stop also interrupts a network that is running. Throws InferenceError when a
// network fails and RuntimeError::badOutput when one answers with something unusable.
QString decode(std::span<const float> samples, ModelSet &models, std::stop_token stop = {});

} // namespace vocari
