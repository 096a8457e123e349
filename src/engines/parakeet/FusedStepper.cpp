#include "engines/parakeet/FusedStepper.h"

#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/NetworkContract.h"
#include "engines/parakeet/ParakeetErrors.h"

#include <algorithm>

namespace vocari {

namespace {

using namespace FusedNames;

constexpr std::array<const char *, 5> kInputs{encoderOutputs, targets, targetLength, states1,
                                              states2};
constexpr std::array<const char *, 3> kOutputs{logits, outStates1, outStates2};

} // namespace

FusedStepper::FusedStepper(ModelSet &models, int64_t frameWidth, const Ort::RunOptions &options)
    : m_models(models), m_options(options), m_blank(models.blankId),
      m_tokenScores(models.vocabulary.size()),
      m_frame(size_t(frameWidth), 0.0f), m_frameShape{1, frameWidth, 1},
      m_zeroState1(size_t(elementCount(models.stateShape)), 0.0f),
      m_zeroState2(size_t(elementCount(models.state2Shape)), 0.0f),
      m_targets(models.decoder->input(targets)->type, {1, 1}),
      m_targetLength(models.decoder->input(targetLength)->type, {1})
{
    m_targetLength.set(1);
    m_frameTensor = floatTensor(m_frame, m_frameShape);
}

void FusedStepper::start()
{
    m_state1 = floatTensor(m_zeroState1, m_models.stateShape);
    m_state2 = floatTensor(m_zeroState2, m_models.state2Shape);
    m_targets.set(m_blank);
}

JointDecision FusedStepper::decide()
{
    const std::array<const OrtValue *, 5> inputs{m_frameTensor, m_targets.value(),
                                                 m_targetLength.value(), m_state1, m_state2};
    for (Ort::Value &result : m_results)
        result = Ort::Value(nullptr);
    m_models.decoder->run(m_options, kInputs, inputs, kOutputs, m_results);

    const Ort::Value &scores = m_results[0];
    const auto fail = [&](const QString &problem) {
        return RuntimeError::badOutput(
            QStringLiteral("%1: \"%2\" %3")
                .arg(m_models.decoder->fileName(), QLatin1String(logits), problem));
    };
    if (!scores.IsTensor() || !m_results[1].IsTensor() || !m_results[2].IsTensor())
        throw fail(QStringLiteral("or a state is not a tensor"));
    // One step answers one row of scores, whatever its declared shape ([1, 1, 1, N]).
    const auto info = scores.GetTensorTypeAndShapeInfo();
    if (info.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT)
        throw fail(QStringLiteral("is not a float tensor"));
    const auto count = int64_t(info.GetElementCount());
    if (count <= m_tokenScores)
        throw fail(QStringLiteral("has %1 scores per step, too few for %2 tokens and durations")
                       .arg(count)
                       .arg(m_tokenScores));

    const float *values = scores.GetTensorData<float>();
    const float *tokensEnd = values + m_tokenScores;
    const float *durationsEnd = values + count;
    return {std::max_element(values, tokensEnd) - values,
            std::max_element(tokensEnd, durationsEnd) - tokensEnd};
}

void FusedStepper::accept(int64_t token)
{
    m_targets.set(token);
    m_state1 = std::move(m_results[1]);
    m_state2 = std::move(m_results[2]);
}

} // namespace vocari
