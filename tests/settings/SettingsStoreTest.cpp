#include "settings/SettingsStore.h"

#include "support/EventLoop.h"
#include "support/ScopedSettings.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QTemporaryDir>
#include <atomic>
#include <gtest/gtest.h>
#include <limits>
#include <thread>
#include <vector>

namespace vocari {
namespace {

// Collects the keys a store announces as changed.
class ChangeLog
{
public:
    explicit ChangeLog(SettingsStore &store)
    {
        QObject::connect(&store, &SettingsStore::valueChanged, &m_context,
                         [this](const QString &key) { m_keys.append(key); });
    }
    const QStringList &keys() const { return m_keys; }
    qsizetype count(const QString &key) const { return m_keys.count(key); }
    void clear() { m_keys.clear(); }

private:
    QObject m_context;
    QStringList m_keys;
};

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Writes like an editor that saves through a temporary file and a rename.
void replaceFile(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    ASSERT_TRUE(file.commit());
}

// Writes like an editor that truncates and rewrites the same file.
void overwriteFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(content), content.size());
}

QJsonObject fileObject(const QString &path)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(readFile(path), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << path.toStdString();
    EXPECT_TRUE(document.isObject());
    return document.object();
}

TEST(SettingsStoreTest, ValuesKeepTheirJsonTypeAndPersist)
{
    test::ScopedSettings settings;
    SettingsStore &store = settings.store();

    store.setValue("flag", true);
    store.setValue("text", "false");
    store.setValue("whole", 42);
    store.setValue("fraction", 2.75);
    store.setValue("negative", -7.9);
    store.setValue("huge", 1e30);
    store.setValue("object", QJsonObject{{"keyCode", 57}});
    store.setValue("nothing", QJsonValue::Null);

    EXPECT_EQ(store.boolean("flag"), true);
    // A string that reads like a boolean or a number is neither.
    EXPECT_EQ(store.boolean("text"), std::nullopt);
    EXPECT_FALSE(store.boolValue("text"));
    EXPECT_EQ(store.string("text"), "false");
    EXPECT_EQ(store.number("text"), std::nullopt);
    EXPECT_EQ(store.intValue("text"), 0);
    EXPECT_EQ(store.string("whole"), std::nullopt);
    EXPECT_EQ(store.boolean("whole"), std::nullopt);

    EXPECT_EQ(store.number("fraction"), 2.75);
    EXPECT_EQ(store.intValue("whole"), 42);
    EXPECT_EQ(store.intValue("fraction"), 2);
    EXPECT_EQ(store.intValue("negative"), -7);
    EXPECT_EQ(store.intValue("huge"), std::numeric_limits<qint64>::max());
    EXPECT_EQ(store.intValue("missing"), 0);
    EXPECT_EQ(store.stringValue("missing"), QString());
    EXPECT_TRUE(store.value("missing").isUndefined());
    EXPECT_TRUE(store.value("nothing").isNull());
    EXPECT_TRUE(store.contains("nothing"));
    EXPECT_EQ(store.value("object").toObject().value("keyCode").toInt(), 57);

    store.remove("huge");
    EXPECT_FALSE(store.contains("huge"));

    // The file is a JSON object holding the same values, and a new store reads them back.
    const QJsonObject onDisk = fileObject(store.filePath());
    EXPECT_EQ(onDisk.value("text"), QJsonValue("false"));
    EXPECT_EQ(onDisk.value("flag"), QJsonValue(true));
    EXPECT_FALSE(onDisk.contains("huge"));

    SettingsStore second(store.filePath());
    for (const QString &key : onDisk.keys())
        EXPECT_EQ(second.value(key), store.value(key)) << key.toStdString();
    EXPECT_EQ(second.boolean("text"), std::nullopt);
    EXPECT_EQ(second.number("fraction"), 2.75);
    EXPECT_FALSE(second.contains("huge"));
}

TEST(SettingsStoreTest, SignalsOnlyRealChanges)
{
    test::ScopedSettings settings;
    SettingsStore &store = settings.store();
    ChangeLog log(store);

    store.setValue("a", 1);
    EXPECT_EQ(log.keys(), QStringList{"a"});
    const QByteArray written = readFile(store.filePath());

    store.setValue("a", 1); // same value again
    store.remove("absent");
    store.setValue("absent", QJsonValue::Undefined);
    EXPECT_EQ(log.keys(), QStringList{"a"});
    EXPECT_EQ(readFile(store.filePath()), written);

    store.setValue("a", "1"); // same text, another type
    store.setValue("a", QJsonValue::Null);
    store.remove("a");
    EXPECT_EQ(log.count("a"), 4);

    // Nothing arrives later from the store's own writes: once an external edit of another
    // key has been announced, the watcher's reports of the earlier writes are handled too.
    store.setValue("b", true);
    log.clear();
    QJsonObject edited = fileObject(store.filePath());
    edited.insert("c", "external");
    replaceFile(store.filePath(), QJsonDocument(edited).toJson());
    ASSERT_TRUE(test::waitUntil([&] { return log.count("c") > 0; }));
    EXPECT_EQ(log.keys(), QStringList{"c"});
}

TEST(SettingsStoreTest, MissingFileIsEmptyAndFirstWriteCreatesIt)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("nested/vocari/settings.json");
    SettingsStore store(path);

    EXPECT_TRUE(store.value("sounds").isUndefined());
    EXPECT_FALSE(QFileInfo::exists(path)); // reading creates nothing
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("nested")));

    store.setValue("sounds", false);
    ASSERT_TRUE(QFileInfo::exists(path));
    EXPECT_EQ(fileObject(path), (QJsonObject{{"sounds", false}}));
    // No temporary files are left behind.
    EXPECT_EQ(QDir(QFileInfo(path).absolutePath()).entryList(QDir::Files),
              QStringList{"settings.json"});

    // The file deleted behind the store's back reads as empty again.
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_TRUE(store.value("sounds").isUndefined());
}

TEST(SettingsStoreTest, UnparsableFileIsKeptAsideAndReplacedOnWrite)
{
    test::ScopedSettings settings;
    const QString path = settings.folder() + "/settings.json";
    const QString bad = path + ".bad";
    replaceFile(bad, "an older bad file");

    const QByteArray broken = R"({"sounds": false, "recordMode": )";
    replaceFile(path, broken);
    {
        SettingsStore store(path);
        EXPECT_TRUE(store.value("sounds").isUndefined());
        EXPECT_FALSE(QFileInfo::exists(path));
        EXPECT_EQ(readFile(bad), broken); // replaces the older one

        store.setValue("sounds", true);
        EXPECT_EQ(fileObject(path), (QJsonObject{{"sounds", true}}));
        EXPECT_EQ(readFile(bad), broken);
    }

    // Valid JSON that is not an object is set aside the same way.
    replaceFile(path, "[1, 2, 3]");
    {
        SettingsStore store(path);
        EXPECT_FALSE(store.contains("sounds"));
        EXPECT_EQ(readFile(bad), "[1, 2, 3]");
    }

    // A file damaged while the store is in use: the next read notices it.
    replaceFile(path, R"({"sounds": false})");
    SettingsStore store(path);
    EXPECT_EQ(store.boolean("sounds"), false);
    overwriteFile(path, "{\"sounds\": fals");
    EXPECT_EQ(store.boolean("sounds"), std::nullopt);
    EXPECT_EQ(readFile(bad), "{\"sounds\": fals");
    store.setValue("language", "de-DE");
    EXPECT_EQ(fileObject(path), (QJsonObject{{"language", "de-DE"}}));

    // An empty file, as an editor saving in place leaves for a moment, is simply empty.
    overwriteFile(path, "");
    EXPECT_FALSE(store.contains("language"));
    EXPECT_TRUE(QFileInfo::exists(path));
    EXPECT_EQ(readFile(bad), "{\"sounds\": fals");
}

TEST(SettingsStoreTest, ExternalEditsArePickedUp)
{
    test::ScopedSettings settings;
    SettingsStore &store = settings.store();
    store.setValue("sounds", true);
    store.setValue("hud.margin", 56);
    ChangeLog log(store);

    // Read at once, before any event is processed: the read itself notices the new file.
    replaceFile(store.filePath(), R"({"sounds": false, "hud.margin": 56, "language": "it-IT"})");
    EXPECT_EQ(store.boolean("sounds"), false);
    EXPECT_EQ(store.string("language"), "it-IT");
    EXPECT_TRUE(log.keys().isEmpty()); // announced from the event loop, not from the read
    ASSERT_TRUE(test::waitUntil([&] { return log.keys().size() >= 2; }));
    QStringList announced = log.keys();
    announced.sort();
    EXPECT_EQ(announced, (QStringList{"language", "sounds"}));

    // Without a read, the file watcher brings the news; an edit in place is seen as well.
    log.clear();
    overwriteFile(store.filePath(), R"({"sounds": false, "hud.margin": 20.5})");
    ASSERT_TRUE(test::waitUntil([&] { return log.keys().size() >= 2; }));
    announced = log.keys();
    announced.sort();
    EXPECT_EQ(announced, (QStringList{"hud.margin", "language"}));
    EXPECT_EQ(store.number("hud.margin"), 20.5);
    EXPECT_FALSE(store.contains("language"));

    // A write after an external edit keeps what the edit added.
    replaceFile(store.filePath(), R"({"sounds": false, "hud.margin": 20.5, "aiTidy": true})");
    store.setValue("liveTyping", true);
    const QJsonObject onDisk = fileObject(store.filePath());
    EXPECT_EQ(onDisk.value("aiTidy"), QJsonValue(true));
    EXPECT_EQ(onDisk.value("liveTyping"), QJsonValue(true));
    EXPECT_EQ(onDisk.value("hud.margin"), QJsonValue(20.5));

    // Two stores on one file see each other's writes.
    SettingsStore other(store.filePath());
    other.setValue("sounds", true);
    EXPECT_EQ(store.boolean("sounds"), true);
    store.setValue("recordMode", "toggle");
    EXPECT_EQ(other.string("recordMode"), "toggle");
}

TEST(SettingsStoreTest, ReadsFromOtherThreadsWhileWriting)
{
    test::ScopedSettings settings;
    SettingsStore &store = settings.store();
    store.setValue("counter", 0);

    std::atomic<bool> stop = false;
    std::atomic<int> badReads = 0;
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            qint64 last = 0;
            while (!stop) {
                // Values only ever grow, and every read sees a whole number.
                const qint64 now = SettingsStore::shared().intValue("counter");
                if (now < last || !SettingsStore::shared().number("counter"))
                    ++badReads;
                last = now;
            }
        });
    }
    for (int n = 1; n <= 200; ++n)
        store.setValue("counter", n);
    stop = true;
    for (std::thread &reader : readers)
        reader.join();

    EXPECT_EQ(badReads, 0);
    EXPECT_EQ(store.intValue("counter"), 200);
    EXPECT_EQ(fileObject(store.filePath()).value("counter").toInt(), 200);
}

TEST(SettingsStoreTest, DefaultLocationFollowsXdgConfigHome)
{
    const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
    const bool wasSet = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");
    qputenv("XDG_CONFIG_HOME", "/tmp/config-here");
    EXPECT_EQ(SettingsStore::defaultFilePath(), "/tmp/config-here/vocari/settings.json");
    qputenv("XDG_CONFIG_HOME", "relative/config");
    EXPECT_EQ(SettingsStore::defaultFilePath(), QDir::homePath() + "/.config/vocari/settings.json");
    qunsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(SettingsStore::defaultFilePath(), QDir::homePath() + "/.config/vocari/settings.json");
    if (wasSet)
        qputenv("XDG_CONFIG_HOME", saved);
}

} // namespace
} // namespace vocari
