#include "engines/parakeet/SplitStepper.h"

#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/NetworkContract.h"
#include "engines/parakeet/ParakeetErrors.h"

namespace vocari {

namespace {

using namespace SplitNames;

constexpr std::array<const char *, 4> kDecoderInputs{targets, targetLength, hIn, cIn};
constexpr std::array<const char *, 3> kDecoderOutputs{decoder, hOut, cOut};
constexpr std::array<const char *, 2> kJointInputs{encoderStep, decoderStep};
constexpr std::array<const char *, 2> kJointOutputs{tokenId, duration};

void clear(std::span<Ort::Value> values)
{
    for (Ort::Value &value : values)
        value = Ort::Value(nullptr);
}

} // namespace

SplitStepper::SplitStepper(ModelSet &models, int64_t frameWidth, const Ort::RunOptions &options)
    : m_models(models), m_options(options), m_blank(models.blankId),
      m_frame(size_t(frameWidth), 0.0f), m_frameShape{1, frameWidth, 1},
      m_zeroH(size_t(elementCount(models.stateShape)), 0.0f),
      m_zeroC(size_t(elementCount(models.state2Shape)), 0.0f),
      m_targets(models.decoder->input(targets)->type, {1, 1}),
      m_targetLength(models.decoder->input(targetLength)->type, {1})
{
    m_targetLength.set(1);
    m_frameTensor = floatTensor(m_frame, m_frameShape);
}

void SplitStepper::start()
{
    m_h = floatTensor(m_zeroH, m_models.stateShape);
    m_c = floatTensor(m_zeroC, m_models.state2Shape);
    m_targets.set(m_blank);
    runDecoder();
}

void SplitStepper::runDecoder()
{
    const std::array<const OrtValue *, 4> inputs{m_targets.value(), m_targetLength.value(), m_h,
                                                 m_c};
    clear(m_decoderResults);
    m_models.decoder->run(m_options, kDecoderInputs, inputs, kDecoderOutputs, m_decoderResults);
    for (const Ort::Value &result : m_decoderResults) {
        if (!result.IsTensor()) {
            throw RuntimeError::badOutput(QStringLiteral("%1 gave an output that is not a tensor")
                                              .arg(m_models.decoder->fileName()));
        }
    }
    m_decoderOutput = std::move(m_decoderResults[0]);
    m_h = std::move(m_decoderResults[1]);
    m_c = std::move(m_decoderResults[2]);
}

JointDecision SplitStepper::decide()
{
    const std::array<const OrtValue *, 2> inputs{m_frameTensor, m_decoderOutput};
    clear(m_jointResults);
    m_models.joint->run(m_options, kJointInputs, inputs, kJointOutputs, m_jointResults);
    const auto token = integerElement(m_jointResults[0]);
    const auto frames = integerElement(m_jointResults[1]);
    if (!token || !frames) {
        throw RuntimeError::badOutput(
            QStringLiteral("%1 gave no integer in \"%2\"")
                .arg(m_models.joint->fileName(), QLatin1String(token ? duration : tokenId)));
    }
    return {*token, *frames};
}

void SplitStepper::accept(int64_t token)
{
    m_targets.set(token);
    runDecoder();
}

} // namespace vocari
