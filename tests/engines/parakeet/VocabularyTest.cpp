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
    ASSERT_EQ(sparse.size(), 3);
    EXPECT_EQ(sparse.piece(0), "a");
    EXPECT_EQ(sparse.piece(1), "");
    EXPECT_EQ(sparse.piece(2), "c");
    EXPECT_FALSE(sparse.blankId());

    // Signs are accepted by the parse; ids outside the array, empty keys and anything that is
    // not purely a decimal integer are skipped.
    const auto signs = Vocabulary::fromJson(
        R"({"+1": "one", "-0": "zero", "-1": "neg", "4": "far", "": "empty", " 2": "space",
            "2x": "junk", "99999999999999999999": "huge", "3": "three"})",
        kJson);
    ASSERT_EQ(signs.size(), 9);
    EXPECT_EQ(signs.piece(0), "zero");
    EXPECT_EQ(signs.piece(1), "one");
    EXPECT_EQ(signs.piece(2), "");
    EXPECT_EQ(signs.piece(3), "three");
    EXPECT_EQ(signs.piece(4), "far");

    EXPECT_EQ(Vocabulary::fromJson("{}", kJson).size(), 0);
}

TEST(Vocabulary, JsonThatIsNotAnObjectOfStringsIsAOneLineErrorNamingTheFile)
{
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
    ASSERT_EQ(vocab.size(), 5);
    EXPECT_EQ(vocab.piece(1), QString::fromUtf8("\xe2\x96\x81the"));
    EXPECT_EQ(vocab.piece(2), "");
    EXPECT_EQ(vocab.piece(3), ",");
    ASSERT_TRUE(vocab.blankId());
    EXPECT_EQ(*vocab.blankId(), 4);

    EXPECT_EQ(loadError("a 0\nb 1\n", false), "vocab.txt has no \"<blk>\" token.");
    EXPECT_EQ(loadError("a 0\nbroken\n<blk> 2\n", false),
              "vocab.txt line 2 is not a piece followed by its token id.");
    EXPECT_EQ(loadError("a -1\n<blk> 2\n", false),
              "vocab.txt line 1 is not a piece followed by its token id.");
    EXPECT_EQ(loadError("a 99999999\n<blk> 2\n", false),
              "vocab.txt line 1 is not a piece followed by its token id.");
}

TEST(Vocabulary, LoadReadsFilesAndReportsUnreadableOnes)
{
    QTemporaryDir dir;
    QFile file(QDir(dir.path()).filePath(kJson));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"0": "x"})");
    file.close();
    EXPECT_EQ(Vocabulary::load(file.fileName(), Vocabulary::Format::Json).piece(0), "x");

    try {
        Vocabulary::load(QDir(dir.path()).filePath("vocab.txt"), Vocabulary::Format::Text);
        FAIL() << "a missing file loaded";
    } catch (const ModelLoadError &error) {
        EXPECT_TRUE(error.message().startsWith("vocab.txt could not be read"));
    }
}

TEST(Vocabulary, DetokenizeJoinsPiecesDropsSpecialsAndTrims)
{
    const Vocabulary vocab({QString::fromUtf8("\xe2\x96\x81Hello"), ",",
                            QString::fromUtf8("\xe2\x96\x81world"), "<en>", "<", "a>",
                            QString::fromUtf8("\xe2\x96\x81\xe2\x96\x81"), "\t", "x"});
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{0, 1, 2}), "Hello, world");
    // Specials vanish; "<" and "a>" are only special when one piece holds both brackets.
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{3, 0, 3}), "Hello");
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{4, 5}), "<a>");
    // Ids outside the vocabulary are dropped silently.
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{-1, 0, 9, 8192, 2}), "Hello world");
    // Interior spacing stays as the pieces give it; tabs and spaces are trimmed at the ends.
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{7, 6, 8, 6, 8, 7}), "x  x");
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{}), "");
    EXPECT_EQ(vocab.detokenize(std::vector<int64_t>{6, 7}), "");
}

TEST(ModelLayout, DetectsTheFirstCompleteLayoutAndReportsTheClosestOnesGaps)
{
    QTemporaryDir dir;
    QDir folder(dir.path());
    const auto touch = [&](const QString &name) {
        QFile file(folder.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    };

    // Empty: the community layouts need one item fewer; of the two, int8 comes first.
    EXPECT_FALSE(ModelLayout::detect(dir.path()));
    EXPECT_EQ(ModelLayout::missingFiles(dir.path()),
              QStringList({"nemo128.onnx", "encoder-model.int8.onnx",
                           "decoder_joint-model.int8.onnx", "vocab.txt"}));
    // Two split items: the split layout lacks three, the community ones four.
    touch("Preprocessor.onnx");
    touch("Encoder.onnx");
    EXPECT_EQ(ModelLayout::missingFiles(dir.path()),
              QStringList({"Decoder.onnx", "JointDecisionv3.onnx", "parakeet_v3_vocab.json"}));
    folder.remove("Preprocessor.onnx");
    folder.remove("Encoder.onnx");

    // The community fp32 export, but a folder named like a file does not count.
    touch("nemo128.onnx");
    touch("encoder-model.onnx");
    touch("vocab.txt");
    folder.mkdir("decoder_joint-model.onnx");
    EXPECT_EQ(ModelLayout::missingFiles(dir.path()), QStringList({"decoder_joint-model.onnx"}));
    folder.rmdir("decoder_joint-model.onnx");
    touch("decoder_joint-model.onnx");
    ASSERT_TRUE(ModelLayout::detect(dir.path()));
    EXPECT_EQ(ModelLayout::detect(dir.path())->kind, ModelLayout::Kind::CommunityFp32);
    EXPECT_TRUE(ModelLayout::missingFiles(dir.path()).isEmpty());

    // With the int8 files as well, the int8 flavour comes first.
    touch("encoder-model.int8.onnx");
    touch("decoder_joint-model.int8.onnx");
    EXPECT_EQ(ModelLayout::detect(dir.path())->kind, ModelLayout::Kind::CommunityInt8);
    EXPECT_TRUE(ModelLayout::detect(dir.path())->fusedDecoderJoint());

    // And a complete split export wins over both.
    for (const QString &name : ModelLayout::all()[0].requiredItems())
        touch(name);
    EXPECT_EQ(ModelLayout::detect(dir.path())->kind, ModelLayout::Kind::Split);
    EXPECT_FALSE(ModelLayout::detect(dir.path())->fusedDecoderJoint());

    EXPECT_FALSE(ModelLayout::detect(folder.filePath("absent")));
}
