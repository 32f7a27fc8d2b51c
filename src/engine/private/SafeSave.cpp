#include "SafeSave.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryFile>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace safesave {
namespace {

constexpr char marker[] = ".vellora-save-";

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

// The file a save of `path` replaces: the target of a symbolic link.
QString finalTarget(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isSymLink())
        return info.absoluteFilePath();
    const QString canonical = info.canonicalFilePath();
    return canonical.isEmpty() ? info.symLinkTarget() : canonical;
}

FileIdentity identityOf(const struct stat &st)
{
    return {quint64(st.st_dev), quint64(st.st_ino)};
}

// Whether the user may write `path` by its own permissions (the effective
// user and groups, as the kernel decides for an open).
bool mayWrite(const QString &path, int mode = W_OK)
{
    return ::faccessat(AT_FDCWD, encoded(path).constData(), mode, AT_EACCESS) == 0;
}

mode_t newFileMode()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

bool syncFolder(const QString &folder)
{
    const int fd = ::open(encoded(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0 || errno == EINVAL; // some file systems cannot sync a folder
    ::close(fd);
    return ok;
}

bool writeFully(int fd, const char *data, qint64 size)
{
    for (qint64 done = 0; done < size;) {
        const ssize_t n = ::pwrite(fd, data + done, size_t(size - done), off_t(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

bool readFully(int fd, qint64 size, QByteArray &out)
{
    out.resize(size);
    for (qint64 done = 0; done < size;) {
        const ssize_t n = ::pread(fd, out.data() + done, size_t(size - done), off_t(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

// Writes `data` to a new temporary file beside `target`, locked against
// removal as stale while it is written, with the owner, group and
// permissions of `old` (a new file's when null), synced when `sync`. None
// when that fails, and `ownerKept` false when only the owner could not be kept.
std::unique_ptr<QTemporaryFile> writeTemporary(const QString &target, const struct stat *old, const char *data, qint64 size,
                                               bool sync, bool &ownerKept)
{
    ownerKept = true;
    const QFileInfo info(target);
    auto file = std::make_unique<QTemporaryFile>(
        info.dir().filePath(QLatin1Char('.') + info.fileName() + QLatin1String(marker) + QStringLiteral("XXXXXX")));
    if (!file->open())
        return nullptr;
    const int fd = file->handle();
    ::flock(fd, LOCK_EX | LOCK_NB);
    if (old && (old->st_uid != ::geteuid() || old->st_gid != ::getegid()) && ::fchown(fd, old->st_uid, old->st_gid) != 0) {
        ownerKept = false;
        return nullptr;
    }
    // After the owner: changing it clears the set-user-ID and set-group-ID bits.
    if (::fchmod(fd, old ? old->st_mode & 07777 : newFileMode()) != 0)
        return nullptr;
    if (file->write(data, size) != size || !file->flush())
        return nullptr;
    if (sync && ::fsync(fd) != 0)
        return nullptr;
    return file;
}

bool renameOver(const QString &from, const QString &to)
{
    return ::rename(encoded(from).constData(), encoded(to).constData()) == 0;
}

// Rewrites the file itself: opened without following a link put in its
// place, checked to be the file `old` describes, its bytes kept, then
// overwritten and cut to the new length; the kept bytes go back when that
// fails.
Result writeInPlace(const QString &target, const struct stat &old, const char *data, qint64 size, QByteArray *previous)
{
    const int fd = ::open(encoded(target).constData(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return errno == EACCES || errno == EPERM || errno == EROFS ? Result::NotPermitted : Result::Failed;
    struct stat now {};
    QByteArray original;
    Result result = Result::Failed;
    if (::fstat(fd, &now) != 0 || !S_ISREG(now.st_mode)) {
        result = Result::Failed;
    } else if (identityOf(now) != identityOf(old)) {
        result = Result::Replaced;
    } else if (readFully(fd, qint64(now.st_size), original)) {
        if (previous)
            *previous = original;
        // The new bytes first, then the cut: the file is never shorter than both.
        if (writeFully(fd, data, size) && ::ftruncate(fd, off_t(size)) == 0 && ::fsync(fd) == 0) {
            result = Result::Written;
        } else {
            const bool restored = writeFully(fd, original.constData(), original.size()) &&
                                  ::ftruncate(fd, off_t(original.size())) == 0 && ::fsync(fd) == 0;
            Q_UNUSED(restored);
        }
    }
    ::close(fd);
    return result;
}

} // namespace

QString temporaryPattern(const QString &fileName)
{
    return QStringLiteral("^\\.") + QRegularExpression::escape(fileName) + QRegularExpression::escape(QLatin1String(marker)) +
           QStringLiteral("[A-Za-z0-9]{6}$");
}

FileIdentity identify(const QString &path)
{
    struct stat st {};
    if (path.isEmpty() || ::stat(encoded(path).constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return {};
    return identityOf(st);
}

void removeStaleTemporaries(const QString &path)
{
    const QFileInfo info(finalTarget(path));
    const QDir folder = info.dir();
    const QRegularExpression ours(temporaryPattern(info.fileName()));
    for (const QString &name : folder.entryList({QStringLiteral(".*")}, QDir::Files | QDir::Hidden | QDir::System)) {
        if (!ours.match(name).hasMatch())
            continue;
        const QString stale = folder.filePath(name);
        const int fd = ::open(encoded(stale).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0)
            continue;
        // A save in progress holds its file locked.
        struct stat st {};
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
            QFile::remove(stale);
        ::close(fd);
    }
}

Result write(const QString &path, const char *data, qint64 size, const FileIdentity &expected, QByteArray *previous)
{
    const QString target = finalTarget(path);
    const QFileInfo info(target);
    if (target.isEmpty() || !info.dir().exists())
        return Result::Failed;
    struct stat old {};
    const bool replacing = ::lstat(encoded(target).constData(), &old) == 0;
    if (!replacing && errno != ENOENT)
        return Result::Failed;
    if (replacing) {
        if (!S_ISREG(old.st_mode))
            return S_ISLNK(old.st_mode) && expected.known() ? Result::Replaced : Result::Failed;
        if (expected.known() && identityOf(old) != expected)
            return Result::Replaced;
        if (!mayWrite(target))
            return Result::NotPermitted;
        removeStaleTemporaries(target);
    }

    const QString folder = info.absolutePath();
    const bool renameable = !replacing || (old.st_nlink == 1 && mayWrite(folder, W_OK | X_OK));
    if (renameable) {
        bool ownerKept = true;
        auto file = writeTemporary(target, replacing ? &old : nullptr, data, size, true, ownerKept);
        if (file) {
            // The last look before the swap: the rename replaces whatever name
            // stands there and never writes through a link.
            struct stat now {};
            if (replacing && (::lstat(encoded(target).constData(), &now) != 0 || identityOf(now) != identityOf(old)))
                return Result::Replaced;
            if (renameOver(file->fileName(), target)) {
                file->setAutoRemove(false);
                // The rename is only durable once the folder that holds it is on disk too.
                return syncFolder(folder) ? Result::Written : Result::Failed;
            }
            // A sticky folder lets only the owner replace a file; it can still be rewritten.
            if (!replacing || (errno != EPERM && errno != EACCES))
                return Result::Failed;
        } else if (!replacing || ownerKept) {
            return Result::Failed;
        }
    }
    return writeInPlace(target, old, data, size, previous);
}

Batch::~Batch()
{
    for (const File &file : files_)
        if (!file.temporary.isEmpty())
            QFile::remove(file.temporary);
}

bool Batch::stage(const QString &path, const char *data, qint64 size)
{
    const QString target = finalTarget(path);
    const QFileInfo info(target);
    if (target.isEmpty() || !info.dir().exists())
        return false;
    struct stat old {};
    if (::lstat(encoded(target).constData(), &old) == 0) {
        // Over an existing file: written at once as `write` does, with all its care.
        if (write(path, data, size) != Result::Written)
            return false;
        files_.push_back({{}, target});
        return true;
    }
    bool ownerKept = true;
    auto file = writeTemporary(target, nullptr, data, size, false, ownerKept);
    if (!file)
        return false;
    file->setAutoRemove(false);
    files_.push_back({file->fileName(), target});
    return true;
}

std::vector<bool> Batch::commit()
{
    std::vector<bool> placed(files_.size(), false);
    // One sync of each file system holding the files makes all of them
    // durable; only then do they take their names.
    std::set<QString> folders;
    bool synced = true;
    for (const File &file : files_) {
        const QString folder = QFileInfo(file.target).absolutePath();
        if (file.temporary.isEmpty() || !folders.insert(folder).second)
            continue;
        const int fd = ::open(encoded(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        synced = fd >= 0 && ::syncfs(fd) == 0 && synced;
        if (fd >= 0)
            ::close(fd);
    }
    for (size_t i = 0; i < files_.size(); ++i)
        placed[i] = files_[i].temporary.isEmpty() || (synced && renameOver(files_[i].temporary, files_[i].target));
    for (const QString &folder : folders)
        if (!syncFolder(folder))
            for (size_t i = 0; i < files_.size(); ++i)
                if (!files_[i].temporary.isEmpty() && QFileInfo(files_[i].target).absolutePath() == folder)
                    placed[i] = false;
    for (size_t i = 0; i < files_.size(); ++i)
        if (!placed[i])
            QFile::remove(files_[i].temporary);
    files_.clear();
    return placed;
}

} // namespace safesave
