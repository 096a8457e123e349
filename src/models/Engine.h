#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

namespace vocari {

// A stored engine record that cannot be read back; the message says which part is wrong.
class EngineDecodeError : public std::runtime_error
{
public:
    explicit EngineDecodeError(const QString &message) : std::runtime_error(message.toStdString())
    {
    }
    QString message() const { return QString::fromStdString(what()); }
};

// One speech engine the user can pick: its identity, the texts the settings show for it and
// where its model comes from. A plain value; the model store keeps the list and the states.
struct Engine
{
    // Where an engine's model comes from.
    class Source
    {
    public:
        enum class Kind
        {
            System, // the built-in recogniser: no files, always installed
            Hub,    // a model hub repository "owner/name", downloaded into the models folder
            Local,  // a folder of the user's own, used in place and never touched
        };

        Source() = default;
        static Source system() { return Source(Kind::System, {}); }
        static Source hub(const QString &repository) { return Source(Kind::Hub, repository); }
        static Source local(const QString &folder) { return Source(Kind::Local, folder); }

        Kind kind() const { return m_kind; }
        bool isSystem() const { return m_kind == Kind::System; }
        bool isHub() const { return m_kind == Kind::Hub; }
        bool isLocal() const { return m_kind == Kind::Local; }
        // The repository of a hub source, the folder of a local one, empty for the system one.
        const QString &payload() const { return m_payload; }

        bool operator==(const Source &) const = default;

        // {"system":{}}, {"hub":{"_0":"owner/name"}} or {"local":{"_0":"/path"}}.
        QJsonObject toJsonObject() const;
        // Reads that form; keys other than the three case names are ignored. Throws
        // EngineDecodeError.
        static Source fromJson(const QJsonValue &value);

    private:
        Source(Kind kind, QString payload) : m_kind(kind), m_payload(std::move(payload)) {}
        Kind m_kind = Kind::System;
        QString m_payload;
    };

    QString id;        // stable key: state tables, the "engine" setting, a hub model's folder name
    QString name;      // display name
    QString summary;   // one or two sentences; for custom engines the repository or folder
    QString sizeLabel; // shown while not installed: "Built in", "≈ 670 MB", "Custom"
    Source source;
    bool custom = false; // added by the user: persisted, removable
    std::optional<QStringList> tags;

    bool operator==(const Engine &) const = default;

    // The id of the built-in recogniser, the default engine.
    static inline const QString systemId = QStringLiteral("system");

    // The engines every installation offers, in the order the settings list them.
    static const std::vector<Engine> &builtIn();
    // The first built-in entry: what is selected when nothing else can be.
    static const Engine &defaultEngine();

    // The JSON object of this engine; "tags" only when present.
    QJsonObject toJsonObject() const;
    // The compact JSON text with the keys in declaration order and "/" written as "\/", the
    // form the engine list has always been stored in.
    QByteArray toJson() const;
    // Reads an engine in any key order; unknown keys are ignored, "tags" may be missing or
    // null. Throws EngineDecodeError.
    static Engine fromJson(const QJsonValue &value);

    // A JSON array of engines, in the compact text form above.
    static QByteArray listToJson(std::span<const Engine> engines);
    static QJsonArray listToJsonArray(std::span<const Engine> engines);
    // Reads an array of engines; one bad record fails the whole list. Throws EngineDecodeError.
    static std::vector<Engine> listFromJson(const QJsonValue &value);
};

size_t qHash(const Engine::Source &source, size_t seed = 0) noexcept;
size_t qHash(const Engine &engine, size_t seed = 0) noexcept;

} // namespace vocari
