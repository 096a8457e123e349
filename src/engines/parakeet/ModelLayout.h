#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <span>

namespace vocari {

// One way of exporting a Parakeet TDT model as ONNX files: which files a folder must hold and
// how the networks are split. The split layout has four networks with their own tensor names
// and a JSON vocabulary; the community export fuses the prediction and joint networks into one
// and lists its vocabulary in vocab.txt, in an int8 and an fp32 flavour.
struct ModelLayout
{
    enum class Kind
    {
        Split,
        CommunityInt8,
        CommunityFp32
    };

    Kind kind = Kind::Split;
    QString name; // for messages: "split", "community int8", "community fp32"
    QString preprocessor;
    QString encoder;
    QString decoder; // the fused decoder and joint network in the community layouts
    QString joint;   // empty when the decoder network also decides
    QString vocabulary;

    bool fusedDecoderJoint() const { return joint.isEmpty(); }
    bool jsonVocabulary() const { return kind == Kind::Split; }
    // Every item a folder must hold, in checking order.
    QStringList requiredItems() const;
    // The required items that dir lacks.
    QStringList missingIn(const QString &dir) const;

    // The recognised layouts, in order of preference.
    static std::span<const ModelLayout> all();
    // The first layout whose items dir holds completely, if any.
    static std::optional<ModelLayout> detect(const QString &dir);
    // The missing items of the layout that lacks the fewest (ties: the order of all()); empty
    // when dir is complete for some layout.
    static QStringList missingFiles(const QString &dir);
};

} // namespace vocari
