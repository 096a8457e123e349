#include "engines/parakeet/Vocabulary.h"

#include "engines/parakeet/ModelLayout.h"
#include "engines/parakeet/ParakeetErrors.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace vocari;

namespace {

const QString kJson = QStringLiteral("parakeet_v3_vocab.json");

QStringList pieces(const Vocabulary &vocab)
{
    QStringList out;
    for (int64_t id = 0; id < vocab.size(); ++id)
        out << vocab.piece(id);
    return out;
}

QString loadError(const QByteArray &bytes, bool json)
{
    try {
        if (json)
            Vocabulary::fromJson(bytes, kJson);
        else
            Vocabulary::fromText(bytes, QStringLiteral("vocab.txt"));
    } catch (const ModelLoadError &error) {
        return error.message();
    }
    return {};
}

} // namespace

TEST(Vocabulary, JsonObjectBecomesAnArrayAsLongAsItsEntries)
{
    // Keys 0, 2 and x: three entries, index 1 named by nobody, x not an id.
    const auto sparse = Vocabulary::fromJson(R"({"0": "a", "2": "c", "x": "z"})", kJson);
    EXPECT_EQ(pieces(sparse), QStringList({"a", "", "c"}));
    EXPECT_FALSE(sparse.blankId());

    // Signs are accepted by the parse; ids outside the array, empty keys and anything that is
    // not purely a decimal integer are skipped.
    const auto signs = Vocabulary::fromJson(
        R"({"+1": "one", "-0": "zero", "-1": "neg", "4": "far", "": "empty", " 2": "space",
            "2x": "junk", "99999999999999999999": "huge", "3": "three"})",
        kJson);
    EXPECT_EQ(pieces(signs), QStringList({"zero", "one", "", "three", "far", "", "", "", ""}));
    EXPECT_EQ(Vocabulary::fromJson("{}", kJson).size(), 0);

    // Anything but an object of strings is a one-line error naming the file.
    for (const QByteArray &bad : {QByteArray(R"(["a", "b"])"), QByteArray(R"({"0": 5})"),
                                  QByteArray(R"({"0": "a", "1": null})"), QByteArray("{\"0\": "),
                                  QByteArray(""), QByteArray("\"text\"")}) {
        const QString message = loadError(bad, true);
        EXPECT_TRUE(message.startsWith(kJson)) << bad.constData() << " → " << message.toStdString();
        EXPECT_FALSE(message.contains(u'\n'));
    }
    EXPECT_TRUE(loadError(R"({"0": 5})", true).contains("\"0\""));
}

TEST(Vocabulary, TextListsPiecesWithIdsAndNamesTheBlank)
{
    const auto vocab =
        Vocabulary::fromText("<unk> 0\n\xe2\x96\x81the 1\r\n\n, 3\n<blk> 4\n", "vocab.txt");
    EXPECT_EQ(pieces(vocab), QStringList({"<unk>", "\u2581the", "", ",", "<blk>"}));
    EXPECT_EQ(vocab.blankId(), 4);

    EXPECT_EQ(loadError("a 0\nb 1\n", false), "vocab.txt has no \"<blk>\" token.");
    for (const char *bad :
         {"a 0\nbroken\n<blk> 2\n", "a 0\nb -1\n<blk> 2\n", "a 0\nb 99999999\n"}) {
        EXPECT_EQ(loadError(bad, false),
                  "vocab.txt line 2 is not a piece followed by its token id.");
    }

    QTemporaryDir dir;
    EXPECT_THROW(Vocabulary::load(dir.filePath("vocab.txt"), Vocabulary::Format::Text),
                 ModelLoadError);
}

TEST(Vocabulary, DetokenizeJoinsPiecesDropsSpecialsAndTrims)
{
    const Vocabulary vocab(
        {"\u2581Hello", ",", "\u2581world", "<en>", "<", "a>", "\u2581\u2581", "\t", "x"});
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{0, 1, 2}), "Hello, world");
    // Specials vanish; "<" and "a>" are only special when one piece holds both brackets.
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{3, 0, 3}), "Hello");
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{4, 5}), "<a>");
    // Ids outside the vocabulary are dropped silently.
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{-1, 0, 9, 8192, 2}), "Hello world");
    // Interior spacing stays as the pieces give it; tabs and spaces are trimmed at the ends.
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{7, 6, 8, 6, 8, 7}), "x  x");
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{6, 7}), "");
}

TEST(ModelLayout, DetectsTheFirstCompleteLayoutAndReportsTheClosestOnesGaps)
{
    QTemporaryDir dir;
    QDir folder(dir.path());
    const auto touch = [&](const QStringList &names) {
        for (const QString &name : names)
            QFile(folder.filePath(name)).open(QIODevice::WriteOnly);
    };
    const auto kind = [&] { return ModelLayout::detect(dir.path())->kind; };

    // Empty: the community layouts need one item fewer; of the two, int8 comes first.
    EXPECT_FALSE(ModelLayout::detect(dir.path()));
    EXPECT_EQ(ModelLayout::missingFiles(dir.path()),
              QStringList({"nemo128.onnx", "encoder-model.int8.onnx",
                           "decoder_joint-model.int8.onnx", "vocab.txt"}));
    // Two split items: the split layout lacks three, the community ones four.
    touch({"Preprocessor.onnx", "Encoder.onnx"});
    EXPECT_EQ(ModelLayout::missingFiles(dir.path()),
              QStringList({"Decoder.onnx", "JointDecisionv3.onnx", "parakeet_v3_vocab.json"}));
    folder.remove("Preprocessor.onnx");
    folder.remove("Encoder.onnx");

    // The community fp32 export, but a folder named like a file does not count.
    touch({"nemo128.onnx", "encoder-model.onnx", "vocab.txt"});
    folder.mkdir("decoder_joint-model.onnx");
    EXPECT_EQ(ModelLayout::missingFiles(dir.path()), QStringList({"decoder_joint-model.onnx"}));
    folder.rmdir("decoder_joint-model.onnx");
    touch({"decoder_joint-model.onnx"});
    ASSERT_TRUE(ModelLayout::detect(dir.path()));
    EXPECT_EQ(kind(), ModelLayout::Kind::CommunityFp32);

    // With the int8 files as well the int8 flavour comes first, and a split export before both.
    touch({"encoder-model.int8.onnx", "decoder_joint-model.int8.onnx"});
    EXPECT_EQ(kind(), ModelLayout::Kind::CommunityInt8);
    EXPECT_TRUE(ModelLayout::detect(dir.path())->fusedDecoderJoint());
    touch(ModelLayout::all()[0].requiredItems());
    EXPECT_EQ(kind(), ModelLayout::Kind::Split);
    EXPECT_FALSE(ModelLayout::detect(dir.path())->fusedDecoderJoint());

    EXPECT_FALSE(ModelLayout::detect(folder.filePath("absent")));
}
