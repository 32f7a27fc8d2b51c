// Internal to the engine: writing a file so that the file on disk is always
// either the complete old one or the complete new one, only where the user
// may write it, and only over the file that was meant.
#pragma once

#include <QByteArray>
#include <QString>

#include <vector>

namespace safesave {

// Which file a path leads to (through symbolic links), so that it can be
// recognised later whatever its name.
struct FileIdentity {
    quint64 device = 0;
    quint64 inode = 0;
    bool known() const { return inode != 0; }
    friend bool operator==(const FileIdentity &, const FileIdentity &) = default;
};
// Unknown when nothing (or no regular file) is there.
FileIdentity identify(const QString &path);

enum class Result {
    Written,
    Failed,
    // The file is there but the user may not change it.
    NotPermitted,
    // Another file stands where the expected one was.
    Replaced,
};

// Removes the temporary files that saves over `path` left behind when they
// were killed between writing and renaming: only names of exactly our
// pattern, and only those that no save holds locked (a save locks its
// temporary file from the moment it makes it).
void removeStaleTemporaries(const QString &path);

// Writes `data` over the file `path` leads to (through a symbolic link).
// Refused (nothing changed) when the user may not write that file, or when
// `expected` is known and another file stands there now; a file no longer
// there is written anew.
//
// Where it can, the data goes to a temporary file beside the target, synced,
// given the old file's owner, group and permissions (a new file gets the
// ones the umask allows), renamed over the target and the folder synced, so
// a crash or a power cut at any moment leaves the old file or the new one.
// Where it cannot (the file has other hard links, its owner cannot be kept,
// or its folder may not be changed) the file itself is rewritten, keeping
// its owner, permissions and links; its old bytes are kept in memory first
// and put back when the write fails. `previous`, when given, receives those
// bytes once the file itself was touched.
Result write(const QString &path, const char *data, qint64 size, const FileIdentity &expected = {},
             QByteArray *previous = nullptr);

// Several new files written as `write` writes one, with the syncing done once for
// all of them: each is written to its temporary file by `stage`, then
// `commit` makes all of them durable at once, renames each over its target
// and syncs each folder once. Much faster than one save after another when
// the files are many and small (splitting a document into its pages). An
// existing target the user may not write is refused at `stage`.
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
