#include "engines/parakeet/ModelSet.h"

#include "engines/parakeet/NetworkContract.h"
#include "engines/parakeet/ParakeetErrors.h"

#include <QDir>
#include <QFileInfo>
#include <future>
#include <thread>

namespace vocari {

namespace {

using NetworkLoad = std::future<std::unique_ptr<OnnxNetwork>>;

NetworkLoad startLoading(const QDir &folder, const QString &file, int threads)
{
    if (file.isEmpty())
        return {};
    return std::async(std::launch::async, [path = folder.filePath(file), threads] {
        return OnnxNetwork::load(path, threads);
    });
}

// Waits for every load, so no thread outlives a failed attempt, then hands out the results in
// order; the first failure is thrown.
std::array<std::unique_ptr<OnnxNetwork>, 4> collect(std::array<NetworkLoad, 4> &loads)
{
    std::array<std::unique_ptr<OnnxNetwork>, 4> networks;
    std::exception_ptr firstError;
    for (size_t i = 0; i < loads.size(); ++i) {
        if (!loads[i].valid())
            continue;
        try {
            networks[i] = loads[i].get();
        } catch (...) {
            if (!firstError)
                firstError = std::current_exception();
        }
    }
    if (firstError)
        std::rethrow_exception(firstError);
    return networks;
}

void waitForAll(std::array<NetworkLoad, 4> &loads)
{
    for (auto &load : loads) {
        if (load.valid())
            load.wait();
    }
}

// The declared shape of a state input, dynamic dimensions filled in from the usual 2 × 1 × 640.
std::array<int64_t, 3> stateShapeOf(const TensorInfo &info)
{
    std::array<int64_t, 3> shape{2, 1, 640};
    for (size_t i = 0; i < 3; ++i) {
        if (auto dim = info.fixedDim(i))
            shape[i] = *dim;
    }
    shape[1] = 1; // one utterance at a time
    return shape;
}

// The element types of two tensors that pass unchanged from one network to the next must agree.
void checkPassThrough(const OnnxNetwork &from, const char *output, const OnnxNetwork &to,
                      const char *input)
{
    const TensorInfo *produced = from.output(output);
    const TensorInfo *taken = to.input(input);
    if (produced->type != ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED &&
        produced->type != taken->type) {
        throw ModelLoadError(
            QStringLiteral("%1 takes \"%2\" as %3 values but %4 gives \"%5\" as %6.")
                .arg(to.fileName(), QLatin1String(input), elementTypeName(taken->type),
                     from.fileName(), QLatin1String(output), elementTypeName(produced->type)));
    }
}

// The encoder's frame width must be what the network stepping through the frames takes.
void checkFrameWidth(const OnnxNetwork &encoder, const char *encoded, const OnnxNetwork &stepper,
                     const char *stepInput)
{
    const auto produced = encoder.output(encoded)->fixedDim(1);
    const auto taken = stepper.input(stepInput)->fixedDim(1);
    if (produced && taken && *produced != *taken) {
        throw ModelLoadError(
            QStringLiteral("%1 takes %2 values per frame in \"%3\" but %4 gives %5.")
                .arg(stepper.fileName())
                .arg(*taken)
                .arg(QLatin1String(stepInput), encoder.fileName())
                .arg(*produced));
    }
}

void checkNetworks(ModelSet &set)
{
    const auto kind = set.layout.kind;
    const FrontEndNames &names = frontEndNames(kind);
    checkContract(*set.preprocessor, preprocessorContract(kind));
    checkContract(*set.encoder, encoderContract(kind));
    checkContract(*set.decoder, decoderContract(kind));
    if (set.joint)
        checkContract(*set.joint, jointContract());

    checkPassThrough(*set.preprocessor, names.features, *set.encoder, names.encoderFeatures);
    set.fixedSignalLength = set.preprocessor->input(names.signal)->fixedDim(1).value_or(0);

    if (kind == ModelLayout::Kind::Split) {
        checkPassThrough(*set.decoder, SplitNames::decoder, *set.joint, SplitNames::decoderStep);
        checkFrameWidth(*set.encoder, names.encoded, *set.joint, SplitNames::encoderStep);
        set.stateShape = stateShapeOf(*set.decoder->input(SplitNames::hIn));
        set.state2Shape = stateShapeOf(*set.decoder->input(SplitNames::cIn));
        set.blankId = kSplitBlankId;
        return;
    }

    checkFrameWidth(*set.encoder, names.encoded, *set.decoder, FusedNames::encoderOutputs);
    set.stateShape = stateShapeOf(*set.decoder->input(FusedNames::states1));
    set.state2Shape = stateShapeOf(*set.decoder->input(FusedNames::states2));
    set.blankId = *set.vocabulary.blankId();
    const TensorInfo *logits = set.decoder->output(FusedNames::logits);
    if (!logits->shape.empty()) {
        const auto scores = logits->fixedDim(logits->shape.size() - 1);
        if (scores && *scores <= set.vocabulary.size()) {
            throw ModelLoadError(
                QStringLiteral("%1 gives %2 scores per step in \"%3\", too few for the %4 tokens "
                               "of %5 and the durations.")
                    .arg(set.decoder->fileName())
                    .arg(*scores)
                    .arg(QLatin1String(FusedNames::logits))
                    .arg(set.vocabulary.size())
                    .arg(set.layout.vocabulary));
        }
    }
}

} // namespace

QString canonicalModelDirectory(const QString &directory)
{
    return QDir::cleanPath(QFileInfo(directory).absoluteFilePath());
}

std::shared_ptr<ModelSet> loadModelSet(const QString &directory)
{
    const QString path = canonicalModelDirectory(directory);
    if (!QFileInfo(path).isDir())
        throw ModelLoadError(QStringLiteral("The model folder %1 does not exist.").arg(path));
    const auto layout = ModelLayout::detect(path);
    if (!layout) {
        throw ModelLoadError(
            QStringLiteral("The model folder %1 is missing %2.")
                .arg(path, ModelLayout::missingFiles(path).join(QStringLiteral(", "))));
    }

    const QDir folder(path);
    const int encoderThreads = int(std::max(1u, std::thread::hardware_concurrency()));
    std::array<NetworkLoad, 4> loads{startLoading(folder, layout->preprocessor, 1),
                                     startLoading(folder, layout->encoder, encoderThreads),
                                     startLoading(folder, layout->decoder, 1),
                                     startLoading(folder, layout->joint, 1)};

    auto set = std::make_shared<ModelSet>();
    set->directory = path;
    set->layout = *layout;
    try {
        set->vocabulary = Vocabulary::load(folder.filePath(layout->vocabulary),
                                           layout->jsonVocabulary() ? Vocabulary::Format::Json
                                                                    : Vocabulary::Format::Text);
    } catch (...) {
        waitForAll(loads);
        throw;
    }

    auto networks = collect(loads);
    set->preprocessor = std::move(networks[0]);
    set->encoder = std::move(networks[1]);
    set->decoder = std::move(networks[2]);
    set->joint = std::move(networks[3]);
    checkNetworks(*set);
    return set;
}

} // namespace vocari
