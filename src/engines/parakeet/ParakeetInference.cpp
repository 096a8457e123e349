#include "engines/parakeet/ParakeetInference.h"

#include "engines/parakeet/FusedStepper.h"
#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/NetworkContract.h"
#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/SplitStepper.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

namespace vocari {

namespace {

// The encoder's output, still owned by ONNX Runtime, with the number of frames that hold audio.
struct Encoded
{
    Ort::Value frames{nullptr};
    int64_t validFrames = 0;
};

Encoded encode(std::span<const float> samples, ModelSet &models, const Ort::RunOptions &options,
               std::stop_token stop)
{
    const FrontEndNames &names = frontEndNames(models.layout.kind);
    const SignalPlan plan = planSignal(int64_t(samples.size()), models.fixedSignalLength);

    std::vector<float> signal(size_t(plan.tensorLength), 0.0f);
    std::copy_n(samples.begin(), plan.realLength, signal.begin());
    const std::array<int64_t, 2> signalShape{1, plan.tensorLength};
    const Ort::Value signalTensor = floatTensor(signal, signalShape);
    IntegerInput signalLength(models.preprocessor->input(names.signalLength)->type, {1});
    signalLength.set(plan.realLength);

    throwIfCancelled(stop);
    std::array<Ort::Value, 2> features{Ort::Value(nullptr), Ort::Value(nullptr)};
    {
        const std::array<const char *, 2> inputNames{names.signal, names.signalLength};
        const std::array<const OrtValue *, 2> inputs{signalTensor, signalLength.value()};
        const std::array<const char *, 2> outputNames{names.features, names.featuresLength};
        models.preprocessor->run(options, inputNames, inputs, outputNames, features);
    }

    // The feature length goes on to the encoder in the integer type the encoder declares.
    throwIfCancelled(stop);
    const TensorInfo &lengthWanted = *models.encoder->input(names.encoderLength);
    std::optional<IntegerInput> convertedLength;
    const auto lengthInfo = features[1].GetTensorTypeAndShapeInfo();
    if (lengthInfo.GetElementType() != lengthWanted.type) {
        const auto length = integerElement(features[1]);
        if (!length) {
            throw RuntimeError::badOutput(
                QStringLiteral("%1 gave no integer in \"%2\"")
                    .arg(models.preprocessor->fileName(), QLatin1String(names.featuresLength)));
        }
        convertedLength.emplace(lengthWanted.type, lengthInfo.GetShape());
        convertedLength->set(*length);
    }

    std::array<Ort::Value, 2> encoded{Ort::Value(nullptr), Ort::Value(nullptr)};
    {
        const std::array<const char *, 2> inputNames{names.encoderFeatures, names.encoderLength};
        const std::array<const OrtValue *, 2> inputs{
            features[0], convertedLength ? convertedLength->value() : features[1]};
        const std::array<const char *, 2> outputNames{names.encoded, names.encodedLength};
        models.encoder->run(options, inputNames, inputs, outputNames, encoded);
    }

    const auto validFrames = integerElement(encoded[1]);
    if (!validFrames) {
        throw RuntimeError::badOutput(
            QStringLiteral("%1 gave no integer in \"%2\"")
                .arg(models.encoder->fileName(), QLatin1String(names.encodedLength)));
    }
    throwIfCancelled(stop);
    return {std::move(encoded[0]), *validFrames};
}

// The encoder output as frames; it must be a float tensor of at least three dimensions.
EncoderFrames framesOf(const Ort::Value &encoded, const ModelSet &models)
{
    const auto fail = [&](const QString &problem) {
        return RuntimeError::badOutput(
            QStringLiteral("%1: \"%2\" %3")
                .arg(models.encoder->fileName(),
                     QLatin1String(frontEndNames(models.layout.kind).encoded), problem));
    };
    if (!encoded.IsTensor())
        throw fail(QStringLiteral("is not a tensor"));
    const auto info = encoded.GetTensorTypeAndShapeInfo();
    if (info.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT)
        throw fail(QStringLiteral("is not a float tensor"));
    const std::vector<int64_t> shape = info.GetShape();
    if (shape.size() < 3)
        throw fail(QStringLiteral("has %1 dimensions instead of 3").arg(shape.size()));

    // Contiguous row-major strides: the time axis steps over every later dimension.
    int64_t timeStride = 1;
    for (size_t i = 3; i < shape.size(); ++i)
        timeStride *= shape[i];
    return {encoded.GetTensorData<float>(), shape[1], shape[2], shape[2] * timeStride, timeStride};
}

std::unique_ptr<TokenStepper> makeStepper(ModelSet &models, int64_t width,
                                          const Ort::RunOptions &options)
{
    if (models.layout.fusedDecoderJoint())
        return std::make_unique<FusedStepper>(models, width, options);
    return std::make_unique<SplitStepper>(models, width, options);
}

} // namespace

SignalPlan planSignal(int64_t sampleCount, int64_t fixedLength)
{
    const int64_t capacity = fixedLength > 0 ? fixedLength : kMaxPhraseSamples;
    const int64_t real = std::clamp<int64_t>(sampleCount, 0, std::min(capacity, kMaxPhraseSamples));
    return {fixedLength > 0 ? fixedLength : real, real};
}

QString decode(std::span<const float> samples, ModelSet &models, std::stop_token stop)
{
    if (samples.empty())
        return {};

    // A request to stop also ends a network run in progress, so a long phrase on a large
    // encoder does not hold up a cancel.
    Ort::RunOptions options;
    std::stop_callback interrupt(stop, [&options] { options.SetTerminate(); });

    try {
        const Encoded encoded = encode(samples, models, options, stop);
        const EncoderFrames frames = framesOf(encoded.frames, models);
        const auto stepper = makeStepper(models, frames.width, options);
        const std::vector<int64_t> tokens = greedyTDT(frames, encoded.validFrames, *stepper, stop);
        return models.vocabulary.detokenize(tokens);
    } catch (const InferenceError &) {
        throwIfCancelled(stop); // an interrupted run fails; that is the cancellation itself
        throw;
    } catch (const Ort::Exception &error) {
        // Reading an output the way its declaration promised failed.
        throw RuntimeError::badOutput(QString::fromUtf8(error.what()));
    }
}

} // namespace vocari
