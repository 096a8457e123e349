#include "models/Engine.h"

#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace vocari;

namespace {

QJsonValue parse(const char *json)
{
    return QJsonDocument::fromJson(QByteArray("[") + json + "]").array().at(0);
}

// The message of decoding json as an engine, or "decoded" when it succeeds.
QString decodeFailure(const char *json)
{
    try {
        Engine::fromJson(parse(json));
        return QStringLiteral("decoded");
    } catch (const EngineDecodeError &error) {
        return error.message();
    }
}

Engine customHub()
{
    return Engine{QStringLiteral("custom-3f9a1c2e"),
                  QStringLiteral("parakeet-tdt-0.6b-v3-onnx"),
                  QStringLiteral("istupakov/parakeet-tdt-0.6b-v3-onnx"),
                  QStringLiteral("Custom"),
                  Engine::Source::hub(QStringLiteral("istupakov/parakeet-tdt-0.6b-v3-onnx")),
                  true,
                  std::nullopt};
}

} // namespace

TEST(EngineCatalogue, PutsTheDefaultEngineFirstAndDownloadsBothParakeetModels)
{
    const std::vector<Engine> &engines = Engine::builtIn();
    ASSERT_EQ(engines.size(), 3u);
    EXPECT_EQ(&Engine::defaultEngine(), &engines[0]);
    EXPECT_EQ(engines[0].id, Engine::systemId);
    EXPECT_TRUE(engines[0].source.isSystem());
    EXPECT_EQ(engines[1].id, "parakeetRedux");
    EXPECT_EQ(engines[1].source, Engine::Source::hub("istupakov/parakeet-tdt-0.6b-v2-onnx"));
    EXPECT_EQ(engines[2].id, "parakeetUltra");
    EXPECT_EQ(engines[2].source, Engine::Source::hub("istupakov/parakeet-tdt-0.6b-v3-onnx"));
    // The size label's approximation sign is one character followed by a space.
    EXPECT_TRUE(engines[2].sizeLabel.startsWith(QString(QChar(0x2248)) + ' '));
}

TEST(EngineJson, WritesTheCompactFormWithKeysInOrderAndEscapedSlashes)
{
    EXPECT_EQ(customHub().toJson(),
              QByteArray(R"({"id":"custom-3f9a1c2e","name":"parakeet-tdt-0.6b-v3-onnx",)"
                         R"("summary":"istupakov\/parakeet-tdt-0.6b-v3-onnx","sizeLabel":"Custom",)"
                         R"("source":{"hub":{"_0":"istupakov\/parakeet-tdt-0.6b-v3-onnx"}},)"
                         R"("custom":true})"));

    EXPECT_EQ(Engine::builtIn()[0].toJson(),
              QByteArray(R"({"id":"system","name":"Built-in Speech","summary":"PocketSphinx from )"
                         R"(your system's packages. Shows your words live as you speak, with )"
                         R"(nothing to download, but it is far less accurate than Parakeet.",)"
                         R"("sizeLabel":"Built in","source":{"system":{}},"custom":false,)"
                         R"("tags":["English","Live text","No download"]})"));

    Engine local = customHub();
    local.source = Engine::Source::local(QStringLiteral("/home/me/Models/\"odd\"\n\\name é"));
    EXPECT_TRUE(
        local.toJson().contains(R"("source":{"local":{"_0":"\/home\/me\/Models\/\"odd\"\n\\name )" +
                                QString::fromUtf8("é").toUtf8() + R"("}})"));

    EXPECT_EQ(Engine::listToJson(std::vector<Engine>{}), "[]");
    EXPECT_EQ(Engine::listToJson(std::vector<Engine>{customHub(), customHub()}),
              "[" + customHub().toJson() + "," + customHub().toJson() + "]");
}

TEST(EngineJson, RoundTripsEveryEngineThroughTextAndValue)
{
    std::vector<Engine> engines = Engine::builtIn();
    engines.push_back(customHub());
    Engine local = customHub();
    local.id = QStringLiteral("custom-00000001");
    local.source = Engine::Source::local(QStringLiteral("/srv/models/parakeet 2"));
    engines.push_back(local);
    Engine emptyTags = customHub();
    emptyTags.tags = QStringList();
    engines.push_back(emptyTags);

    for (const Engine &engine : engines) {
        const QJsonDocument text = QJsonDocument::fromJson(engine.toJson());
        ASSERT_TRUE(text.isObject()) << engine.toJson().toStdString();
        EXPECT_EQ(Engine::fromJson(text.object()), engine) << engine.id.toStdString();
        EXPECT_EQ(Engine::fromJson(engine.toJsonObject()), engine) << engine.id.toStdString();
    }
    EXPECT_EQ(Engine::listFromJson(QJsonDocument::fromJson(Engine::listToJson(engines)).array()),
              engines);
    EXPECT_EQ(Engine::listFromJson(Engine::listToJsonArray(engines)), engines);
}

TEST(EngineJson, ReadsOptionalTagsAndAnyKeyOrder)
{
    const Engine noTags = Engine::fromJson(parse(
        R"({"custom":true,"source":{"hub":{"_0":"a\/b"}},"sizeLabel":"Custom","summary":"a/b",)"
        R"("name":"b","id":"custom-1","unknown":42})"));
    EXPECT_FALSE(noTags.tags.has_value());
    EXPECT_EQ(noTags.source.payload(), "a/b");
    EXPECT_EQ(noTags.summary, "a/b");

    const Engine nullTags = Engine::fromJson(
        parse(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l","source":{"system":{}},)"
              R"("custom":false,"tags":null})"));
    EXPECT_FALSE(nullTags.tags.has_value());

    const Engine emptyTags = Engine::fromJson(
        parse(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l","source":{"system":{}},)"
              R"("custom":false,"tags":[]})"));
    ASSERT_TRUE(emptyTags.tags.has_value());
    EXPECT_TRUE(emptyTags.tags->isEmpty());
    EXPECT_NE(nullTags, emptyTags);
    EXPECT_NE(qHash(nullTags), qHash(emptyTags));
}

TEST(EngineJson, RefusesSourcesWithoutExactlyOneCase)
{
    const QString oneKey = QStringLiteral("Invalid number of keys found, expected one.");
    const auto withSource = [](const char *source) {
        static QByteArray text;
        text = QByteArray(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l","custom":true,)"
                          R"("source":)") +
               source + "}";
        return text.constData();
    };
    EXPECT_EQ(decodeFailure(withSource("{}")), oneKey);
    EXPECT_EQ(decodeFailure(withSource(R"({"hub":{"_0":"a/b"},"local":{"_0":"/x"}})")), oneKey);
    EXPECT_EQ(decodeFailure(withSource(R"({"other":{"_0":"a/b"}})")), oneKey);
    EXPECT_EQ(decodeFailure(withSource(R"({"system":{},"extra":1})")), "decoded");
    EXPECT_EQ(Engine::fromJson(parse(withSource(R"({"system":{"ignored":1}})"))).source,
              Engine::Source::system());

    EXPECT_NE(decodeFailure(withSource(R"({"hub":{}})")), "decoded");
    EXPECT_NE(decodeFailure(withSource(R"({"hub":{"_0":7}})")), "decoded");
    EXPECT_NE(decodeFailure(withSource(R"({"local":"/x"})")), "decoded");
    EXPECT_NE(decodeFailure(withSource(R"({"system":true})")), "decoded");
    EXPECT_NE(decodeFailure(withSource(R"("hub")")), "decoded");
}

TEST(EngineJson, RefusesRecordsMissingOrMistypingARequiredKey)
{
    // "custom" is required even though stored engines always have it true.
    EXPECT_NE(decodeFailure(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                            R"("source":{"system":{}}})"),
              "decoded");
    EXPECT_NE(decodeFailure(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                            R"("source":{"system":{}},"custom":"true"})"),
              "decoded");
    EXPECT_NE(decodeFailure(R"({"name":"n","summary":"s","sizeLabel":"l",)"
                            R"("source":{"system":{}},"custom":true})"),
              "decoded");
    EXPECT_NE(decodeFailure(R"({"id":1,"name":"n","summary":"s","sizeLabel":"l",)"
                            R"("source":{"system":{}},"custom":true})"),
              "decoded");
    EXPECT_NE(decodeFailure(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                            R"("custom":true})"),
              "decoded");
    EXPECT_NE(decodeFailure(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                            R"("source":{"system":{}},"custom":true,"tags":["a",2]})"),
              "decoded");
    EXPECT_NE(decodeFailure(R"("just text")"), "decoded");

    // One bad record fails the whole list.
    EXPECT_THROW(
        Engine::listFromJson(
            QJsonDocument::fromJson("[" + customHub().toJson() + R"(,{"id":"x"}])").array()),
        EngineDecodeError);
    EXPECT_THROW(Engine::listFromJson(QJsonValue(QStringLiteral("[]"))), EngineDecodeError);
}
