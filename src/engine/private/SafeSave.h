// Internal to the engine: writing a file so that the file on disk is always
// either the complete old one or the complete new one.
#pragma once

#include <QString>

namespace safesave {

// Writes `data` to a temporary file beside `path` (beside the file a symbolic
// link points at), syncs it, gives it the old file's permissions (a new file
// gets the ones the umask allows), renames it over the target and syncs the
// folder, so a crash or a power cut at any moment leaves the old file or the
// new one. A temporary file that an earlier save over the same file left
// behind when it was killed is removed first. False when anything fails; the old
// file is then untouched and no temporary file stays behind.
bool write(const QString &path, const char *data, qint64 size);

// The temporary files a save of `path` makes match this name pattern.
QString temporaryPattern(const QString &fileName);

} // namespace safesave
