#include "models/ModelStore.h"

#include "HubTestServer.h"
#include "ModelTestSupport.h"
#include "engines/parakeet/ParakeetTranscriber.h"
#include "engines/system/SystemTranscriber.h"
#include "models/ModelFolders.h"
#include "settings/Preferences.h"
#include "support/ScopedSettings.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLockFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

using namespace vocari;
using vocari::test::FakeDownload;
using vocari::test::HubTestServer;
using vocari::test::kUltra;
using vocari::test::kUltraRepo;

namespace {

// Counts a store's change notifications.
struct StoreSignals
{
    explicit StoreSignals(ModelStore &store)
    {
        QObject::connect(&store, &ModelStore::stateChanged,
                         [this](const QString &id) { states << id; });
        QObject::connect(&store, &ModelStore::lastErrorChanged, [this] { ++lastError; });
        QObject::connect(&store, &ModelStore::selectedChanged, [this] { ++selected; });
        QObject::connect(&store, &ModelStore::jobsChanged, [this] { ++jobs; });
    }
    QStringList states;
    int lastError = 0, selected = 0, jobs = 0;
};

class ModelStoreTest : public ::testing::Test
{
protected:
    QJsonArray storedCustomEngines()
    {
        return settings.store().value(QString::fromLatin1(SettingsKey::customEngines)).toArray();
    }
    void storeSetting(const char *key, const QJsonValue &value)
    {
        settings.store().setValue(QString::fromLatin1(key), value);
    }
    QString ultraFolder() const { return home.modelFolder(kUltra); }
    const Engine &ultra() const { return Engine::builtIn()[2]; }
    // A custom engine as the store makes them, from a repository or from a local folder.
    static Engine custom(const QString &id, const QString &name, const QString &where,
                         bool local = false)
    {
        return Engine{id,
                      name,
                      where,
                      "Custom",
                      local ? Engine::Source::local(where) : Engine::Source::hub(where),
                      true,
                      {}};
    }

    ModelStore::Options options() { return ModelStore::Options{fakes.factory(), true}; }

    test::ScopedDataHome home;
    test::ScopedSettings settings;
    test::FakeDownloads fakes;
};

} // namespace

TEST_F(ModelStoreTest, KeepsAnInstalledSelectionAndFallsBackFromAnythingElse)
{
    {
        // First start: the built-in engine, and no models folder made just by looking.
        ModelStore store(options());
        ASSERT_EQ(store.engines(), Engine::builtIn());
        EXPECT_EQ(store.selected(), "system");
        EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
        EXPECT_FALSE(QFileInfo::exists(home.modelsRoot()));
        EXPECT_TRUE(dynamic_cast<SystemTranscriber *>(store.makeTranscriber(false).get()));
    }
    // The selected model is missing a file, or nobody knows the engine any more: back to the
    // built-in engine, written back.
    test::writeFakeModel(ultraFolder(), test::communityInt8Files().mid(0, 3));
    for (const QString &selected : {kUltra, QStringLiteral("custom-deadbeef")}) {
        storeSetting(SettingsKey::engine, selected);
        ModelStore store(options());
        EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
        EXPECT_EQ(store.selected(), "system");
        EXPECT_EQ(Preferences::engine(), "system");
    }

    // A complete model stays selected, and its size is measured in the background.
    test::writeFakeModel(ultraFolder());
    storeSetting(SettingsKey::engine, kUltra);
    ModelStore store(options());
    EXPECT_EQ(store.selected(), kUltra);
    EXPECT_EQ(store.state(kUltra), ModelState::installed());
    ASSERT_TRUE(test::waitUntil([&] { return store.sizes().contains(kUltra); }));
    EXPECT_EQ(store.sizes().value(kUltra), ModelFolders::diskSize(ultraFolder()));
    EXPECT_FALSE(store.sizes().contains("system"));
    EXPECT_TRUE(dynamic_cast<ParakeetTranscriber *>(store.makeTranscriber(true).get()));
}

TEST_F(ModelStoreTest, LoadsStoredCustomEnginesAndIgnoresDataItCannotRead)
{
    QTemporaryDir localModel;
    test::writeFakeModel(localModel.path());
    const Engine hub = custom("custom-0000000a", "Mine", "me/mine");
    const Engine local = custom("custom-0000000b", "Here", localModel.path(), true);
    const Engine impostor = custom(kUltra, "Fake", "x/y");
    // The settings file is the user's: an id that would lead out of the models folder.
    const Engine escaping = custom("../../outside", "Escape", "e/e");
    storeSetting(SettingsKey::customEngines,
                 Engine::listToJsonArray(std::vector<Engine>{hub, local, impostor, hub, escaping}));
    storeSetting(SettingsKey::engine, local.id);
    {
        ModelStore store(options());
        ASSERT_EQ(store.engines().size(), 6u);
        EXPECT_EQ(std::vector<Engine>(store.engines().begin() + 3, store.engines().end()),
                  (std::vector<Engine>{hub, local, escaping}));
        EXPECT_EQ(store.engine(kUltra), ultra());
        EXPECT_EQ(store.state(hub.id), ModelState::notInstalled());
        EXPECT_EQ(store.state(local.id), ModelState::installed());
        EXPECT_EQ(store.selected(), local.id);
        EXPECT_FALSE(store.modelFolder(escaping));

        // Removing it deletes nothing, wherever its id points.
        QDir(home.path()).mkpath("canary");
        store.remove(escaping);
        EXPECT_TRUE(QFileInfo::exists(QDir(home.path()).filePath("canary")));
    }

    // The list as JSON text, as a hand-edited file may hold it.
    storeSetting(SettingsKey::customEngines,
                 QString::fromUtf8(Engine::listToJson(std::vector<Engine>{hub})));
    EXPECT_EQ(ModelStore(options()).engines().back(), hub);

    // One unreadable record: no custom engines, and the stored data stays as it was.
    QJsonArray broken = Engine::listToJsonArray(std::vector<Engine>{hub});
    broken.append(QJsonObject{{"id", "custom-1"}});
    storeSetting(SettingsKey::customEngines, broken);
    ModelStore store(options());
    EXPECT_EQ(store.engines(), Engine::builtIn());
    EXPECT_EQ(storedCustomEngines(), broken);
}

TEST_F(ModelStoreTest, AddHubChecksTheRepositoryThenRegistersAndDownloads)
{
    ModelStore store(options());
    StoreSignals seen(store);
    const QString ownerName = QStringLiteral(
        "Enter a repository as owner/name, for example istupakov/parakeet-tdt-0.6b-v3-onnx.");

    for (const char *bad : {"parakeet", "", "a/b/c", "a / b", "a/b c", "/a/"}) {
        store.addHub(QString::fromLatin1(bad), {});
        EXPECT_EQ(store.lastError(), ownerName) << bad;
    }
    EXPECT_EQ(seen.lastError, 1); // the same message again is no change

    store.addHub(QStringLiteral(" istupakov/parakeet-tdt-0.6b-v3-onnx\n"), {});
    EXPECT_EQ(store.lastError(), "NVIDIA Parakeet Ultra already uses that repository.");
    EXPECT_EQ(store.engines().size(), 3u);
    EXPECT_TRUE(fakes.made.isEmpty());
    EXPECT_FALSE(settings.store().contains(QString::fromLatin1(SettingsKey::customEngines)));

    store.addHub(QStringLiteral("a/b"), {});
    EXPECT_TRUE(store.lastError().isEmpty());
    ASSERT_EQ(store.engines().size(), 4u);
    const Engine added = store.engines().back();
    EXPECT_TRUE(QRegularExpression("^custom-[0-9a-f]{8}$").match(added.id).hasMatch())
        << added.id.toStdString();
    EXPECT_EQ(added, custom(added.id, "b", "a/b"));
    EXPECT_EQ(store.state(added.id), ModelState::downloading(0.0));
    EXPECT_EQ(store.selected(), "system");
    EXPECT_EQ(Engine::listFromJson(storedCustomEngines()), std::vector<Engine>{added});
    ASSERT_EQ(fakes.made.size(), 1);
    EXPECT_EQ(fakes.made[0]->folder, home.modelFolder(added.id));
    EXPECT_TRUE(fakes.made[0]->started && store.isDownloading(added.id));

    // Doubled slashes pass and the repository is kept as typed; the name is not trimmed;
    // the comparison with existing repositories is exact.
    store.addHub(QStringLiteral("\tx//y/ "), QStringLiteral(" My model "));
    EXPECT_EQ(store.engines().back().source.payload(), "x//y/");
    EXPECT_EQ(store.engines().back().name, " My model ");
    store.addHub(QStringLiteral("Istupakov/parakeet-tdt-0.6b-v3-onnx"), {});
    EXPECT_TRUE(store.lastError().isEmpty());
    store.addHub(QStringLiteral("x//y/"), {});
    EXPECT_EQ(store.lastError(), " My model  already uses that repository.");
    EXPECT_EQ(store.engines().size(), 6u);
    EXPECT_EQ(storedCustomEngines().size(), 3);
}

TEST_F(ModelStoreTest, AddLocalUsesACompleteFolderInPlaceAndRemoveForgetsIt)
{
    QTemporaryDir parent;
    const QString folder = QDir(parent.path()).filePath("my parakeet");
    test::writeFakeModel(folder, {"nemo128.onnx", "encoder-model.int8.onnx"});

    ModelStore store(options());
    store.addLocal(folder, {});
    EXPECT_EQ(store.lastError(), "That folder isn't a compatible model. Missing: "
                                 "decoder_joint-model.int8.onnx, vocab.txt.");
    EXPECT_EQ(store.engines().size(), 3u);

    test::writeFakeModel(folder);
    StoreSignals seen(store);
    store.addLocal(folder + "/", {});
    EXPECT_TRUE(store.lastError().isEmpty());
    ASSERT_EQ(store.engines().size(), 4u);
    const Engine added = store.engines().back();
    EXPECT_EQ(added, custom(added.id, "my parakeet", folder, true));
    EXPECT_EQ(store.state(added.id), ModelState::installed());
    EXPECT_EQ(store.selected(), added.id);
    EXPECT_EQ(Preferences::engine(), added.id);
    EXPECT_EQ(seen.selected, 1);
    ASSERT_TRUE(test::waitUntil([&] { return store.sizes().contains(added.id); }));
    EXPECT_TRUE(fakes.made.isEmpty());

    // The same folder again is a second engine.
    store.addLocal(folder, QStringLiteral("Again"));
    EXPECT_EQ(store.engines().size(), 5u);
    EXPECT_EQ(store.engines().back().name, "Again");
    store.setSelected(added.id);

    const QStringList files = test::filesBelow(folder);
    store.remove(added);
    EXPECT_EQ(store.selected(), "system");
    EXPECT_EQ(Preferences::engine(), "system");
    EXPECT_EQ(test::filesBelow(folder), files);
    EXPECT_FALSE(store.engine(added.id) || store.states().contains(added.id) ||
                 store.sizes().contains(added.id));
    EXPECT_EQ(Engine::listFromJson(storedCustomEngines()), std::vector{store.engines().back()});
}

TEST_F(ModelStoreTest, FollowsADownloadToTheEndAndIgnoresLateReports)
{
    ModelStore store(options());
    StoreSignals seen(store);
    store.install(ultra());
    store.install(ultra());                 // one download per engine
    store.install(Engine::defaultEngine()); // nothing to download
    ASSERT_EQ(fakes.made.size(), 1);
    EXPECT_EQ(fakes.made[0]->repository, kUltraRepo);
    EXPECT_EQ(seen.jobs, 1);
    FakeDownload &download = *fakes.made[0];

    download.report(0.25);
    download.report(0.25);
    EXPECT_EQ(store.state(kUltra), ModelState::downloading(0.25));
    EXPECT_EQ(seen.states, (QStringList{kUltra, kUltra})); // 0, then 0.25 once

    // The download ends but the folder is incomplete: selected anyway, not installed.
    download.end(std::nullopt);
    EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
    EXPECT_EQ(store.selected(), kUltra);
    EXPECT_EQ(Preferences::engine(), kUltra);
    EXPECT_FALSE(store.isDownloading(kUltra));
    EXPECT_TRUE(dynamic_cast<SystemTranscriber *>(store.makeTranscriber(false).get()));
    download.report(0.9);
    EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());

    // A failure: its message, and a late report changes nothing.
    store.install(ultra());
    ASSERT_EQ(fakes.made.size(), 2);
    FakeDownload &failing = *fakes.made[1];
    failing.report(0.5);
    failing.end(DownloadError::network("The download of vocab.txt timed out."));
    failing.report(0.75);
    EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
    EXPECT_EQ(store.lastError(), "The download of vocab.txt timed out.");

    // A complete model: installed and selected; a new install clears the old message.
    store.install(ultra());
    EXPECT_TRUE(store.lastError().isEmpty());
    test::writeFakeModel(ultraFolder());
    fakes.made[2]->end(std::nullopt);
    EXPECT_EQ(store.state(kUltra), ModelState::installed());
    EXPECT_TRUE(dynamic_cast<ParakeetTranscriber *>(store.makeTranscriber(false).get()));
    ASSERT_TRUE(test::waitUntil([&] { return store.sizes().contains(kUltra); }));
    EXPECT_TRUE(store.jobs().empty());
}

TEST_F(ModelStoreTest, RemovingADownloadingEngineCancelsItQuietly)
{
    ModelStore store(options());
    store.addHub(QStringLiteral("me/custom"), {});
    const Engine custom = store.engines().back();
    store.install(ultra());
    ASSERT_EQ(fakes.made.size(), 2);

    store.remove(custom);
    EXPECT_FALSE(store.engine(custom.id) || store.states().contains(custom.id) ||
                 store.isDownloading(custom.id));
    EXPECT_TRUE(storedCustomEngines().isEmpty());

    store.cancelDownload(kUltra);
    EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
    EXPECT_TRUE(store.lastError().isEmpty());
    EXPECT_TRUE(store.jobs().empty());

    // Removing the built-in engine does nothing at all.
    store.remove(Engine::defaultEngine());
    EXPECT_EQ(store.engines().size(), 3u);
    EXPECT_EQ(store.state("system"), ModelState::installed());
}

TEST_F(ModelStoreTest, ARedownloadOfTheSelectedEngineDictatesWithTheBuiltInEngine)
{
    test::writeFakeModel(ultraFolder());
    storeSetting(SettingsKey::engine, kUltra);
    ModelStore store(options());
    ASSERT_TRUE(dynamic_cast<ParakeetTranscriber *>(store.makeTranscriber(false).get()));

    // The folder is about to be replaced: the model in it is not to be loaded meanwhile.
    store.install(ultra());
    EXPECT_TRUE(dynamic_cast<SystemTranscriber *>(store.makeTranscriber(false).get()));
    EXPECT_TRUE(dynamic_cast<SystemTranscriber *>(store.makeTranscriber(true).get()));

    // A failed download left the old model in place: it is used again.
    fakes.made[0]->end(DownloadError::network("The download of vocab.txt timed out."));
    EXPECT_EQ(store.selected(), kUltra);
    EXPECT_TRUE(dynamic_cast<ParakeetTranscriber *>(store.makeTranscriber(false).get()));
}

TEST_F(ModelStoreTest, RemovingADownloadDeletesLinksAndFilesButNeverWhatALinkPointsTo)
{
    // A link in a hub engine's place is no download of the store's: not installed.
    QTemporaryDir elsewhere;
    test::writeFakeModel(elsewhere.path());
    QDir().mkpath(home.modelsRoot());
    ASSERT_TRUE(QFile::link(elsewhere.path(), ultraFolder()));
    storeSetting(SettingsKey::engine, kUltra);
    {
        ModelStore store(options());
        EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
        EXPECT_EQ(store.selected(), "system");
        store.remove(ultra());
        EXPECT_FALSE(QFileInfo(ultraFolder()).isSymLink());
        EXPECT_EQ(test::filesBelow(elsewhere.path()).size(), 4);
    }

    // A real model with a link inside it, and a plain file where the staging folder goes.
    test::writeFakeModel(ultraFolder());
    ASSERT_TRUE(QFile::link(elsewhere.path(), ultraFolder() + "/linked"));
    test::writeFakeModel(home.modelsRoot(), {"parakeetUltra.partial"});
    ModelStore store(options());
    ASSERT_EQ(store.state(kUltra), ModelState::installed());
    store.remove(ultra());
    EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
    EXPECT_FALSE(store.sizes().contains(kUltra));
    EXPECT_TRUE(
        QDir(home.modelsRoot())
            .isEmpty(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot));
    EXPECT_EQ(test::filesBelow(elsewhere.path()).size(), 4);
}

TEST_F(ModelStoreTest, AKilledReplaceLeavesACompleteModelAtEveryStep)
{
    const QString staging = ModelFolders::stagingFolderOf(ultraFolder());
    const QString aside = ultraFolder() + ".old-0123abcd";
    const auto start = [&] {
        ModelStore store(options());
        return store.state(kUltra);
    };
    const auto leftOver = [&] {
        return QDir(home.modelsRoot()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    };
    const QStringList oldModel = test::communityInt8Files();
    const QStringList newModel = oldModel + QStringList{"new.bin"};

    // Killed while the new files were still coming in.
    test::writeFakeModel(ultraFolder(), oldModel);
    test::writeFakeModel(staging, {"nemo128.onnx"});
    EXPECT_EQ(start(), ModelState::installed());
    EXPECT_EQ(leftOver(), QStringList{kUltra});

    // Killed after the old model went aside, before the new one moved in: the old one returns.
    QDir().rename(ultraFolder(), aside);
    test::writeFakeModel(staging, newModel);
    EXPECT_EQ(start(), ModelState::installed());
    EXPECT_EQ(leftOver(), QStringList{kUltra});
    EXPECT_FALSE(QFileInfo::exists(ultraFolder() + "/new.bin"));

    // Killed after the new one moved in, before the old one was deleted, or while it was.
    test::writeFakeModel(aside, {"vocab.txt"});
    test::writeFakeModel(ultraFolder(), newModel);
    EXPECT_EQ(start(), ModelState::installed());
    EXPECT_EQ(leftOver(), QStringList{kUltra});
    EXPECT_TRUE(QFileInfo::exists(ultraFolder() + "/new.bin"));

    // While another program's download holds the lock, its staging folder is left alone.
    test::writeFakeModel(staging, {"theirs.bin"});
    QLockFile other(ModelFolders::lockFileOf(ultraFolder()));
    ASSERT_TRUE(other.tryLock(0));
    start();
    EXPECT_TRUE(QFileInfo::exists(staging + "/theirs.bin"));
    other.unlock();
    start();
    EXPECT_FALSE(QFileInfo::exists(staging));

    // A replacement that cannot be moved in leaves the old model where it was.
    EXPECT_FALSE(ModelFolders::replaceFolder(ultraFolder(), staging));
    EXPECT_EQ(leftOver(), QStringList{kUltra});
    EXPECT_TRUE(ModelFolders::missingFiles(ultraFolder()).isEmpty());
}

// The store against the test hub, with the real download.
class ModelStoreHubTest : public ModelStoreTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        endpoint.emplace("HF_ENDPOINT", server.address());
        for (const QString &name : test::communityInt8Files())
            server.addFile(kUltraRepo, name, name.toUtf8().repeated(2000));
    }

    HubTestServer server;
    std::optional<test::ScopedEnvironment> endpoint;
};

TEST_F(ModelStoreHubTest, RemovingWhileDownloadingLeavesNothingBehind)
{
    server.repository(kUltraRepo).files["encoder-model.int8.onnx"].stall = true;
    ModelStore store;
    StoreSignals seen(store);
    store.install(ultra());
    const QString staging = ModelFolders::stagingFolderOf(ultraFolder());
    ASSERT_TRUE(test::waitUntil(
        [&] { return store.state(kUltra).fraction() > 0.0 && QFileInfo::exists(staging); }));

    store.remove(ultra());
    EXPECT_EQ(store.state(kUltra), ModelState::notInstalled());
    EXPECT_TRUE(store.lastError().isEmpty());
    EXPECT_EQ(seen.lastError, 0);
    EXPECT_TRUE(store.jobs().empty());
    EXPECT_FALSE(QFileInfo::exists(staging));
    EXPECT_FALSE(QFileInfo::exists(ultraFolder()));
    EXPECT_EQ(store.selected(), "system");
}
