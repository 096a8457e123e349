#include "models/HubDownload.h"

#include "HubTestServer.h"
#include "ModelTestSupport.h"
#include "models/ModelFolders.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QTcpServer>
#include <gtest/gtest.h>
#include <memory>

using namespace vocari;
using vocari::test::HubTestServer;

namespace {

const QString kRepo = QStringLiteral("owner/model");

// One download against the test hub, with what it reported.
class DownloadRun
{
public:
    DownloadRun(const QString &address, const QString &repo, const QString &folder,
                HubDownload::Options options = fastOptions(), const QString &token = {})
        : download(HubEndpoint(address, token), repo, folder, options)
    {
        QObject::connect(&download, &ModelDownload::progressed,
                         [this](double fraction) { fractions << fraction; });
        QObject::connect(&download, &ModelDownload::finished, [this] { ++finishedCount; });
        download.start();
    }

    // Quick retries: the one-second pause between attempts is checked in the store's tests.
    static HubDownload::Options fastOptions()
    {
        HubDownload::Options options;
        options.retryDelay = std::chrono::milliseconds(20);
        return options;
    }

    bool waitFinished()
    {
        return test::waitUntil([this] { return finishedCount > 0; });
    }
    QString message() const { return download.error() ? download.error()->message() : QString(); }

    HubDownload download;
    QList<double> fractions;
    int finishedCount = 0;
};

class HubDownloadTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }

    // The community int8 files, each body repeating its name, served straight or redirected.
    void serveModel(const QString &repo = kRepo, bool redirect = false, int bodySize = 4096)
    {
        for (const QString &name : test::communityInt8Files()) {
            HubTestServer::File file;
            file.body = name.toUtf8().repeated(bodySize / name.size() + 1).left(bodySize);
            file.redirect = redirect;
            server.addFile(repo, name, file);
        }
    }

    HubTestServer::File &served(const QString &path, const QString &repo = kRepo)
    {
        return server.repository(repo).files[path];
    }

    QString target() const { return home.modelFolder(QStringLiteral("parakeetUltra")); }
    QString staging() const { return ModelFolders::stagingFolderOf(target()); }

    test::ScopedDataHome home;
    HubTestServer server;
};

} // namespace

TEST_F(HubDownloadTest, InstallsTheLayoutsFilesThroughRedirectsAndReportsOneFraction)
{
    serveModel(kRepo, /*redirect=*/true);
    server.addFile(kRepo, QStringLiteral("README.md"), QByteArray("not a model file"));
    server.addFile(kRepo, QStringLiteral("encoder-model.onnx"), QByteArray("fp32, not wanted"));

    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(run.waitFinished());
    EXPECT_EQ(run.finishedCount, 1);
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();

    QStringList expected = test::communityInt8Files();
    expected.sort();
    EXPECT_EQ(test::filesBelow(target()), expected);
    for (const QString &name : test::communityInt8Files())
        EXPECT_EQ(test::readFile(QDir(target()).filePath(name)), served(name).body);
    EXPECT_TRUE(ModelFolders::missingFiles(target()).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(staging()));

    // Only the layout's files were fetched, each once, and the listing asked for the whole tree.
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/README.md"), 0);
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/encoder-model.onnx"), 0);
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/vocab.txt"), 1);
    EXPECT_TRUE(server.requests().front().target.endsWith("/tree/main?recursive=true"));

    ASSERT_FALSE(run.fractions.isEmpty());
    for (qsizetype i = 1; i < run.fractions.size(); ++i)
        EXPECT_GE(run.fractions[i], run.fractions[i - 1]);
    EXPECT_DOUBLE_EQ(run.fractions.back(), 1.0);
}

TEST_F(HubDownloadTest, KeepsNestedPathsAndEncodesWhatAUrlCannotHold)
{
    const QString repo = QStringLiteral("o#1/n%2");
    const QString nested = QString::fromUtf8("Encoder.onnx/dir é#1/weight?.bin");
    server.addFile(repo, QStringLiteral("Preprocessor.onnx"), QByteArray("p"));
    server.addDirectory(repo, QStringLiteral("Encoder.onnx"));
    server.addFile(repo, nested, QByteArray("weights"));
    server.addFile(repo, QStringLiteral("Encoder.onnxX/a"), QByteArray("look-alike"));
    server.addFile(repo, QStringLiteral("Decoder.onnx"), QByteArray("d"));
    server.addDirectory(repo, QStringLiteral("JointDecisionv3.onnx"));
    server.addFile(repo, QStringLiteral("parakeet_v3_vocab.json"), QByteArray("{}"));

    DownloadRun run(server.address(), repo, target());
    ASSERT_TRUE(run.waitFinished());
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_EQ(test::readFile(QDir(target()).filePath(nested)), "weights");
    EXPECT_EQ(server.requestCount("/o#1/n%2/resolve/main/Encoder.onnxX/a"), 0);
    // A directory entry passes the presence check but brings no file: the folder is
    // incomplete, which the store's check afterwards finds.
    EXPECT_EQ(ModelFolders::missingFiles(target()),
              (QStringList{"Encoder.onnx", "JointDecisionv3.onnx"}));
}

TEST_F(HubDownloadTest, ExplainsListingFailuresAndWritesNothing)
{
    server.repository(QStringLiteral("private/repo")).listingStatus = 404;
    server.repository(QStringLiteral("broken/repo")).listingStatus = 500;
    server.repository(QStringLiteral("text/repo")).rawListing = QByteArray("<html>");
    server.addFile(QStringLiteral("partial/repo"), QStringLiteral("nemo128.onnx"), "x");
    server.addFile(QStringLiteral("partial/repo"), QStringLiteral("vocab.txt"), "x");

    const auto messageFor = [&](const QString &address, const QString &repo) {
        DownloadRun run(address, repo, target());
        EXPECT_TRUE(run.waitFinished());
        EXPECT_EQ(run.finishedCount, 1);
        EXPECT_TRUE(run.fractions.isEmpty());
        return run.message();
    };
    EXPECT_EQ(messageFor(server.address(), "private/repo"),
              QString::fromUtf8("Couldn't find \u201cprivate/repo\u201d on Hugging Face (or it "
                                "needs a login)."));
    EXPECT_EQ(messageFor(server.address(), "broken/repo"),
              QString::fromUtf8("Couldn't find \u201cbroken/repo\u201d on Hugging Face (or it "
                                "needs a login)."));
    EXPECT_EQ(messageFor(server.address(), "unknown/repo"),
              QString::fromUtf8("Couldn't find \u201cunknown/repo\u201d on Hugging Face (or it "
                                "needs a login)."));
    EXPECT_TRUE(messageFor(server.address(), "text/repo")
                    .startsWith("The repository's file list couldn't be read: "));
    EXPECT_EQ(messageFor(server.address(), "partial/repo"),
              "That repository isn't a compatible Parakeet ONNX export. Missing: "
              "encoder-model.int8.onnx, decoder_joint-model.int8.onnx.");
    EXPECT_EQ(
        messageFor("ftp://127.0.0.1", kRepo),
        QString::fromUtf8("HF_ENDPOINT isn't a usable web address: \u201cftp://127.0.0.1\u201d."));

    // A port nobody listens on.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const QString nowhere = QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort());
    closed.close();
    const QString unreachable = messageFor(nowhere, kRepo);
    EXPECT_TRUE(unreachable.startsWith("Couldn't reach the model hub: "))
        << unreachable.toStdString();
    EXPECT_FALSE(unreachable.contains('\n'));

    EXPECT_FALSE(QFileInfo::exists(home.modelsRoot()));
}

TEST_F(HubDownloadTest, RetriesAFileThatFailsTwiceAndLetsTheFractionFallBack)
{
    serveModel();
    served("vocab.txt").failuresBeforeSuccess = 2;
    served("encoder-model.int8.onnx").truncationsBeforeSuccess = 2;

    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(run.waitFinished());
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/vocab.txt"), 3);
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/encoder-model.int8.onnx"), 3);
    EXPECT_EQ(test::readFile(QDir(target()).filePath("encoder-model.int8.onnx")),
              served("encoder-model.int8.onnx").body);

    // The bytes of each broken attempt were taken back before the file started over.
    int drops = 0;
    for (qsizetype i = 1; i < run.fractions.size(); ++i)
        drops += run.fractions[i] < run.fractions[i - 1] ? 1 : 0;
    EXPECT_GE(drops, 2);
    EXPECT_DOUBLE_EQ(run.fractions.back(), 1.0);
    for (double fraction : run.fractions) {
        EXPECT_GE(fraction, 0.0);
        EXPECT_LE(fraction, 1.0);
    }
}

TEST_F(HubDownloadTest, GivesUpAfterThreeAttemptsAndLeavesTheOldModelAlone)
{
    test::writeFakeModel(target());
    const QStringList before = test::filesBelow(target());
    serveModel();
    served("decoder_joint-model.int8.onnx").status = 404;

    DownloadRun notFound(server.address(), kRepo, target());
    ASSERT_TRUE(notFound.waitFinished());
    EXPECT_EQ(notFound.message(), "The model hub answered 404 for decoder_joint-model.int8.onnx.");
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/decoder_joint-model.int8.onnx"), 3);
    EXPECT_EQ(test::filesBelow(target()), before);
    EXPECT_EQ(test::readFile(QDir(target()).filePath("vocab.txt")), "vocab.txt");
    EXPECT_FALSE(QFileInfo::exists(staging()));

    served("decoder_joint-model.int8.onnx").status = 200;
    served("decoder_joint-model.int8.onnx").truncate = true;
    DownloadRun truncated(server.address(), kRepo, target());
    ASSERT_TRUE(truncated.waitFinished());
    EXPECT_EQ(truncated.message(),
              "The download of decoder_joint-model.int8.onnx broke off before the end.");
    EXPECT_EQ(test::filesBelow(target()), before);
    EXPECT_FALSE(QFileInfo::exists(staging()));

    served("decoder_joint-model.int8.onnx").truncate = false;
    served("decoder_joint-model.int8.onnx").stall = true;
    HubDownload::Options impatient = DownloadRun::fastOptions();
    impatient.transferTimeout = std::chrono::milliseconds(200);
    DownloadRun stalled(server.address(), kRepo, target(), impatient);
    ASSERT_TRUE(stalled.waitFinished());
    EXPECT_EQ(stalled.message(), "The download of decoder_joint-model.int8.onnx timed out.");
    EXPECT_EQ(test::filesBelow(target()), before);
    EXPECT_FALSE(QFileInfo::exists(staging()));
}

TEST_F(HubDownloadTest, ReplacesAnExistingModelOnlyWhenComplete)
{
    test::writeFakeModel(target(), {QStringLiteral("vocab.txt"), QStringLiteral("old-extra.bin")});
    test::writeFakeModel(staging(), {QStringLiteral("left-by-a-crash.bin")});
    serveModel();

    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(run.waitFinished());
    ASSERT_FALSE(run.download.error()) << run.message().toStdString();
    QStringList expected = test::communityInt8Files();
    expected.sort();
    EXPECT_EQ(test::filesBelow(target()), expected);
    EXPECT_EQ(test::readFile(QDir(target()).filePath("vocab.txt")), served("vocab.txt").body);
    EXPECT_FALSE(QFileInfo::exists(staging()));
}

TEST_F(HubDownloadTest, RefusesAListingWithAnUnsafePathBeforeWritingAnything)
{
    const QString outside = QDir(home.path()).filePath(QStringLiteral("x"));
    for (const QString &hostile :
         {QStringLiteral("../x"), QStringLiteral("../../x"), QStringLiteral("/tmp/vocari-hostile"),
          QStringLiteral("sub\\..\\..\\x"), QStringLiteral("a//b")}) {
        const QString repo = QStringLiteral("evil/") + QString::number(qHash(hostile));
        serveModel(repo);
        server.addFile(repo, hostile, QByteArray("escaped"));

        DownloadRun run(server.address(), repo, target());
        ASSERT_TRUE(run.waitFinished());
        EXPECT_EQ(run.message(), "That repository lists an unsafe file path.")
            << hostile.toStdString();
        EXPECT_EQ(server.requestCount(QStringLiteral("/%1/resolve/main/vocab.txt").arg(repo)), 0);
    }
    EXPECT_TRUE(test::filesBelow(home.path()).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(outside));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/tmp/vocari-hostile")));
}

TEST_F(HubDownloadTest, CancelStopsEveryTransferAndRemovesThePartialFiles)
{
    test::writeFakeModel(target());
    const QStringList before = test::filesBelow(target());
    serveModel(kRepo, false, 64 * 1024);
    served("encoder-model.int8.onnx").stall = true;

    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(test::waitUntil([&] {
        return !run.fractions.isEmpty() && run.fractions.back() > 0.0 &&
               QFileInfo::exists(staging());
    }));
    run.download.cancel();
    EXPECT_EQ(run.finishedCount, 1);
    ASSERT_TRUE(run.download.error());
    EXPECT_TRUE(run.download.error()->isCancelled());
    EXPECT_FALSE(QFileInfo::exists(staging()));
    EXPECT_EQ(test::filesBelow(target()), before);

    // Nothing more is reported afterwards, and a second cancel is harmless.
    const qsizetype reports = run.fractions.size();
    run.download.cancel();
    test::waitUntil([] { return false; }, 200);
    EXPECT_EQ(run.fractions.size(), reports);
    EXPECT_EQ(run.finishedCount, 1);
}

TEST_F(HubDownloadTest, CancelDuringTheWaitBeforeARetryEndsAtOnce)
{
    serveModel();
    served("vocab.txt").status = 500;
    HubDownload::Options patient;
    patient.retryDelay = std::chrono::minutes(10); // the wait cannot end by itself in this test

    DownloadRun run(server.address(), kRepo, target(), patient);
    // Each failed attempt reports the fraction with its bytes taken back; then the wait begins.
    ASSERT_TRUE(test::waitUntil([&] {
        return server.requestCount("/owner/model/resolve/main/vocab.txt") == 1 &&
               server.requestCount("/owner/model/resolve/main/decoder_joint-model.int8.onnx") ==
                   1 &&
               QFileInfo::exists(QDir(staging()).filePath("decoder_joint-model.int8.onnx")) &&
               QFileInfo::exists(QDir(staging()).filePath("nemo128.onnx")) &&
               QFileInfo::exists(QDir(staging()).filePath("encoder-model.int8.onnx"));
    }));
    // Give the client the moment it needs to read the failed answer and begin waiting.
    test::waitUntil([] { return false; }, 200);
    ASSERT_EQ(run.finishedCount, 0);
    run.download.cancel();
    EXPECT_EQ(run.finishedCount, 1);
    EXPECT_TRUE(run.download.error() && run.download.error()->isCancelled());
    EXPECT_FALSE(QFileInfo::exists(staging()));
    test::waitUntil([] { return false; }, 200);
    EXPECT_EQ(server.requestCount("/owner/model/resolve/main/vocab.txt"), 1);
    EXPECT_EQ(run.finishedCount, 1);
}

TEST_F(HubDownloadTest, RunsAtMostThreeTransfersAtOnceInListingOrder)
{
    // Seven files, some inside folders named like the required items.
    const QStringList names{"Preprocessor.onnx/a.bin", "Encoder.onnx/w1.bin",
                            "Encoder.onnx/w2.bin",     "Encoder.onnx/w3.bin",
                            "Decoder.onnx/d.bin",      "JointDecisionv3.onnx/j.bin",
                            "parakeet_v3_vocab.json"};
    for (const QString &name : names) {
        HubTestServer::File file;
        file.body = name.toUtf8().repeated(100);
        file.gate = true;
        server.addFile(kRepo, name, file);
    }
    // The first answers wait until a fourth request comes in or half a second has passed: a
    // client that ran four transfers at once would be seen doing it.
    server.setGate(4, 500);

    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(run.waitFinished());
    EXPECT_EQ(run.finishedCount, 1);
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_EQ(server.maxConcurrentFiles(), 3);

    QStringList started;
    int ended = 0;
    for (const auto &event : server.fileEvents()) {
        if (event.kind == HubTestServer::FileEvent::Ended) {
            ++ended;
            continue;
        }
        // A request can only arrive once all but two of the earlier ones have been answered.
        EXPECT_GE(ended, started.size() - 2) << event.path.toStdString();
        started << event.path;
    }
    ASSERT_EQ(started.size(), names.size());
    EXPECT_EQ(QSet<QString>(started.begin(), started.begin() + 3),
              QSet<QString>(names.begin(), names.begin() + 3));
}

TEST_F(HubDownloadTest, CountsUnsizedListingsAsDoneFromTheFirstByte)
{
    serveModel();
    for (const QString &name : test::communityInt8Files()) {
        served(name).useBodySize = false;
        served(name).listedSize.reset();
    }
    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(run.waitFinished());
    EXPECT_FALSE(run.download.error());
    ASSERT_FALSE(run.fractions.isEmpty());
    for (double fraction : run.fractions)
        EXPECT_DOUBLE_EQ(fraction, 1.0);
}

TEST_F(HubDownloadTest, SendsTheTokenToTheHubButNotToWhereItRedirects)
{
    HubTestServer cdn;
    ASSERT_TRUE(cdn.start());
    cdn.addFile(QStringLiteral("mirror/files"), QStringLiteral("vocab.txt"),
                QByteArray("from cdn"));
    serveModel();
    served("vocab.txt").redirectTo = cdn.address() + "/mirror/files/resolve/main/vocab.txt";

    DownloadRun run(server.address(), kRepo, target(), DownloadRun::fastOptions(),
                    QStringLiteral("hf_secret"));
    ASSERT_TRUE(run.waitFinished());
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_EQ(test::readFile(QDir(target()).filePath("vocab.txt")), "from cdn");

    ASSERT_FALSE(server.requests().isEmpty());
    for (const auto &request : server.requests())
        EXPECT_EQ(request.authorization, "Bearer hf_secret") << request.path.toStdString();
    ASSERT_EQ(cdn.requests().size(), 1);
    EXPECT_TRUE(cdn.requests().front().authorization.isEmpty());
}
