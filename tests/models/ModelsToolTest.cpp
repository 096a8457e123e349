// vocari-models against the test hub, run as the user would run it, and the model it installs
// put to use by the store's transcriber.

#include "HubTestServer.h"
#include "ModelTestSupport.h"
#include "ProgressBar.h"
#include "engines/parakeet/ParakeetTranscriber.h"
#include "models/ModelStore.h"
#include "settings/SettingsStore.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>

using namespace vocari;
using vocari::test::HubTestServer;

namespace {

const QString kUltraRepo = QStringLiteral("istupakov/parakeet-tdt-0.6b-v3-onnx");

QString fixture(const QString &name)
{
    return QDir(QStringLiteral(VOCARI_PARAKEET_FIXTURES)).filePath(name);
}

struct ToolRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

class ModelsToolTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(configHome.isValid());
    }

    // Starts the tool; the test's own event loop keeps serving while it runs.
    std::unique_ptr<QProcess> start(const QStringList &arguments)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", home.path());
        env.insert("XDG_CONFIG_HOME", configHome.path());
        env.insert("HF_ENDPOINT", server.address());
        env.remove("HF_TOKEN");
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(env);
        process->start(QStringLiteral(VOCARI_MODELS_TOOL), arguments);
        EXPECT_TRUE(process->waitForStarted());
        return process;
    }

    ToolRun finish(QProcess &process)
    {
        EXPECT_TRUE(test::waitUntil([&] { return process.state() == QProcess::NotRunning; }));
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

    ToolRun run(const QStringList &arguments) { return finish(*start(arguments)); }
    QString settingsFile() const
    {
        return QDir(configHome.path()).filePath("vocari/settings.json");
    }
    QString storedSelection() const
    {
        return SettingsStore(settingsFile()).stringValue(QStringLiteral("engine"));
    }

    test::ScopedDataHome home;
    QTemporaryDir configHome;
    HubTestServer server;
};

} // namespace

TEST(ProgressBar, DrawsTheTruncatedPercentage)
{
    EXPECT_EQ(ProgressBar::render(0.0, 10), "[..........]   0%");
    EXPECT_EQ(ProgressBar::render(0.999, 10), "[#########.]  99%");
    EXPECT_EQ(ProgressBar::render(1.0, 10), "[##########] 100%");
    EXPECT_EQ(ProgressBar::render(-1.0, 4), "[....]   0%");
    EXPECT_EQ(ProgressBar::render(7.0, 4), "[####] 100%");
}

TEST_F(ModelsToolTest, ListsInstallsSelectsAndRemovesModels)
{
    const ToolRun first = run({"list"});
    EXPECT_EQ(first.exitCode, 0) << first.err.toStdString();
    const QStringList lines = first.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 4) << first.out.toStdString();
    EXPECT_TRUE(lines[1].startsWith("* system")) << lines[1].toStdString();
    EXPECT_TRUE(lines[3].contains(QRegularExpression("^  parakeetUltra +not installed")) &&
                lines[3].contains("hub: " + kUltraRepo))
        << lines[3].toStdString();

    server.addFolder(kUltraRepo, fixture("community"));
    const ToolRun install = run({"install", "parakeetUltra"});
    EXPECT_EQ(install.exitCode, 0) << install.err.toStdString();
    EXPECT_TRUE(install.out.startsWith("Installed NVIDIA Parakeet Ultra (parakeetUltra)"))
        << install.out.toStdString();
    EXPECT_TRUE(install.err.contains("Downloading NVIDIA Parakeet Ultra 100%"))
        << install.err.toStdString();
    EXPECT_EQ(storedSelection(), "parakeetUltra");
    EXPECT_EQ(test::filesBelow(home.modelFolder("parakeetUltra")),
              test::filesBelow(fixture("community")));

    const ToolRun listed = run({"list"});
    EXPECT_TRUE(listed.out.contains(QRegularExpression(R"(\* parakeetUltra +installed +\d)")))
        << listed.out.toStdString();

    // The application's store, on the settings the tool wrote, builds the Parakeet engine.
    {
        SettingsStore settings(settingsFile());
        SettingsStore *previous = SettingsStore::setShared(&settings);
        ModelStore store(ModelStore::Options{{}, false});
        EXPECT_EQ(store.selected(), "parakeetUltra");
        EXPECT_TRUE(dynamic_cast<ParakeetTranscriber *>(store.makeTranscriber(false).get()));
        SettingsStore::setShared(previous);
    }
    // And vocari-transcribe, given the installed folder, reads the fixture sentence with it.
    // (It runs as a program of its own: threads started in this process after a QProcess has
    // forked are beyond ThreadSanitizer's bookkeeping.)
    QFile planFile(fixture("sentence.json"));
    ASSERT_TRUE(planFile.open(QIODevice::ReadOnly));
    const QString expected =
        QJsonDocument::fromJson(planFile.readAll()).object()["text"].toString();
    QProcess transcribe;
    transcribe.start(QStringLiteral(VOCARI_TRANSCRIBE_TOOL),
                     {"--model", home.modelFolder("parakeetUltra"), fixture("sentence.wav")});
    ASSERT_TRUE(transcribe.waitForFinished(60000));
    EXPECT_EQ(transcribe.exitCode(), 0) << transcribe.readAllStandardError().toStdString();
    EXPECT_EQ(QString::fromUtf8(transcribe.readAllStandardOutput()), expected + "\n");

    EXPECT_EQ(run({"select", "system"}).exitCode, 0);
    EXPECT_EQ(storedSelection(), "system");
    const ToolRun notInstalled = run({"select", "parakeetRedux"});
    EXPECT_EQ(notInstalled.exitCode, 1);
    EXPECT_EQ(notInstalled.err.trimmed(),
              QString::fromUtf8("vocari-models: NVIDIA Parakeet Redux isn't installed; "
                                "\u201cvocari-models install parakeetRedux\u201d downloads it."));

    const ToolRun removed = run({"remove", "parakeetUltra"});
    EXPECT_EQ(removed.exitCode, 0) << removed.err.toStdString();
    EXPECT_FALSE(QFileInfo::exists(home.modelFolder("parakeetUltra")));
}

TEST_F(ModelsToolTest, FailsWithOneLineAndANonZeroStatus)
{
    server.repository("nobody/here").listingStatus = 404;
    // Messages the store and the download make are checked where they are made; here, that
    // each failure reaches the user as one line with the right status.
    const struct
    {
        QStringList arguments;
        int exitCode;
        QString error;
    } cases[] = {
        {{"add-hub", "nobody/here"}, 1, {}},
        {{"add-hub", "no-slash"}, 1, {}},
        {{"install", "parakeetUltra"}, 1, {}},
        {{"install", "system"},
         1,
         "vocari-models: Built-in Speech is built in; there is nothing to download."},
        {{"install", "nope"},
         1,
         QString::fromUtf8(
             "vocari-models: There is no engine \u201cnope\u201d; \u201cvocari-models "
             "list\u201d shows them.")},
        {{"remove", "parakeetRedux"}, 1, "vocari-models: NVIDIA Parakeet Redux isn't installed."},
        {{"add-folder", home.path()}, 1, {}},
        {{"frobnicate"}, 2, {}},
        {{"install"}, 2, {}},
        {{"list", "extra"}, 2, {}},
        {{"select", "system", "--name", "x"}, 2, {}},
    };
    for (const auto &c : cases) {
        const ToolRun result = run(c.arguments);
        const std::string what = c.arguments.join(' ').toStdString();
        EXPECT_EQ(result.exitCode, c.exitCode) << what;
        const QString last = result.err.trimmed().split('\n').last();
        EXPECT_TRUE(last.startsWith("vocari-models: ") || c.exitCode == 2) << what;
        if (!c.error.isEmpty()) {
            EXPECT_EQ(last, c.error) << what;
        }
    }
    // The failed hub repository stays listed as a custom engine, ready for another try.
    EXPECT_TRUE(run({"list"}).out.contains("hub: nobody/here"));
    EXPECT_FALSE(QFileInfo::exists(home.modelsRoot() + "/parakeetUltra"));
}

TEST_F(ModelsToolTest, AnInterruptedInstallCancelsAndCleansUp)
{
    server.addFolder(kUltraRepo, fixture("community"));
    auto &files = server.repository(kUltraRepo).files;
    files["vocab.txt"].redirect = false;
    files["vocab.txt"].stall = true;
    files["vocab.txt"].body = QByteArray(256 * 1024, 'x');

    auto process = start({"install", "parakeetUltra"});
    const QString staging = home.modelFolder("parakeetUltra") + ".partial";
    ASSERT_TRUE(test::waitUntil([&] {
        return server.requestCount("/" + kUltraRepo + "/resolve/main/vocab.txt") == 1 &&
               QFileInfo::exists(staging);
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const ToolRun result = finish(*process);
    EXPECT_EQ(result.exitCode, 130) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains("The download was cancelled; nothing was changed."));
    EXPECT_FALSE(QFileInfo::exists(staging));
    EXPECT_FALSE(QFileInfo::exists(home.modelFolder("parakeetUltra")));
}
