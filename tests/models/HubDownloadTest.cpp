#include "models/HubDownload.h"

#include "HubTestServer.h"
#include "ModelTestSupport.h"
#include "models/ModelFolders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSet>
#include <QTcpServer>
#include <gtest/gtest.h>

using namespace vocari;
using namespace std::chrono_literals;
using vocari::test::HubTestServer;

namespace {

const QString kRepo = QStringLiteral("owner/model");

// Waits that end only when the test says so.
struct FakeCountdowns
{
    struct Wait : Countdown
    {
        using Countdown::Countdown;
        void start(std::chrono::milliseconds value) override { interval = value, running = true; }
        void stop() override { running = false; }
        std::chrono::milliseconds interval{0};
        bool running = false;
    };
    QList<QPointer<Wait>> made;

    CountdownFactory factory()
    {
        return [this](QObject *parent) { return made.emplace_back(new Wait(parent)).data(); };
    }
    QList<Wait *> running(std::chrono::milliseconds interval) const
    {
        QList<Wait *> found;
        for (Wait *wait : made)
            found << (wait && wait->running && wait->interval == interval ? wait : nullptr);
        found.removeAll(nullptr);
        return found;
    }
    // Waits for the one running wait of this interval and ends it.
    bool expireTheOne(std::chrono::milliseconds interval)
    {
        if (!test::waitUntil([&] { return running(interval).size() == 1; }, 5000))
            return false;
        Wait *wait = running(interval).front();
        wait->running = false;
        emit wait->expired();
        return true;
    }
};

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

    // Quick retries on real timers; the default waits are checked with FakeCountdowns.
    static HubDownload::Options fastOptions()
    {
        HubDownload::Options options;
        options.retryDelay = 20ms;
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
    int requests(const QString &path) const
    {
        return server.requestCount("/" + kRepo + "/resolve/main/" + path);
    }
    static QStringList servedFiles()
    {
        QStringList files = test::communityInt8Files();
        files.sort();
        return files;
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

    EXPECT_EQ(test::filesBelow(target()), servedFiles());
    for (const QString &name : test::communityInt8Files())
        EXPECT_EQ(test::readFile(QDir(target()).filePath(name)), served(name).body);
    // Nothing else is left in the models folder: no staging folder, no lock.
    EXPECT_EQ(QDir(home.modelsRoot()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{"parakeetUltra"});

    // Only the layout's files were fetched, each once, and the listing asked for the whole tree.
    EXPECT_EQ(requests("README.md"), 0);
    EXPECT_EQ(requests("encoder-model.onnx"), 0);
    EXPECT_EQ(requests("vocab.txt"), 1);
    EXPECT_TRUE(server.requests().front().target.endsWith("/tree/main?recursive=true"));

    ASSERT_FALSE(run.fractions.isEmpty());
    for (qsizetype i = 1; i < run.fractions.size(); ++i)
        EXPECT_GE(run.fractions[i], run.fractions[i - 1]);
    EXPECT_DOUBLE_EQ(run.fractions.back(), 1.0);
}

TEST_F(HubDownloadTest, KeepsNestedPathsEncodesWhatAUrlCannotHoldAndCountsUnsizedFiles)
{
    // The listing gives no sizes: each file counts as done from its first byte.
    const QString repo = QStringLiteral("o#1/n%2");
    const QString nested = QString::fromUtf8("Encoder.onnx/dir é#1/weight?.bin");
    const auto addUnsized = [&](const QString &path, const QByteArray &body) {
        HubTestServer::File file;
        file.body = body;
        file.useBodySize = false;
        server.addFile(repo, path, file);
    };
    addUnsized(QStringLiteral("Preprocessor.onnx"), "p");
    server.addDirectory(repo, QStringLiteral("Encoder.onnx"));
    addUnsized(nested, "weights");
    addUnsized(QStringLiteral("Decoder.onnx"), "d");
    server.addDirectory(repo, QStringLiteral("JointDecisionv3.onnx"));
    addUnsized(QStringLiteral("parakeet_v3_vocab.json"), "{}");

    DownloadRun run(server.address(), repo, target());
    ASSERT_TRUE(run.waitFinished());
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_EQ(test::readFile(QDir(target()).filePath(nested)), "weights");
    ASSERT_FALSE(run.fractions.isEmpty());
    for (double fraction : run.fractions)
        EXPECT_DOUBLE_EQ(fraction, 1.0);
    // A directory entry passes the presence check but brings no file: the folder is
    // incomplete, which the store's check afterwards finds.
    EXPECT_EQ(ModelFolders::missingFiles(target()),
              (QStringList{"Encoder.onnx", "JointDecisionv3.onnx"}));
}

TEST_F(HubDownloadTest, ExplainsListingFailuresAndWritesNothing)
{
    server.repository(QStringLiteral("private/repo")).listingStatus = 404;
    server.repository(QStringLiteral("text/repo")).rawListing = QByteArray("<html>");

    const auto messageFor = [&](const QString &address, const QString &repo) {
        DownloadRun run(address, repo, target());
        EXPECT_TRUE(run.waitFinished());
        EXPECT_TRUE(run.fractions.isEmpty());
        return run.message();
    };
    EXPECT_EQ(messageFor(server.address(), "private/repo"),
              QString::fromUtf8("Couldn't find \u201cprivate/repo\u201d on Hugging Face (or it "
                                "needs a login)."));
    EXPECT_TRUE(messageFor(server.address(), "text/repo")
                    .startsWith("The repository's file list couldn't be read: "));
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
    EXPECT_EQ(requests("vocab.txt"), 3);
    EXPECT_EQ(requests("encoder-model.int8.onnx"), 3);
    EXPECT_EQ(test::readFile(QDir(target()).filePath("encoder-model.int8.onnx")),
              served("encoder-model.int8.onnx").body);

    // The bytes of each broken attempt were taken back before the file started over.
    int drops = 0;
    for (qsizetype i = 1; i < run.fractions.size(); ++i)
        drops += run.fractions[i] < run.fractions[i - 1] ? 1 : 0;
    EXPECT_GE(drops, 2);
    EXPECT_DOUBLE_EQ(run.fractions.back(), 1.0);
}

TEST_F(HubDownloadTest, WaitsASecondBeforeARetryAndGivesUpOnThirtySecondsOfSilence)
{
    serveModel();
    served("vocab.txt").failuresBeforeSuccess = 1;
    served("encoder-model.int8.onnx").stall = true;
    FakeCountdowns waits;
    HubDownload::Options defaults;
    defaults.countdowns = waits.factory();
    DownloadRun run(server.address(), kRepo, target(), defaults);

    // The failed file is asked for again only once its one-second wait is over.
    ASSERT_TRUE(test::waitUntil([&] { return waits.running(1s).size() == 1; }));
    test::waitUntil([] { return false; }, 100);
    EXPECT_EQ(requests("vocab.txt"), 1);
    ASSERT_TRUE(waits.expireTheOne(1s));
    ASSERT_TRUE(test::waitUntil([&] { return requests("vocab.txt") == 2; }));

    // Once the other files are in, only the stalled transfer still waits to hear from the hub,
    // for thirty seconds; each time that runs out, the attempt fails and the file is retried.
    ASSERT_TRUE(test::waitUntil([&] {
        return QFileInfo::exists(staging() + "/vocab.txt") &&
               QFileInfo::exists(staging() + "/nemo128.onnx") &&
               QFileInfo::exists(staging() + "/decoder_joint-model.int8.onnx");
    }));
    for (int attempt = 1; attempt <= 3; ++attempt) {
        ASSERT_TRUE(
            test::waitUntil([&] { return requests("encoder-model.int8.onnx") == attempt; }));
        ASSERT_TRUE(waits.expireTheOne(30s)) << attempt;
        if (attempt < 3) {
            ASSERT_TRUE(waits.expireTheOne(1s)) << attempt;
        }
    }
    ASSERT_TRUE(run.waitFinished());
    EXPECT_EQ(run.message(), "The download of encoder-model.int8.onnx timed out.");
    EXPECT_FALSE(QFileInfo::exists(staging()));

    // The real timers give up on a stalled body just the same.
    HubDownload::Options impatient = DownloadRun::fastOptions();
    impatient.transferTimeout = 200ms;
    DownloadRun stalled(server.address(), kRepo, target(), impatient);
    ASSERT_TRUE(stalled.waitFinished());
    EXPECT_EQ(stalled.message(), "The download of encoder-model.int8.onnx timed out.");
}

TEST_F(HubDownloadTest, AFailedDownloadLeavesTheOldModelAlone)
{
    test::writeFakeModel(target());
    const QStringList before = test::filesBelow(target());
    serveModel();
    const auto expectFailure = [&](const QString &message) {
        DownloadRun run(server.address(), kRepo, target());
        ASSERT_TRUE(run.waitFinished());
        EXPECT_EQ(run.message(), message);
        EXPECT_EQ(test::filesBelow(target()), before);
        EXPECT_EQ(test::readFile(QDir(target()).filePath("vocab.txt")), "vocab.txt");
        EXPECT_FALSE(QFileInfo::exists(staging()));
    };

    served("decoder_joint-model.int8.onnx").status = 404;
    expectFailure("The model hub answered 404 for decoder_joint-model.int8.onnx.");
    EXPECT_EQ(requests("decoder_joint-model.int8.onnx"), 3);

    served("decoder_joint-model.int8.onnx").status = 200;
    served("decoder_joint-model.int8.onnx").truncate = true;
    expectFailure("The download of decoder_joint-model.int8.onnx broke off before the end.");
    served("decoder_joint-model.int8.onnx").truncate = false;

    // A whole answer of another size than the listing gives, like an error page sent with
    // status 200, shorter or longer than the real file.
    HubTestServer::File &vocab = served("vocab.txt");
    vocab.useBodySize = false;
    vocab.listedSize = 4096;
    vocab.body = "<html>Service unavailable</html>";
    const int asked = requests("vocab.txt");
    expectFailure("The download of vocab.txt isn't the size the model hub lists for it.");
    EXPECT_EQ(requests("vocab.txt") - asked, 3);
    vocab.body = QByteArray(5000, 'x');
    expectFailure("The download of vocab.txt isn't the size the model hub lists for it.");
}

TEST_F(HubDownloadTest, ReplacesAModelWholeAndNeverFollowsALink)
{
    // What links in the models folder point to must survive: the model they stand for is
    // replaced by a real folder, and the staging folder's link is dropped unfollowed.
    const QString elsewhere = QDir(home.path()).filePath("elsewhere");
    const QString elsewhereToo = QDir(home.path()).filePath("elsewhere-too");
    test::writeFakeModel(elsewhere);
    test::writeFakeModel(elsewhereToo, {QStringLiteral("keep.bin")});
    QDir().mkpath(home.modelsRoot());
    ASSERT_TRUE(QFile::link(elsewhere, target()));
    ASSERT_TRUE(QFile::link(elsewhereToo, staging()));
    serveModel();

    DownloadRun run(server.address(), kRepo, target());
    ASSERT_TRUE(run.waitFinished());
    ASSERT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_TRUE(ModelFolders::isRealFolder(target()));
    EXPECT_EQ(test::filesBelow(target()), servedFiles());
    EXPECT_EQ(test::filesBelow(elsewhere), servedFiles());
    EXPECT_EQ(test::filesBelow(elsewhereToo), QStringList{"keep.bin"});
    EXPECT_EQ(
        QDir(home.modelsRoot()).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot),
        QStringList{"parakeetUltra"});

    // A real folder is replaced the same way: the old model moves aside, the new one moves
    // in, the old one goes; nothing of it is left.
    test::writeFakeModel(target(), {QStringLiteral("old-extra.bin")});
    DownloadRun again(server.address(), kRepo, target());
    ASSERT_TRUE(again.waitFinished());
    EXPECT_EQ(test::filesBelow(target()), servedFiles());
    EXPECT_EQ(QDir(home.modelsRoot()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{"parakeetUltra"});

    // Not while another program downloads the same model: its staging folder stays.
    QLockFile other(ModelFolders::lockFileOf(target()));
    ASSERT_TRUE(other.tryLock(0));
    test::writeFakeModel(staging(), {QStringLiteral("theirs.bin")});
    DownloadRun beside(server.address(), kRepo, target());
    ASSERT_TRUE(beside.waitFinished());
    EXPECT_EQ(beside.message(), "Another program is downloading this model right now.");
    EXPECT_EQ(test::filesBelow(staging()), QStringList{"theirs.bin"});
}

TEST_F(HubDownloadTest, RefusesAListingWithAnUnsafePathBeforeWritingAnything)
{
    for (const QString &hostile : {QStringLiteral("../x"), QStringLiteral("/tmp/vocari-hostile"),
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
    EXPECT_TRUE(run.download.error() && run.download.error()->isCancelled());
    EXPECT_FALSE(QFileInfo::exists(staging()));
    EXPECT_EQ(test::filesBelow(target()), before);

    // Nothing more is reported afterwards, and a second cancel is harmless.
    const qsizetype reports = run.fractions.size();
    run.download.cancel();
    test::waitUntil([] { return false; }, 200);
    EXPECT_EQ(run.fractions.size(), reports);
    EXPECT_EQ(run.finishedCount, 1);

    // A cancel during the wait before a retry ends the download at once.
    served("vocab.txt").status = 500;
    FakeCountdowns waits;
    HubDownload::Options options;
    options.countdowns = waits.factory();
    DownloadRun waiting(server.address(), kRepo, target(), options);
    ASSERT_TRUE(test::waitUntil([&] { return waits.running(1s).size() == 1; }));
    waiting.download.cancel();
    EXPECT_EQ(waiting.finishedCount, 1);
    EXPECT_TRUE(waiting.download.error() && waiting.download.error()->isCancelled());
    EXPECT_FALSE(QFileInfo::exists(staging()));
    EXPECT_TRUE(waits.running(1s).isEmpty());
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
    EXPECT_FALSE(run.download.error()) << run.message().toStdString();
    EXPECT_EQ(server.maxConcurrentFiles(), 3);

    QStringList started;
    for (const auto &request : server.requests()) {
        if (request.path.contains("/resolve/main/"))
            started << request.path.section("/resolve/main/", 1);
    }
    ASSERT_EQ(started.size(), names.size());
    EXPECT_EQ(QSet<QString>(started.begin(), started.begin() + 3),
              QSet<QString>(names.begin(), names.begin() + 3));
}

TEST_F(HubDownloadTest, SendsTheTokenToTheHubButNotToWhereItRedirects)
{
    HubTestServer cdn;
    ASSERT_TRUE(cdn.start());
    cdn.addFile(QStringLiteral("mirror/files"), QStringLiteral("vocab.txt"),
                QByteArray("from cdn"));
    serveModel();
    served("vocab.txt").body = "from cdn";
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
