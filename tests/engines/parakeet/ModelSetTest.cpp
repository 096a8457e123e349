#include "engines/parakeet/ModelSet.h"

#include "ParakeetFixtures.h"
#include "engines/parakeet/ParakeetErrors.h"

#include <QDir>
#include <gtest/gtest.h>

using namespace vocari;
using namespace vocari::test;

namespace {

// The load error for a folder, or an empty string when it loads.
QString loadError(const QString &folder)
{
    try {
        loadModelSet(folder);
    } catch (const ModelLoadError &error) {
        return error.message();
    }
    return {};
}

} // namespace

TEST(ModelSet, LoadsBothLayoutsWithWhatTheNetworksDeclare)
{
    const auto split = loadModelSet(fixturePath("split") + "/./");
    EXPECT_EQ(split->layout.kind, ModelLayout::Kind::Split);
    EXPECT_EQ(split->directory, QDir::cleanPath(fixturePath("split")));
    EXPECT_EQ(split->blankId, 8192);
    EXPECT_EQ(split->fixedSignalLength, 240000);
    EXPECT_EQ(split->stateShape, (std::array<int64_t, 3>{2, 1, 640}));
    EXPECT_EQ(loadModelSet(fixturePath("split-dynamic"))->fixedSignalLength, 0);

    // The community export names its blank in vocab.txt; its decoder and joint are one network.
    const auto community = loadModelSet(fixturePath("community"));
    EXPECT_EQ(community->layout.kind, ModelLayout::Kind::CommunityInt8);
    EXPECT_EQ(community->vocabulary.piece(community->blankId), "<blk>");
    EXPECT_FALSE(community->joint);
    // The fp32 file names of the same export.
    ModelCopy fp32("community");
    fp32.rename("encoder-model.int8.onnx", "encoder-model.onnx");
    fp32.rename("decoder_joint-model.int8.onnx", "decoder_joint-model.onnx");
    EXPECT_EQ(loadModelSet(fp32.path())->layout.kind, ModelLayout::Kind::CommunityFp32);
}

TEST(ModelSet, MissingOrDamagedFilesAreOneLineErrorsNamingTheFile)
{
    const QString absent = QDir::cleanPath(fixturePath("no-such-model"));
    EXPECT_EQ(loadError(absent), QStringLiteral("The model folder %1 does not exist.").arg(absent));

    ModelCopy missing("split");
    missing.remove("JointDecisionv3.onnx");
    missing.remove("parakeet_v3_vocab.json");
    EXPECT_EQ(loadError(missing.path()),
              QStringLiteral("The model folder %1 is missing JointDecisionv3.onnx, "
                             "parakeet_v3_vocab.json.")
                  .arg(missing.path()));

    // (fixture, file, damaged content, start of the message)
    const std::vector<std::tuple<const char *, const char *, QByteArray, QString>> damaged{
        {"split", "Encoder.onnx", QByteArray(4096, '\x7f'),
         "Encoder.onnx is not a network that can be loaded: "},
        {"community", "nemo128.onnx", {}, "nemo128.onnx is not a network that can be loaded"},
        {"split", "parakeet_v3_vocab.json", R"(["not", "an", "object"])",
         "parakeet_v3_vocab.json is not a JSON object of strings."},
        {"community", "vocab.txt", "a 0\nb 1\n", "vocab.txt has no \"<blk>\" token."}};
    for (const auto &[fixture, file, content, start] : damaged) {
        ModelCopy copy(fixture);
        copy.write(file, content);
        const QString message = loadError(copy.path());
        EXPECT_TRUE(message.startsWith(start) && !message.contains(u'\n')) << qPrintable(message);
    }

    // A bad vocabulary and a bad network at once: the vocabulary, read while the networks
    // load, is reported, and nothing is left running.
    ModelCopy both("split");
    both.write("parakeet_v3_vocab.json", "{");
    both.write("Decoder.onnx", "garbage");
    EXPECT_TRUE(loadError(both.path()).startsWith("parakeet_v3_vocab.json is not valid JSON"));
}

TEST(ModelSet, NetworksThatBreakTheContractAreRefusedNamingTheTensor)
{
    EXPECT_EQ(loadError(fixturePath("missing-output")),
              "Decoder.onnx has no output \"c_out\" (its outputs: \"decoder\", \"h_out\").");
    EXPECT_EQ(loadError(fixturePath("renamed-input")),
              "JointDecisionv3.onnx has an unexpected input \"encoder_frame\".");
    EXPECT_EQ(loadError(fixturePath("flat-encoder")),
              "Encoder.onnx: output \"encoder\" has 2 dimensions; at least 3 are needed.");
    EXPECT_EQ(loadError(fixturePath("short-scores")),
              "decoder_joint-model.int8.onnx gives 10 scores per step in \"outputs\", too few "
              "for the 13 tokens of vocab.txt and the durations.");

    // Networks of one layout in the folder of another.
    const auto swapIn = [](const char *source, const QString &target) {
        ModelCopy copy("split");
        copy.remove(target);
        QFile::copy(fixturePath(source), copy.file(target));
        return loadError(copy.path());
    };
    EXPECT_EQ(swapIn("community/nemo128.onnx", "Preprocessor.onnx"),
              "Preprocessor.onnx has an unexpected input \"waveforms\".");
    EXPECT_EQ(swapIn("split/JointDecisionv3.onnx", "Decoder.onnx"),
              "Decoder.onnx has an unexpected input \"encoder_step\".");
}
