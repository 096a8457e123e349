#include "models/HubListing.h"

#include "ModelTestSupport.h"
#include "models/HubEndpoint.h"

#include <gtest/gtest.h>

using namespace vocari;

namespace {

HubItem file(const QString &path, std::optional<qint64> size = 10)
{
    return HubItem{QStringLiteral("file"), path, size};
}

HubItem directory(const QString &path)
{
    return HubItem{QStringLiteral("directory"), path, std::nullopt};
}

QStringList pathsOf(const DownloadPlan &plan)
{
    QStringList paths;
    for (const HubItem &item : plan.files)
        paths << item.path;
    return paths;
}

DownloadPlan planOf(const std::vector<HubItem> &items)
{
    auto result = HubListing::plan(items);
    if (auto *error = std::get_if<DownloadError>(&result))
        ADD_FAILURE() << "unexpected error: " << error->message().toStdString();
    return std::get_if<DownloadPlan>(&result) ? std::get<DownloadPlan>(result) : DownloadPlan();
}

DownloadError planError(const std::vector<HubItem> &items)
{
    auto result = HubListing::plan(items);
    if (auto *error = std::get_if<DownloadError>(&result))
        return *error;
    ADD_FAILURE() << "a plan where an error was expected";
    return DownloadError::cancelled();
}

} // namespace

TEST(HubListing, ParsesTheHubsTreeAndRefusesAnythingElse)
{
    // A large-file entry's size is that of its content, under "lfs", not that of its pointer.
    const auto items = HubListing::parse(
        R"([{"type":"file","oid":"1","size":134,"path":"model.onnx","lfs":{"size":4200}},)"
        R"({"type":"file","size":42,"path":"vocab.txt"},)"
        R"({"type":"directory","oid":"2","path":"onnx"},)"
        R"({"type":"file","path":"README.md","size":null}])");
    ASSERT_TRUE(std::holds_alternative<std::vector<HubItem>>(items));
    EXPECT_EQ(std::get<std::vector<HubItem>>(items),
              (std::vector<HubItem>{file("model.onnx", 4200), file("vocab.txt", 42),
                                    directory("onnx"), file("README.md", std::nullopt)}));

    // An absurd size is capped rather than overflowing the total.
    const auto huge = HubListing::parse(R"([{"type":"file","path":"x","size":1e300}])");
    ASSERT_TRUE(std::holds_alternative<std::vector<HubItem>>(huge));
    EXPECT_EQ(std::get<std::vector<HubItem>>(huge).front().size, qint64(1) << 40);

    for (const QByteArray &bad :
         {QByteArray("not json"), QByteArray(R"({"type":"file"})"),
          QByteArray(R"([{"type":"file"}])"), QByteArray(R"([{"path":"a"}])"),
          QByteArray(R"([{"type":"file","path":3}])"),
          QByteArray(R"([{"type":"file","path":"a","size":"12"}])"), QByteArray(R"(["a"])")}) {
        const auto result = HubListing::parse(bad);
        ASSERT_TRUE(std::holds_alternative<DownloadError>(result)) << bad.toStdString();
        const DownloadError &error = std::get<DownloadError>(result);
        EXPECT_EQ(error.kind(), DownloadError::Kind::BadListing);
        EXPECT_TRUE(error.message().startsWith("The repository's file list couldn't be read: "))
            << error.message().toStdString();
        EXPECT_FALSE(error.message().contains('\n'));
    }
}

TEST(HubListing, AcceptsOnlyPathsThatStayInsideTheStagingFolder)
{
    for (const char *safe : {"vocab.txt", "onnx/encoder-model.onnx", "a b/c..d/.hidden", "é/ü"})
        EXPECT_TRUE(HubListing::isSafePath(QString::fromUtf8(safe))) << safe;
    for (const QString &unsafe :
         {QStringLiteral(""), QStringLiteral("/etc/passwd"), QStringLiteral("../x"),
          QStringLiteral("a/../../x"), QStringLiteral("a/./b"), QStringLiteral("."),
          QStringLiteral("a//b"), QStringLiteral("a/"), QStringLiteral("a\\..\\b"),
          QStringLiteral("a") + QChar(0) + QStringLiteral("b")})
        EXPECT_FALSE(HubListing::isSafePath(unsafe)) << unsafe.toStdString();

    // One unsafe path refuses the whole listing, even one outside the model's files.
    std::vector<HubItem> items;
    for (const QString &name : test::communityInt8Files())
        items.push_back(file(name));
    items.push_back(file(QStringLiteral("../x")));
    EXPECT_EQ(planError(items).kind(), DownloadError::Kind::UnsafePath);
}

TEST(HubListing, FetchesTheFilesOfTheFirstCompleteLayoutInListingOrder)
{
    // The community repositories hold both flavours; the int8 one comes first in preference.
    const DownloadPlan both =
        planOf({file("README.md", 5), file("vocab.txt", 1), file("encoder-model.onnx", 100),
                file("encoder-model.onnx.data", 1000), file("decoder_joint-model.onnx", 50),
                file("encoder-model.int8.onnx", 30), file("nemo128.onnx", 2),
                file("decoder_joint-model.int8.onnx", 7), file(".gitattributes", 3)});
    EXPECT_EQ(both.layout, "community int8");
    EXPECT_EQ(pathsOf(both), (QStringList{"vocab.txt", "encoder-model.int8.onnx", "nemo128.onnx",
                                          "decoder_joint-model.int8.onnx"}));
    EXPECT_EQ(both.totalBytes, 1 + 30 + 2 + 7);

    // The fp32 flavour brings the encoder's external weights along.
    const DownloadPlan fp32 = planOf(
        {file("nemo128.onnx"), file("encoder-model.onnx"), file("encoder-model.onnx.data", 0),
         file("decoder_joint-model.onnx"), file("vocab.txt"), file("encoder-model.onnx.bak")});
    EXPECT_EQ(fp32.layout, "community fp32");
    EXPECT_EQ(pathsOf(fp32),
              (QStringList{"nemo128.onnx", "encoder-model.onnx", "encoder-model.onnx.data",
                           "decoder_joint-model.onnx", "vocab.txt"}));

    // Items inside a folder named like a required item belong to it; look-alikes do not.
    // A directory entry counts as present but has nothing to fetch.
    const DownloadPlan split =
        planOf({file("Preprocessor.onnx"), directory("Encoder.onnx"),
                file("Encoder.onnx/weights/weight.bin", 20), file("Encoder.onnxX/a"),
                file("Decoder.onnx"), directory("JointDecisionv3.onnx"),
                file("parakeet_v3_vocab.json"), file("nemo128.onnx"), file("vocab.txt")});
    EXPECT_EQ(split.layout, "split");
    EXPECT_EQ(pathsOf(split), (QStringList{"Preprocessor.onnx", "Encoder.onnx/weights/weight.bin",
                                           "Decoder.onnx", "parakeet_v3_vocab.json"}));

    // Sizes the hub leaves out count as nothing.
    const DownloadPlan unsized =
        planOf({file("nemo128.onnx", std::nullopt), file("encoder-model.int8.onnx", 3),
                file("decoder_joint-model.int8.onnx", std::nullopt), file("vocab.txt", 0)});
    EXPECT_EQ(unsized.totalBytes, 3);
}

TEST(HubListing, NamesWhatTheClosestLayoutLacks)
{
    const struct
    {
        std::vector<HubItem> items;
        QString missing;
    } cases[] = {
        {{file("nemo128.onnx"), file("vocab.txt"), file("README.md")},
         "encoder-model.int8.onnx, decoder_joint-model.int8.onnx"},
        {{file("Preprocessor.onnx"), file("Encoder.onnx"), file("JointDecisionv3.onnx")},
         "Decoder.onnx, parakeet_v3_vocab.json"},
        {{}, "nemo128.onnx, encoder-model.int8.onnx, decoder_joint-model.int8.onnx, vocab.txt"},
    };
    for (const auto &c : cases) {
        const DownloadError error = planError(c.items);
        EXPECT_EQ(error.kind(), DownloadError::Kind::Incompatible);
        EXPECT_EQ(error.message(),
                  "That repository isn't a compatible Parakeet ONNX export. Missing: " + c.missing +
                      ".");
    }
}

TEST(HubEndpoint, BuildsEncodedAddressesUnderTheConfiguredHost)
{
    const HubEndpoint mirror(QStringLiteral("http://127.0.0.1:8080/mirror/"));
    EXPECT_TRUE(mirror.isUsable());
    EXPECT_EQ(mirror.listingUrl("a/b").toEncoded(),
              "http://127.0.0.1:8080/mirror/api/models/a/b/tree/main?recursive=true");
    EXPECT_EQ(mirror.fileUrl("a/b", "x").toEncoded(),
              "http://127.0.0.1:8080/mirror/a/b/resolve/main/x");

    // Characters a URL cannot hold are encoded; the text reaches the hub unchanged.
    const QUrl odd =
        mirror.fileUrl(QStringLiteral("o#1/n?2"), QString::fromUtf8("dir 1/file%20é+#?.bin"));
    ASSERT_TRUE(odd.isValid());
    EXPECT_EQ(odd.toEncoded(), "http://127.0.0.1:8080/mirror/o%231/n%3F2/resolve/main/"
                               "dir%201/file%2520%C3%A9%2B%23%3F.bin");
    EXPECT_EQ(QUrl::fromPercentEncoding(odd.path(QUrl::FullyEncoded).toUtf8()),
              QString::fromUtf8("/mirror/o#1/n?2/resolve/main/dir 1/file%20é+#?.bin"));
    // Dot segments stay names instead of climbing out of the path.
    EXPECT_EQ(HubEndpoint::encodePath(QStringLiteral("../x/./y")), "%2E%2E/x/%2E/y");
    EXPECT_TRUE(mirror.listingUrl(QStringLiteral("../x")).isValid());

    for (const char *bad : {"", "ftp://host", "huggingface.co", "http://", "not a url"})
        EXPECT_FALSE(HubEndpoint(QString::fromLatin1(bad)).isUsable()) << bad;
}

TEST(HubEndpoint, SendsTheTokenToTheHubOnly)
{
    const HubEndpoint hub(QStringLiteral("https://hub.example:8443"), QStringLiteral(" secret\n"));
    EXPECT_EQ(hub.request(hub.fileUrl("a/b", "x")).rawHeader("Authorization"), "Bearer secret");
    EXPECT_EQ(hub.request(hub.listingUrl("a/b")).rawHeader("Authorization"), "Bearer secret");
    for (const char *other :
         {"https://cdn.example/x", "https://hub.example/x", "http://hub.example:8443/x"})
        EXPECT_TRUE(hub.request(QUrl(other)).rawHeader("Authorization").isEmpty()) << other;
    // Redirects are followed by hand, so that the token is never carried along, and bodies
    // come uncompressed, so that their sizes compare with the listing's.
    const QNetworkRequest request = hub.request(hub.fileUrl("a/b", "x"));
    EXPECT_EQ(request.attribute(QNetworkRequest::RedirectPolicyAttribute).toInt(),
              int(QNetworkRequest::ManualRedirectPolicy));
    EXPECT_EQ(request.rawHeader("Accept-Encoding"), "identity");
    EXPECT_FALSE(
        HubEndpoint(hub.address()).request(hub.fileUrl("a/b", "x")).hasRawHeader("Authorization"));

    test::ScopedEnvironment endpoint("HF_ENDPOINT", std::nullopt);
    test::ScopedEnvironment token("HF_TOKEN", QStringLiteral("t0k"));
    const HubEndpoint fromEnvironment = HubEndpoint::fromEnvironment();
    EXPECT_EQ(fromEnvironment.address(), "https://huggingface.co");
    EXPECT_EQ(fromEnvironment.request(fromEnvironment.listingUrl("a/b")).rawHeader("Authorization"),
              "Bearer t0k");
}
