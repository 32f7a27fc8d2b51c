// Internal to the engine: writing a file so that the file on disk is always
// either the complete old one or the complete new one.
#pragma once

#include <QString>

#include <vector>

namespace safesave {

// Writes `data` to a temporary file beside `path` (beside the file a symbolic
// link points at), syncs it, gives it the old file's permissions (a new file
// gets the ones the umask allows), renames it over the target and syncs the
// folder, so a crash or a power cut at any moment leaves the old file or the
// new one. A temporary file that an earlier save over the same file left
// behind when it was killed is removed first. False when anything fails; the old
// file is then untouched and no temporary file stays behind.
bool write(const QString &path, const char *data, qint64 size);

// Several files written as `write` writes one, with the syncing done once for
// all of them: each is written to its temporary file by `stage`, then
// `commit` makes all of them durable at once, renames each over its target
// and syncs each folder once. Much faster than one save after another when
// the files are many and small (splitting a document into its pages).
class Batch {
public:
    Batch() = default;
    ~Batch();
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

    // Writes `data` to a temporary file beside `path`; false when that fails
    // (nothing is left behind then).
    bool stage(const QString &path, const char *data, qint64 size);
    // For each staged file in order, whether it is now in place. Temporary
    // files not put in place are removed.
    std::vector<bool> commit();

private:
    struct File {
        QString temporary;
        QString target;
    };
    std::vector<File> files_;
};

// The temporary files a save of `path` makes match this name pattern.
QString temporaryPattern(const QString &fileName);

} // namespace safesave
