#include "models/HubListing.h"

#include "engines/parakeet/ModelLayout.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <algorithm>
#include <optional>

namespace vocari::HubListing {

namespace {

constexpr double kMaxItemBytes = 1099511627776.0; // 1 TiB

QStringList missingNames(const ModelLayout &layout, const std::vector<HubItem> &items)
{
    QStringList missing;
    for (const QString &name : layout.requiredItems()) {
        const bool present = std::any_of(items.begin(), items.end(), [&](const HubItem &item) {
            return item.path == name || item.path.startsWith(name + QLatin1Char('/'));
        });
        if (!present)
            missing << name;
    }
    return missing;
}

} // namespace

std::variant<std::vector<HubItem>, DownloadError> parse(const QByteArray &json)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return DownloadError::badListing(parseError.errorString());
    if (!document.isArray())
        return DownloadError::badListing(QStringLiteral("it is not a list"));

    std::vector<HubItem> items;
    for (const QJsonValue &entry : document.array()) {
        const QJsonObject object = entry.toObject();
        const QJsonValue type = object.value(QStringLiteral("type"));
        const QJsonValue path = object.value(QStringLiteral("path"));
        if (!entry.isObject() || !type.isString() || !path.isString())
            return DownloadError::badListing(QStringLiteral("an entry lacks its type or path"));
        // A large-file-storage entry's own size may be that of its pointer; the size of what
        // a download receives is the one under "lfs".
        const QJsonValue lfsSize =
            object.value(QStringLiteral("lfs")).toObject().value(QStringLiteral("size"));
        const QJsonValue size = lfsSize.isDouble() ? lfsSize : object.value(QStringLiteral("size"));
        if (!size.isUndefined() && !size.isNull() && !size.isDouble())
            return DownloadError::badListing(QStringLiteral("an entry's size is not a number"));
        std::optional<qint64> bytes;
        // An absurd size must not overflow the sum; no body can match it anyway.
        if (size.isDouble())
            bytes = static_cast<qint64>(std::clamp(size.toDouble(), 0.0, kMaxItemBytes));
        items.push_back({type.toString(), path.toString(), bytes});
    }
    return items;
}

bool isSafePath(const QString &path)
{
    if (path.isEmpty() || path.contains(QLatin1Char('\\')) || path.contains(QChar(0)))
        return false;
    const QStringList segments = path.split(QLatin1Char('/'));
    return std::none_of(segments.begin(), segments.end(), [](const QString &segment) {
        return segment.isEmpty() || segment == QLatin1String(".") || segment == QLatin1String("..");
    });
}

bool belongsTo(const QString &path, const QString &name)
{
    if (path == name || path.startsWith(name + QLatin1Char('/')))
        return true;
    return name.endsWith(QLatin1String(".onnx")) && path == name + QLatin1String(".data");
}

std::variant<DownloadPlan, DownloadError> plan(const std::vector<HubItem> &items)
{
    if (!std::all_of(items.begin(), items.end(),
                     [](const HubItem &item) { return isSafePath(item.path); }))
        return DownloadError::unsafePath();

    std::optional<QStringList> fewestMissing;
    for (const ModelLayout &layout : ModelLayout::all()) {
        QStringList missing = missingNames(layout, items);
        if (missing.isEmpty()) {
            const QStringList names = layout.requiredItems();
            DownloadPlan result{layout.name, {}, 0};
            for (const HubItem &item : items) {
                const bool wanted = std::any_of(names.begin(), names.end(), [&](const QString &n) {
                    return belongsTo(item.path, n);
                });
                if (item.isFile() && wanted) {
                    result.files.push_back(item);
                    result.totalBytes += item.size.value_or(0);
                }
            }
            return result;
        }
        if (!fewestMissing || missing.size() < fewestMissing->size())
            fewestMissing = std::move(missing);
    }
    return DownloadError::incompatible(fewestMissing.value_or(QStringList()));
}

} // namespace vocari::HubListing
