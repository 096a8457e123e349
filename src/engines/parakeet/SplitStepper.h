#pragma once

#include "engines/parakeet/GreedyTdt.h"
#include "engines/parakeet/Tensors.h"

#include <array>

namespace vocari {

struct ModelSet;

// The split layout's steps: "Decoder.onnx" (the prediction network, an LSTM over the emitted
// tokens) runs only when a token is emitted, and "JointDecisionv3.onnx" answers a token id and a
// duration for each frame. The LSTM state and the decoder output are the networks' own output
// values, handed back in without copying; the other inputs are created once and rewritten in
// place.
class SplitStepper final : public TokenStepper
{
public:
    SplitStepper(ModelSet &models, int64_t frameWidth, const Ort::RunOptions &options);

    int64_t blankId() const override { return m_blank; }
    void start() override;
    std::span<float> frame() override { return m_frame; }
    JointDecision decide() override;
    void accept(int64_t token) override;

private:
    void runDecoder();

    ModelSet &m_models;
    const Ort::RunOptions &m_options;
    const int64_t m_blank;

    std::vector<float> m_frame;
    std::array<int64_t, 3> m_frameShape;
    Ort::Value m_frameTensor{nullptr};
    std::vector<float> m_zeroH;
    std::vector<float> m_zeroC;
    IntegerInput m_targets;
    IntegerInput m_targetLength;

    Ort::Value m_h{nullptr};
    Ort::Value m_c{nullptr};
    Ort::Value m_decoderOutput{nullptr};
    std::array<Ort::Value, 3> m_decoderResults{Ort::Value{nullptr}, Ort::Value{nullptr},
                                               Ort::Value{nullptr}};
    std::array<Ort::Value, 2> m_jointResults{Ort::Value{nullptr}, Ort::Value{nullptr}};
};

} // namespace vocari
