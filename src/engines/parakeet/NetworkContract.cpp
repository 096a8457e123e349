#include "engines/parakeet/NetworkContract.h"

#include "engines/parakeet/OnnxNetwork.h"
#include "engines/parakeet/ParakeetErrors.h"

#include <QStringList>

namespace vocari {

namespace {

using Element = TensorRule::Element;

QString namesOf(const std::vector<TensorInfo> &list)
{
    QStringList names;
    for (const TensorInfo &info : list)
        names << QStringLiteral("\"%1\"").arg(QString::fromStdString(info.name));
    return names.isEmpty() ? QStringLiteral("none") : names.join(QStringLiteral(", "));
}

void checkTensor(const OnnxNetwork &network, const TensorInfo &info, const TensorRule &rule,
                 const char *direction)
{
    const auto fail = [&](const QString &problem) {
        throw ModelLoadError(QStringLiteral("%1: %2 \"%3\" %4")
                                 .arg(network.fileName(), QLatin1String(direction),
                                      QLatin1String(rule.name), problem));
    };
    if (!info.isTensor)
        fail(QStringLiteral("is not a tensor."));
    if (rule.element == Element::Float && !info.isFloat())
        fail(QStringLiteral("holds %1 values; float is needed.").arg(elementTypeName(info.type)));
    if (rule.element == Element::Integer && !info.isInteger()) {
        fail(QStringLiteral("holds %1 values; int32 or int64 is needed.")
                 .arg(elementTypeName(info.type)));
    }
    const auto rank = int(info.shape.size());
    if (rank == 0)
        return; // the network does not say
    if (rank < rule.minRank || (rule.maxRank > 0 && rank > rule.maxRank)) {
        const QString expected =
            rule.maxRank == rule.minRank ? QString::number(rule.minRank)
            : rule.maxRank == 0          ? QStringLiteral("at least %1").arg(rule.minRank)
                                : QStringLiteral("%1 to %2").arg(rule.minRank).arg(rule.maxRank);
        fail(QStringLiteral("has %1 dimensions; %2 are needed.").arg(rank).arg(expected));
    }
}

} // namespace

void checkContract(const OnnxNetwork &network, const NetworkContract &contract)
{
    for (const TensorInfo &info : network.inputs()) {
        bool known = false;
        for (const TensorRule &rule : contract.inputs)
            known = known || info.name == rule.name;
        if (!known) {
            throw ModelLoadError(QStringLiteral("%1 has an unexpected input \"%2\".")
                                     .arg(network.fileName(), QString::fromStdString(info.name)));
        }
    }
    for (const TensorRule &rule : contract.inputs) {
        const TensorInfo *info = network.input(rule.name);
        if (!info) {
            throw ModelLoadError(
                QStringLiteral("%1 has no input \"%2\" (its inputs: %3).")
                    .arg(network.fileName(), QLatin1String(rule.name), namesOf(network.inputs())));
        }
        checkTensor(network, *info, rule, "input");
    }
    for (const TensorRule &rule : contract.outputs) {
        const TensorInfo *info = network.output(rule.name);
        if (!info) {
            throw ModelLoadError(
                QStringLiteral("%1 has no output \"%2\" (its outputs: %3).")
                    .arg(network.fileName(), QLatin1String(rule.name), namesOf(network.outputs())));
        }
        checkTensor(network, *info, rule, "output");
    }
}

const FrontEndNames &frontEndNames(ModelLayout::Kind kind)
{
    static const FrontEndNames split{"audio_signal", "audio_length", "mel",     "mel_length",
                                     "mel",          "mel_length",   "encoder", "encoder_length"};
    static const FrontEndNames community{"waveforms",     "waveforms_lens", "features",
                                         "features_lens", "audio_signal",   "length",
                                         "outputs",       "encoded_lengths"};
    return kind == ModelLayout::Kind::Split ? split : community;
}

NetworkContract preprocessorContract(ModelLayout::Kind kind)
{
    const FrontEndNames &names = frontEndNames(kind);
    return {{{names.signal, Element::Float, 2, 2}, {names.signalLength, Element::Integer, 1, 1}},
            {{names.features, Element::Any}, {names.featuresLength, Element::Integer}}};
}

NetworkContract encoderContract(ModelLayout::Kind kind)
{
    const FrontEndNames &names = frontEndNames(kind);
    return {{{names.encoderFeatures, Element::Any}, {names.encoderLength, Element::Integer, 1, 1}},
            {{names.encoded, Element::Float, 3}, {names.encodedLength, Element::Integer}}};
}

NetworkContract decoderContract(ModelLayout::Kind kind)
{
    if (kind == ModelLayout::Kind::Split) {
        using namespace SplitNames;
        return {{{targets, Element::Integer, 2, 2},
                 {targetLength, Element::Integer, 1, 1},
                 {hIn, Element::Float, 3, 3},
                 {cIn, Element::Float, 3, 3}},
                {{decoder, Element::Any}, {hOut, Element::Float}, {cOut, Element::Float}}};
    }
    using namespace FusedNames;
    return {{{encoderOutputs, Element::Float, 3, 3},
             {targets, Element::Integer, 2, 2},
             {targetLength, Element::Integer, 1, 1},
             {states1, Element::Float, 3, 3},
             {states2, Element::Float, 3, 3}},
            {{logits, Element::Float}, {outStates1, Element::Float}, {outStates2, Element::Float}}};
}

NetworkContract jointContract()
{
    using namespace SplitNames;
    return {{{encoderStep, Element::Float, 3, 3}, {decoderStep, Element::Any}},
            {{tokenId, Element::Integer}, {duration, Element::Integer}}};
}

} // namespace vocari
