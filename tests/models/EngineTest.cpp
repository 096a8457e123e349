#include "models/Engine.h"

#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace vocari;

namespace {

QJsonValue parse(const QByteArray &json)
{
    return QJsonDocument::fromJson("[" + json + "]").array().at(0);
}

// The message of decoding json as an engine, or "decoded" when it succeeds.
QString decodeFailure(const QByteArray &json)
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

TEST(EngineJson, WritesTheStoredFormAndReadsBackEveryEngine)
{
    // The form custom engines have always been stored in: compact, keys in declaration order,
    // "/" written as "\/", no "tags" when there are none.
    EXPECT_EQ(customHub().toJson(),
              QByteArray(R"({"id":"custom-3f9a1c2e","name":"parakeet-tdt-0.6b-v3-onnx",)"
                         R"("summary":"istupakov\/parakeet-tdt-0.6b-v3-onnx","sizeLabel":"Custom",)"
                         R"("source":{"hub":{"_0":"istupakov\/parakeet-tdt-0.6b-v3-onnx"}},)"
                         R"("custom":true})"));

    std::vector<Engine> engines = Engine::builtIn();
    engines.push_back(customHub());
    Engine local = customHub();
    local.id = QStringLiteral("custom-00000001");
    local.source = Engine::Source::local(QString::fromUtf8("/srv/models/\"odd\"\n\\name é"));
    engines.push_back(local);
    Engine emptyTags = customHub();
    emptyTags.tags = QStringList();
    engines.push_back(emptyTags);
    for (const Engine &engine : engines) {
        const QJsonDocument text = QJsonDocument::fromJson(engine.toJson());
        ASSERT_TRUE(text.isObject()) << engine.toJson().toStdString();
        EXPECT_EQ(Engine::fromJson(text.object()), engine) << engine.id.toStdString();
    }
    EXPECT_EQ(Engine::listFromJson(QJsonDocument::fromJson(Engine::listToJson(engines)).array()),
              engines);
}

TEST(EngineJson, ReadsAnyKeyOrderAndRefusesAMissingOrMistypedPart)
{
    EXPECT_EQ(Engine::fromJson(
                  parse(R"({"custom":true,"source":{"hub":{"_0":"a\/b"}},"sizeLabel":"Custom",)"
                        R"("summary":"a/b","name":"b","id":"custom-1","unknown":42})")),
              (Engine{"custom-1", "b", "a/b", "Custom", Engine::Source::hub("a/b"), true, {}}));

    // "tags": null is no tags, unlike an empty list.
    const char *record = R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                         R"("source":{"system":{}},"custom":false,"tags":%1})";
    const Engine nullTags = Engine::fromJson(parse(QString(record).arg("null").toUtf8()));
    const Engine emptyTags = Engine::fromJson(parse(QString(record).arg("[]").toUtf8()));
    EXPECT_FALSE(nullTags.tags.has_value());
    EXPECT_NE(nullTags, emptyTags);
    EXPECT_NE(qHash(nullTags), qHash(emptyTags));

    const auto withSource = [](const char *source) {
        return QByteArray(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l","custom":true,)"
                          R"("source":)") +
               source + "}";
    };
    // The source holds exactly one known kind; anything beside it is ignored.
    EXPECT_EQ(decodeFailure(withSource(R"({"system":{},"extra":1})")), "decoded");
    for (const QByteArray &bad :
         {withSource("{}"), withSource(R"({"hub":{"_0":"a/b"},"local":{"_0":"/x"}})"),
          withSource(R"({"other":{"_0":"a/b"}})"), withSource(R"({"hub":{}})"),
          withSource(R"({"hub":{"_0":7}})"), withSource(R"({"local":"/x"})"),
          withSource(R"({"system":true})"), withSource(R"("hub")"),
          // "custom" is required even though stored engines always have it true.
          QByteArray(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                     R"("source":{"system":{}}})"),
          QByteArray(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                     R"("source":{"system":{}},"custom":"true"})"),
          QByteArray(R"({"id":1,"name":"n","summary":"s","sizeLabel":"l",)"
                     R"("source":{"system":{}},"custom":true})"),
          QByteArray(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l","custom":true})"),
          QByteArray(R"({"id":"x","name":"n","summary":"s","sizeLabel":"l",)"
                     R"("source":{"system":{}},"custom":true,"tags":["a",2]})"),
          QByteArray(R"("just text")")})
        EXPECT_NE(decodeFailure(bad), "decoded") << bad.toStdString();

    // One bad record fails the whole list.
    EXPECT_THROW(
        Engine::listFromJson(
            QJsonDocument::fromJson("[" + customHub().toJson() + R"(,{"id":"x"}])").array()),
        EngineDecodeError);
}
