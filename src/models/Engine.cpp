#include "models/Engine.h"

#include <QHashFunctions>
#include <QJsonDocument>

namespace vocari {

namespace {

const QString kSystemCase = QStringLiteral("system");
const QString kHubCase = QStringLiteral("hub");
const QString kLocalCase = QStringLiteral("local");
const QString kPayloadKey = QStringLiteral("_0");

// A JSON string literal as the engine list has always been written: quotes, backslashes and
// slashes escaped, control characters as short escapes or \u00XX, everything else as UTF-8.
void appendQuoted(QByteArray &out, const QString &text)
{
    out += '"';
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '/':
            out += "\\/";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c.unicode() < 0x20)
                out += "\\u" + QByteArray::number(c.unicode(), 16).rightJustified(4, '0');
            else
                out += QString(c).toUtf8();
        }
    }
    out += '"';
}

// Appends a key and leaves the caller to write its value.
void appendKey(QByteArray &out, const char *key, bool first = false)
{
    if (!first)
        out += ',';
    appendQuoted(out, QString::fromLatin1(key));
    out += ':';
}

void appendSource(QByteArray &out, const Engine::Source &source)
{
    out += '{';
    switch (source.kind()) {
    case Engine::Source::Kind::System:
        appendKey(out, "system", true);
        out += "{}";
        break;
    case Engine::Source::Kind::Hub:
        appendKey(out, "hub", true);
        break;
    case Engine::Source::Kind::Local:
        appendKey(out, "local", true);
        break;
    }
    if (!source.isSystem()) {
        out += '{';
        appendKey(out, "_0", true);
        appendQuoted(out, source.payload());
        out += '}';
    }
    out += '}';
}

void appendEngine(QByteArray &out, const Engine &engine)
{
    out += '{';
    appendKey(out, "id", true);
    appendQuoted(out, engine.id);
    appendKey(out, "name");
    appendQuoted(out, engine.name);
    appendKey(out, "summary");
    appendQuoted(out, engine.summary);
    appendKey(out, "sizeLabel");
    appendQuoted(out, engine.sizeLabel);
    appendKey(out, "source");
    appendSource(out, engine.source);
    appendKey(out, "custom");
    out += engine.custom ? "true" : "false";
    if (engine.tags) {
        appendKey(out, "tags");
        out += '[';
        for (qsizetype i = 0; i < engine.tags->size(); ++i) {
            if (i > 0)
                out += ',';
            appendQuoted(out, engine.tags->at(i));
        }
        out += ']';
    }
    out += '}';
}

QString requiredString(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined())
        throw EngineDecodeError(QStringLiteral("The engine record has no “%1”.").arg(key));
    if (!value.isString())
        throw EngineDecodeError(QStringLiteral("The engine's “%1” is not a text.").arg(key));
    return value.toString();
}

std::optional<QStringList> optionalTags(const QJsonObject &object)
{
    const QJsonValue value = object.value(QStringLiteral("tags"));
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isArray())
        throw EngineDecodeError(QStringLiteral("The engine's “tags” is not a list."));
    QStringList tags;
    for (const QJsonValue &tag : value.toArray()) {
        if (!tag.isString())
            throw EngineDecodeError(QStringLiteral("The engine's “tags” holds a non-text."));
        tags << tag.toString();
    }
    return tags;
}

Engine makeBuiltIn(QString id, QString name, QString summary, QString sizeLabel,
                   Engine::Source source, QStringList tags)
{
    return Engine{std::move(id),     std::move(name), std::move(summary), std::move(sizeLabel),
                  std::move(source), false,           std::move(tags)};
}

} // namespace

QJsonObject Engine::Source::toJsonObject() const
{
    switch (m_kind) {
    case Kind::System:
        return {{kSystemCase, QJsonObject()}};
    case Kind::Hub:
        return {{kHubCase, QJsonObject{{kPayloadKey, m_payload}}}};
    case Kind::Local:
        return {{kLocalCase, QJsonObject{{kPayloadKey, m_payload}}}};
    }
    return {};
}

Engine::Source Engine::Source::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        throw EngineDecodeError(QStringLiteral("The engine's “source” is not an object."));
    const QJsonObject object = value.toObject();
    QStringList cases;
    for (const QString &name : {kSystemCase, kHubCase, kLocalCase}) {
        if (object.contains(name))
            cases << name;
    }
    if (cases.size() != 1)
        throw EngineDecodeError(QStringLiteral("Invalid number of keys found, expected one."));

    const QString &name = cases.front();
    const QJsonValue content = object.value(name);
    if (!content.isObject())
        throw EngineDecodeError(QStringLiteral("The “%1” source is not an object.").arg(name));
    if (name == kSystemCase)
        return system();
    const QJsonValue payload = content.toObject().value(kPayloadKey);
    if (!payload.isString())
        throw EngineDecodeError(
            QStringLiteral("The “%1” source has no text under “_0”.").arg(name));
    return name == kHubCase ? hub(payload.toString()) : local(payload.toString());
}

const std::vector<Engine> &Engine::builtIn()
{
    static const std::vector<Engine> catalogue{
        makeBuiltIn(systemId, QStringLiteral("Built-in Speech"),
                    QStringLiteral("PocketSphinx from your system's packages. Shows your words "
                                   "live as you speak, with nothing to download, but it is far "
                                   "less accurate than Parakeet."),
                    QStringLiteral("Built in"), Source::system(),
                    {QStringLiteral("English"), QStringLiteral("Live text"),
                     QStringLiteral("No download")}),
        makeBuiltIn(QStringLiteral("parakeetRedux"), QStringLiteral("NVIDIA Parakeet Redux"),
                    QStringLiteral("An English NVIDIA model that transcribes each sentence in "
                                   "about a second."),
                    QStringLiteral("\u2248 650 MB"),
                    Source::hub(QStringLiteral("istupakov/parakeet-tdt-0.6b-v2-onnx")),
                    {QStringLiteral("English"), QStringLiteral("Fast")}),
        makeBuiltIn(QStringLiteral("parakeetUltra"), QStringLiteral("NVIDIA Parakeet Ultra"),
                    QStringLiteral("The most accurate model here, for names, accents and long "
                                   "dictations, in 25 European languages."),
                    QStringLiteral("\u2248 670 MB"),
                    Source::hub(QStringLiteral("istupakov/parakeet-tdt-0.6b-v3-onnx")),
                    {QStringLiteral("25 languages"), QStringLiteral("Auto-detects language"),
                     QStringLiteral("Most accurate")}),
    };
    return catalogue;
}

const Engine &Engine::defaultEngine()
{
    return builtIn().front();
}

QJsonObject Engine::toJsonObject() const
{
    QJsonObject object{
        {QStringLiteral("id"), id},
        {QStringLiteral("name"), name},
        {QStringLiteral("summary"), summary},
        {QStringLiteral("sizeLabel"), sizeLabel},
        {QStringLiteral("source"), source.toJsonObject()},
        {QStringLiteral("custom"), custom},
    };
    if (tags)
        object.insert(QStringLiteral("tags"), QJsonArray::fromStringList(*tags));
    return object;
}

QByteArray Engine::toJson() const
{
    QByteArray out;
    appendEngine(out, *this);
    return out;
}

Engine Engine::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        throw EngineDecodeError(QStringLiteral("An engine record is not an object."));
    const QJsonObject object = value.toObject();
    Engine engine;
    engine.id = requiredString(object, QStringLiteral("id"));
    engine.name = requiredString(object, QStringLiteral("name"));
    engine.summary = requiredString(object, QStringLiteral("summary"));
    engine.sizeLabel = requiredString(object, QStringLiteral("sizeLabel"));
    if (!object.contains(QStringLiteral("source")))
        throw EngineDecodeError(QStringLiteral("The engine record has no “source”."));
    engine.source = Source::fromJson(object.value(QStringLiteral("source")));
    const QJsonValue custom = object.value(QStringLiteral("custom"));
    if (custom.isUndefined())
        throw EngineDecodeError(QStringLiteral("The engine record has no “custom”."));
    if (!custom.isBool())
        throw EngineDecodeError(QStringLiteral("The engine's “custom” is not true or false."));
    engine.custom = custom.toBool();
    engine.tags = optionalTags(object);
    return engine;
}

QByteArray Engine::listToJson(std::span<const Engine> engines)
{
    QByteArray out = "[";
    for (size_t i = 0; i < engines.size(); ++i) {
        if (i > 0)
            out += ',';
        appendEngine(out, engines[i]);
    }
    out += ']';
    return out;
}

QJsonArray Engine::listToJsonArray(std::span<const Engine> engines)
{
    QJsonArray array;
    for (const Engine &engine : engines)
        array.append(engine.toJsonObject());
    return array;
}

std::vector<Engine> Engine::listFromJson(const QJsonValue &value)
{
    if (!value.isArray())
        throw EngineDecodeError(QStringLiteral("The engine list is not a JSON array."));
    std::vector<Engine> engines;
    for (const QJsonValue &record : value.toArray())
        engines.push_back(fromJson(record));
    return engines;
}

size_t qHash(const Engine::Source &source, size_t seed) noexcept
{
    return qHashMulti(seed, static_cast<int>(source.kind()), source.payload());
}

size_t qHash(const Engine &engine, size_t seed) noexcept
{
    seed = qHashMulti(seed, engine.id, engine.name, engine.summary, engine.sizeLabel, engine.source,
                      engine.custom, engine.tags.has_value());
    if (engine.tags) {
        seed = qHashMulti(seed, engine.tags->size());
        for (const QString &tag : *engine.tags)
            seed = qHashMulti(seed, tag);
    }
    return seed;
}

} // namespace vocari
