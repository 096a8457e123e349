#pragma once

#include "models/Engine.h"

#include <QString>
#include <QStringList>
#include <optional>

namespace vocari {

// Where model folders live and what they hold.
namespace ModelFolders {

// $XDG_DATA_HOME/vocari/models, with XDG_DATA_HOME defaulting to ~/.local/share (a relative
// value is ignored, as the XDG rules say). Read anew on every call.
QString root();

// Whether a text can name a folder directly inside another: not empty, not "." or "..", and
// without "/", "\" or NUL.
bool isPlainName(const QString &name);

// The model folder of an engine: for a hub engine its id inside root (none when the id could
// not name a folder there), for a local engine its stored path, none for the built-in one.
std::optional<QString> folderOf(const Engine &engine, const QString &root);

// The staging folder that collects a download before it replaces folder: beside it, with
// ".partial" appended to its name.
QString stagingFolderOf(const QString &folder);

// Deletes whatever is at path without following a symbolic link there: a link or a plain
// file is unlinked, a real folder is deleted with everything in it (links inside it are
// unlinked, never followed). True when nothing is left at path.
bool removeEntry(const QString &path);

// Whether path is a real folder: not a symbolic link to one, not a file.
bool isRealFolder(const QString &path);

// Puts replacement (a complete model in its staging folder) in the place of folder, in steps
// that each leave a complete model behind should the process be killed between them: the old
// folder (if any) is renamed aside, the replacement renamed in, then the aside deleted. When
// the replacement cannot be moved in, the old folder is put back. False when nothing changed.
bool replaceFolder(const QString &folder, const QString &replacement);

// Tidies up after a run that was killed while fetching or replacing folder: an old model left
// aside comes back when folder itself is missing, other asides and the staging folder are
// deleted. Leaves everything alone while a download, of this process or another, holds the
// folder's lock.
void recover(const QString &folder);

// The lock file a download of folder holds while it runs, beside it.
QString lockFileOf(const QString &folder);

// The items a usable model folder lacks, for the layout that lacks the fewest; empty when the
// folder holds a complete model.
QStringList missingFiles(const QString &folder);

// The space the folder's contents take on disk (allocated blocks of every item, hidden ones
// included, symbolic links not followed); 0 when it cannot be read.
qint64 allocatedSize(const QString &folder);

// A byte count as a file manager shows it: decimal units, one decimal ("670.2 MB").
QString formatSize(qint64 bytes);

// formatSize(allocatedSize(folder)). Walks the whole tree: call it off the main thread.
QString diskSize(const QString &folder);

} // namespace ModelFolders
} // namespace vocari
