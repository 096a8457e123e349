#pragma once

#include "engines/parakeet/ModelLayout.h"

#include <vector>

namespace vocari {

class OnnxNetwork;

// What one input or output of a network must be.
struct TensorRule
{
    enum class Element
    {
        Float,
        Integer,
        Any
    };

    const char *name;
    Element element = Element::Any;
    int minRank = 0; // checked only when the network declares a rank
    int maxRank = 0; // 0: no upper bound
};

// The inputs a network must take (and nothing else) and the outputs it must give (others are
// ignored).
struct NetworkContract
{
    std::vector<TensorRule> inputs;
    std::vector<TensorRule> outputs;
};

// Throws ModelLoadError naming the network's file and the tensor when network breaks contract.
void checkContract(const OnnxNetwork &network, const NetworkContract &contract);

// The names under which the feature and encoder stages exchange their tensors.
struct FrontEndNames
{
    const char *signal;          // preprocessor input: the samples
    const char *signalLength;    // preprocessor input: how many are real
    const char *features;        // preprocessor output
    const char *featuresLength;  // preprocessor output
    const char *encoderFeatures; // encoder input fed with features
    const char *encoderLength;   // encoder input fed with featuresLength
    const char *encoded;         // encoder output [1, D, T]
    const char *encodedLength;   // encoder output: valid frames
};

const FrontEndNames &frontEndNames(ModelLayout::Kind kind);

// The contracts of each network of a layout.
NetworkContract preprocessorContract(ModelLayout::Kind kind);
NetworkContract encoderContract(ModelLayout::Kind kind);
NetworkContract decoderContract(ModelLayout::Kind kind); // the fused network in community layouts
NetworkContract jointContract();                         // split layout only

// Tensor names of the split layout's prediction and joint networks.
namespace SplitNames {
inline constexpr const char *targets = "targets";
inline constexpr const char *targetLength = "target_length";
inline constexpr const char *hIn = "h_in";
inline constexpr const char *cIn = "c_in";
inline constexpr const char *decoder = "decoder";
inline constexpr const char *hOut = "h_out";
inline constexpr const char *cOut = "c_out";
inline constexpr const char *encoderStep = "encoder_step";
inline constexpr const char *decoderStep = "decoder_step";
inline constexpr const char *tokenId = "token_id";
inline constexpr const char *duration = "duration";
} // namespace SplitNames

// Tensor names of the community export's fused decoder and joint network.
namespace FusedNames {
inline constexpr const char *encoderOutputs = "encoder_outputs";
inline constexpr const char *targets = "targets";
inline constexpr const char *targetLength = "target_length";
inline constexpr const char *states1 = "input_states_1";
inline constexpr const char *states2 = "input_states_2";
inline constexpr const char *logits = "outputs";
inline constexpr const char *outStates1 = "output_states_1";
inline constexpr const char *outStates2 = "output_states_2";
} // namespace FusedNames

} // namespace vocari
