#include "BareOnnxTranscriber.h"

#include <algorithm>
#include <thread>

namespace {

Ort::Session open(Ort::Env &env, const std::string &path, int threads)
{
    Ort::SessionOptions options;
    options.SetIntraOpNumThreads(threads);
    options.SetInterOpNumThreads(1);
    // The session options the engine uses, so that only the code around the calls differs.
    options.AddConfigEntry("session.intra_op.allow_spinning", "0");
    return Ort::Session(env, path.c_str(), options);
}

constexpr int64_t kBlank = 8192;

} // namespace

BareOnnxTranscriber::BareOnnxTranscriber(const std::string &folder)
    : m_env(ORT_LOGGING_LEVEL_WARNING, "bare")
{
    m_preprocessor = open(m_env, folder + "/Preprocessor.onnx", 1);
    m_encoder = open(m_env, folder + "/Encoder.onnx", int(std::thread::hardware_concurrency()));
    m_decoder = open(m_env, folder + "/Decoder.onnx", 1);
    m_joint = open(m_env, folder + "/JointDecisionv3.onnx", 1);
    const auto signalShape =
        m_preprocessor.GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    m_fixedSignal = std::max<int64_t>(0, signalShape.at(1));
}

std::vector<int64_t> BareOnnxTranscriber::tokens(const std::vector<float> &samples)
{
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    const int64_t length = m_fixedSignal > 0
                               ? std::min<int64_t>(int64_t(samples.size()), m_fixedSignal)
                               : int64_t(samples.size());
    std::vector<float> signal(size_t(m_fixedSignal > 0 ? m_fixedSignal : length), 0.0f);
    std::copy_n(samples.begin(), length, signal.begin());
    std::vector<int32_t> signalLength{int32_t(length)};
    const std::vector<int64_t> signalShape{1, int64_t(signal.size())};
    const std::vector<int64_t> one{1};

    std::vector<Ort::Value> inputs;
    inputs.push_back(Ort::Value::CreateTensor<float>(memory, signal.data(), signal.size(),
                                                     signalShape.data(), 2));
    inputs.push_back(
        Ort::Value::CreateTensor<int32_t>(memory, signalLength.data(), 1, one.data(), 1));
    const char *preIn[] = {"audio_signal", "audio_length"};
    const char *preOut[] = {"mel", "mel_length"};
    auto mel = m_preprocessor.Run(Ort::RunOptions{nullptr}, preIn, inputs.data(), 2, preOut, 2);

    const char *encOut[] = {"encoder", "encoder_length"};
    auto encoded = m_encoder.Run(Ort::RunOptions{nullptr}, preOut, mel.data(), 2, encOut, 2);
    const auto shape = encoded[0].GetTensorTypeAndShapeInfo().GetShape();
    const int64_t width = shape[1];
    const int64_t frames = std::min<int64_t>(shape[2], encoded[1].GetTensorData<int32_t>()[0]);
    const float *data = encoded[0].GetTensorData<float>();

    std::vector<float> h(2 * 640, 0.0f);
    std::vector<float> c(2 * 640, 0.0f);
    const std::vector<int64_t> stateShape{2, 1, 640};
    const std::vector<int64_t> targetShape{1, 1};
    const std::vector<int64_t> stepShape{1, width, 1};
    const char *decIn[] = {"targets", "target_length", "h_in", "c_in"};
    const char *decOut[] = {"decoder", "h_out", "c_out"};
    const char *jointIn[] = {"encoder_step", "decoder_step"};
    const char *jointOut[] = {"token_id", "duration"};

    auto runDecoder = [&](int64_t token) {
        std::vector<int32_t> target{int32_t(token)};
        std::vector<int32_t> targetLength{1};
        std::vector<Ort::Value> in;
        in.push_back(
            Ort::Value::CreateTensor<int32_t>(memory, target.data(), 1, targetShape.data(), 2));
        in.push_back(
            Ort::Value::CreateTensor<int32_t>(memory, targetLength.data(), 1, one.data(), 1));
        in.push_back(
            Ort::Value::CreateTensor<float>(memory, h.data(), h.size(), stateShape.data(), 3));
        in.push_back(
            Ort::Value::CreateTensor<float>(memory, c.data(), c.size(), stateShape.data(), 3));
        auto out = m_decoder.Run(Ort::RunOptions{nullptr}, decIn, in.data(), 4, decOut, 3);
        std::copy_n(out[1].GetTensorData<float>(), h.size(), h.begin());
        std::copy_n(out[2].GetTensorData<float>(), c.size(), c.begin());
        return std::move(out[0]);
    };

    Ort::Value decoderOutput = runDecoder(kBlank);
    std::vector<int64_t> tokens;
    int64_t t = 0;
    int symbols = 0;
    while (t < frames) {
        std::vector<float> step(static_cast<size_t>(width));
        for (int64_t d = 0; d < width; ++d)
            step[size_t(d)] = data[d * shape[2] + t];
        std::vector<Ort::Value> in;
        in.push_back(
            Ort::Value::CreateTensor<float>(memory, step.data(), step.size(), stepShape.data(), 3));
        in.push_back(std::move(decoderOutput));
        auto out = m_joint.Run(Ort::RunOptions{nullptr}, jointIn, in.data(), 2, jointOut, 2);
        decoderOutput = std::move(in[1]);
        const int64_t token = out[0].GetTensorData<int32_t>()[0];
        const int64_t duration = out[1].GetTensorData<int32_t>()[0];
        if (token != kBlank) {
            tokens.push_back(token);
            decoderOutput = runDecoder(token);
            ++symbols;
        }
        if (duration > 0) {
            t += duration;
            symbols = 0;
        } else if (token == kBlank || symbols >= 8) {
            ++t;
            symbols = 0;
        }
    }
    return tokens;
}
