#pragma once

#include <onnxruntime_cxx_api.h>
#include <string>
#include <vector>

// The split layout's transcription written the plainest way with the ONNX Runtime C++ API,
// as a yardstick for the engine's own: vectors of values and names per call, fresh input
// tensors on every step, the same greedy token-and-duration search.
class BareOnnxTranscriber
{
public:
    explicit BareOnnxTranscriber(const std::string &folder);
    // Token ids for 16 kHz samples (at most 15 s for a preprocessor of fixed length).
    std::vector<int64_t> tokens(const std::vector<float> &samples);

private:
    Ort::Env m_env;
    Ort::Session m_preprocessor{nullptr};
    Ort::Session m_encoder{nullptr};
    Ort::Session m_decoder{nullptr};
    Ort::Session m_joint{nullptr};
    int64_t m_fixedSignal = 0; // the preprocessor's fixed input length, or 0 for any length
};
