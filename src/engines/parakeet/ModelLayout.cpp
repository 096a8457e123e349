#include "engines/parakeet/ModelLayout.h"

#include <QDir>
#include <QFileInfo>
#include <array>

namespace vocari {

namespace {

const std::array<ModelLayout, 3> kLayouts{{
    {ModelLayout::Kind::Split, QStringLiteral("split"), QStringLiteral("Preprocessor.onnx"),
     QStringLiteral("Encoder.onnx"), QStringLiteral("Decoder.onnx"),
     QStringLiteral("JointDecisionv3.onnx"), QStringLiteral("parakeet_v3_vocab.json")},
    {ModelLayout::Kind::CommunityInt8, QStringLiteral("community int8"),
     QStringLiteral("nemo128.onnx"), QStringLiteral("encoder-model.int8.onnx"),
     QStringLiteral("decoder_joint-model.int8.onnx"), QString(), QStringLiteral("vocab.txt")},
    {ModelLayout::Kind::CommunityFp32, QStringLiteral("community fp32"),
     QStringLiteral("nemo128.onnx"), QStringLiteral("encoder-model.onnx"),
     QStringLiteral("decoder_joint-model.onnx"), QString(), QStringLiteral("vocab.txt")},
}};

} // namespace

QStringList ModelLayout::requiredItems() const
{
    QStringList items{preprocessor, encoder, decoder};
    if (!joint.isEmpty())
        items << joint;
    items << vocabulary;
    return items;
}

QStringList ModelLayout::missingIn(const QString &dir) const
{
    const QDir folder(dir);
    QStringList missing;
    for (const QString &item : requiredItems()) {
        if (!QFileInfo(folder.filePath(item)).isFile())
            missing << item;
    }
    return missing;
}

std::span<const ModelLayout> ModelLayout::all()
{
    return kLayouts;
}

std::optional<ModelLayout> ModelLayout::detect(const QString &dir)
{
    for (const ModelLayout &layout : kLayouts) {
        if (layout.missingIn(dir).isEmpty())
            return layout;
    }
    return std::nullopt;
}

QStringList ModelLayout::missingFiles(const QString &dir)
{
    std::optional<QStringList> fewest;
    for (const ModelLayout &layout : kLayouts) {
        QStringList missing = layout.missingIn(dir);
        if (!fewest || missing.size() < fewest->size())
            fewest = std::move(missing);
    }
    return *fewest;
}

} // namespace vocari
