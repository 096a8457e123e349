#include "engines/system/DeliveryGate.h"
#include "engines/system/ResultRelay.h"
#include "engines/system/SphinxModel.h"
#include "engines/system/VocabularySpelling.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <thread>

using namespace vocari;

namespace {

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write(content);
}

// A model folder with files that carry the right signatures; the finder reads no further.
void makeModel(const QString &folder, const QString &code, bool damagedAcousticModel = false)
{
    const QString hmm = folder + QLatin1Char('/') + code;
    writeFile(hmm + QStringLiteral("/mdef"), damagedAcousticModel ? "garbage" : "BMDF\1\0\0\0");
    for (const char *name : {"means", "variances", "transition_matrices"})
        writeFile(hmm + QLatin1Char('/') + QLatin1String(name), "s3\nversion 1.0\n");
    writeFile(folder + QStringLiteral("/%1.lm.bin").arg(code), "lm");
    writeFile(folder + QStringLiteral("/%1-phone.lm.bin").arg(code), "phones");
    writeFile(folder + QStringLiteral("/cmudict-%1.dict").arg(code), "hello HH AH L OW\n");
}

} // namespace

TEST(SphinxModelFinder, NamesFoldersForALocale)
{
    using SphinxModelFinder::candidateCodes;
    EXPECT_EQ(candidateCodes("en-GB"), QStringList({"en-gb", "en", "en-us"}));
    EXPECT_EQ(candidateCodes("en-US"), QStringList({"en-us", "en"}));
    EXPECT_EQ(candidateCodes("de_DE.UTF-8"), QStringList({"de-de", "de"}));
    EXPECT_EQ(candidateCodes("fr"), QStringList({"fr"}));
    for (const char *unsafe : {"", "../../etc", "de/DE"})
        EXPECT_TRUE(candidateCodes(unsafe).isEmpty()) << unsafe;
}

TEST(SphinxModelFinder, PrefersTheWholeLocaleAndTheUsersFolderAndSkipsUnusableOnes)
{
    QTemporaryDir user;
    QTemporaryDir system;
    makeModel(system.filePath(QStringLiteral("de-de")), QStringLiteral("de-de"));
    makeModel(system.filePath(QStringLiteral("de")), QStringLiteral("de"));
    makeModel(user.filePath(QStringLiteral("de")), QStringLiteral("de"));
    makeModel(user.filePath(QStringLiteral("it-it")), QStringLiteral("it-it"), true);
    makeModel(system.filePath(QStringLiteral("it-it")), QStringLiteral("it-it"));
    makeModel(user.filePath(QStringLiteral("es")), QStringLiteral("es"));
    QFile::remove(user.filePath(QStringLiteral("es/cmudict-es.dict")));
    const QStringList roots{user.path(), system.path()};

    auto model = SphinxModelFinder::find(QStringLiteral("de-DE"), roots);
    ASSERT_TRUE(model);
    EXPECT_EQ(model->acousticModel, system.filePath(QStringLiteral("de-de/de-de")));
    // The word model and the dictionary, never the phone-loop model beside them.
    EXPECT_EQ(model->languageModel, system.filePath(QStringLiteral("de-de/de-de.lm.bin")));
    EXPECT_EQ(model->dictionary, system.filePath(QStringLiteral("de-de/cmudict-de-de.dict")));
    EXPECT_EQ(SphinxModelFinder::find(QStringLiteral("de-AT"), roots)->acousticModel,
              user.filePath(QStringLiteral("de/de")));
    // A damaged acoustic model or a missing dictionary makes a folder unusable.
    EXPECT_TRUE(SphinxModelFinder::find(QStringLiteral("it-IT"), roots)
                    ->acousticModel.startsWith(system.path()));
    EXPECT_FALSE(SphinxModelFinder::find(QStringLiteral("es-ES"), roots));
    EXPECT_FALSE(SphinxModelFinder::find(QStringLiteral("fr-FR"), roots));
    EXPECT_FALSE(SphinxModelFinder::find(QStringLiteral("de-DE"), {}));
}

TEST(VocabularySpelling, WritesTermsAsTheUserSpellsThem)
{
    const VocabularySpelling spelling(
        {"GitHub", " New  York ", "New York City", "", "Qt", "iPhone"});
    EXPECT_EQ(spelling.apply("push it to github today"), "push it to GitHub today");
    EXPECT_EQ(spelling.apply("new york city is not new york state"),
              "New York City is not New York state");
    // Whole words only.
    EXPECT_EQ(spelling.apply("githubs and iphones new"), "githubs and iphones new");
    EXPECT_EQ(VocabularySpelling().apply("github"), "github");
}

TEST(ResultRelay, TurnsResultsIntoTextAndPhrases)
{
    QStringList texts;
    QStringList commits;
    ResultRelay relay([&](const QString &t) { texts << t; },
                      [&](const QString &t) { commits << t; });

    relay.apply("hello", false);
    relay.apply("hello world", true);
    EXPECT_EQ(texts, QStringList({"hello", "hello world "}));
    EXPECT_EQ(commits, QStringList({"hello world"}));

    // A blank final result changes the text but is no phrase.
    relay.apply(" \n ", true);
    EXPECT_EQ(texts.last(), "hello world  \n  ");
    EXPECT_EQ(commits.size(), 1);
    relay.apply(" again ", true);
    EXPECT_EQ(commits.last(), "again");
}

TEST(DeliveryGate, ClosingWaitsForCallsInFlightAndRefusesLaterOnes)
{
    DeliveryGate gate;
    int calls = 0;
    EXPECT_TRUE(gate.run([&] { ++calls; }));
    EXPECT_EQ(calls, 1);

    // A call in progress on another thread: close() returns only once it has ended.
    std::promise<void> entered;
    std::atomic<bool> callEnded{false};
    std::thread caller([&] {
        gate.run([&] {
            entered.set_value();
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            callEnded = true;
        });
    });
    entered.get_future().wait();
    gate.close();
    EXPECT_TRUE(callEnded);
    caller.join();

    EXPECT_TRUE(gate.isClosed());
    EXPECT_FALSE(gate.run([&] { ++calls; }));
    EXPECT_EQ(calls, 1);
}
