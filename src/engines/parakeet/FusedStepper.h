#pragma once

#include "engines/parakeet/GreedyTdt.h"
#include "engines/parakeet/Tensors.h"

#include <array>

namespace vocari {

struct ModelSet;

// The community export's steps: one network ("decoder_joint-model") takes the encoder frame,
// the last emitted token and the LSTM state, and answers token scores over the vocabulary
// (blank included) followed by duration scores, plus the state after that token. The token and
// the duration are the best-scoring ones; the new state is kept only when a token is emitted.
class FusedStepper final : public TokenStepper
{
public:
    FusedStepper(ModelSet &models, int64_t frameWidth, const Ort::RunOptions &options);

    int64_t blankId() const override { return m_blank; }
    void start() override;
    std::span<float> frame() override { return m_frame; }
    JointDecision decide() override;
    void accept(int64_t token) override;

private:
    ModelSet &m_models;
    const Ort::RunOptions &m_options;
    const int64_t m_blank;
    const int64_t m_tokenScores; // scores before the durations: the vocabulary's size

    std::vector<float> m_frame;
    std::array<int64_t, 3> m_frameShape;
    Ort::Value m_frameTensor{nullptr};
    std::vector<float> m_zeroState1;
    std::vector<float> m_zeroState2;
    IntegerInput m_targets;
    IntegerInput m_targetLength;

    Ort::Value m_state1{nullptr};
    Ort::Value m_state2{nullptr};
    // "outputs", "output_states_1", "output_states_2" of the latest step
    std::array<Ort::Value, 3> m_results{Ort::Value{nullptr}, Ort::Value{nullptr},
                                        Ort::Value{nullptr}};
};

} // namespace vocari
