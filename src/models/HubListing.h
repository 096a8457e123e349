#pragma once

#include "models/DownloadError.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <optional>
#include <variant>
#include <vector>

namespace vocari {

// One entry of a repository's file tree as the hub lists it.
struct HubItem
{
    QString type; // "file" or "directory"
    QString path; // "/"-separated, relative to the repository
    // The file's size in bytes (for a large-file-storage file, that of its content, not of its
    // pointer); none when the hub gives none.
    std::optional<qint64> size;

    bool isFile() const { return type == QLatin1String("file"); }
    bool operator==(const HubItem &) const = default;
};

// What a download fetches from a repository: the files of the first model layout the listing
// holds completely, in listing order, and the bytes they add up to.
struct DownloadPlan
{
    QString layout; // the layout's name, for messages
    std::vector<HubItem> files;
    qint64 totalBytes = 0; // files without a size count nothing
};

namespace HubListing {

// Reads the hub's answer: a JSON array of objects with a text "type" and "path" and an
// optional number "size", or "lfs" holding one; other keys are ignored. Fails with a
// BadListing error.
std::variant<std::vector<HubItem>, DownloadError> parse(const QByteArray &json);

// Whether a listed path stays inside the folder it is written to: relative, no empty, "." or
// ".." segment, no backslash and no NUL.
bool isSafePath(const QString &path);

// Whether the item at path belongs to the required item name: the name itself, anything
// inside a folder of that name, or the external-data file an ONNX network keeps beside it
// ("encoder-model.onnx.data").
bool belongsTo(const QString &path, const QString &name);

// Checks every listed path, then picks the layout and its files. Fails with UnsafePath when a
// path is unsafe, and with Incompatible naming what the closest layout lacks (the fewest
// missing items; ties go to the preferred layout).
std::variant<DownloadPlan, DownloadError> plan(const std::vector<HubItem> &items);

} // namespace HubListing
} // namespace vocari
