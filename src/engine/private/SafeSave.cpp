#include "SafeSave.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryFile>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace safesave {
namespace {

constexpr char marker[] = ".vellora-save-";

// The file a save of `path` replaces: the target of a symbolic link.
QString finalTarget(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isSymLink())
        return info.absoluteFilePath();
    const QString canonical = info.canonicalFilePath();
    return canonical.isEmpty() ? info.symLinkTarget() : canonical;
}

void removeStaleTemporaries(const QDir &folder, const QString &fileName)
{
    const QRegularExpression ours(temporaryPattern(fileName));
    for (const QString &name : folder.entryList({QStringLiteral(".*")}, QDir::Files | QDir::Hidden | QDir::System))
        if (ours.match(name).hasMatch())
            QFile::remove(folder.filePath(name));
}

mode_t newFileMode()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

bool syncFolder(const QString &folder)
{
    const int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0 || errno == EINVAL; // some file systems cannot sync a folder
    ::close(fd);
    return ok;
}

} // namespace

QString temporaryPattern(const QString &fileName)
{
    return QStringLiteral("^\\.") + QRegularExpression::escape(fileName) + QRegularExpression::escape(QLatin1String(marker)) +
           QStringLiteral("[A-Za-z0-9]{6}$");
}

namespace {

// Writes `data` to a new temporary file beside the file `path` stands for,
// with that file's permissions (a new file gets those the umask allows),
// synced when `sync`. The open temporary file, or none.
std::unique_ptr<QTemporaryFile> writeTemporary(const QString &path, const char *data, qint64 size, bool sync, QString &target)
{
    target = finalTarget(path);
    const QFileInfo info(target);
    if (target.isEmpty() || info.isDir() || !info.dir().exists())
        return nullptr;
    const QDir folder = info.dir();
    struct stat old {};
    const bool replacing = ::stat(QFile::encodeName(target).constData(), &old) == 0;
    // Only a save over an existing file can have left a temporary copy of it
    // (listing the folder for every new file would make writing many files
    // into one folder quadratic).
    if (replacing)
        removeStaleTemporaries(folder, info.fileName());

    auto file = std::make_unique<QTemporaryFile>(
        folder.filePath(QLatin1Char('.') + info.fileName() + QLatin1String(marker) + QStringLiteral("XXXXXX")));
    if (!file->open() || file->write(data, size) != size || !file->flush())
        return nullptr;
    const int fd = file->handle();
    if (replacing) {
        if (::fchmod(fd, old.st_mode & 07777) != 0)
            return nullptr;
        if (old.st_uid != ::geteuid() || old.st_gid != ::getegid()) {
            // Best effort: the file keeps its owner where we may set it.
            const int kept = ::fchown(fd, old.st_uid, old.st_gid);
            Q_UNUSED(kept);
        }
    } else if (::fchmod(fd, newFileMode()) != 0) {
        return nullptr;
    }
    if (sync && ::fsync(fd) != 0)
        return nullptr;
    return file;
}

bool renameOver(const QString &from, const QString &to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

} // namespace

bool write(const QString &path, const char *data, qint64 size)
{
    QString target;
    auto file = writeTemporary(path, data, size, true, target);
    if (!file || !renameOver(file->fileName(), target))
        return false;
    file->setAutoRemove(false);
    // The rename is only durable once the folder that holds it is on disk too.
    return syncFolder(QFileInfo(target).absolutePath());
}

Batch::~Batch()
{
    for (const File &file : files_)
        QFile::remove(file.temporary);
}

bool Batch::stage(const QString &path, const char *data, qint64 size)
{
    QString target;
    auto file = writeTemporary(path, data, size, false, target);
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
        if (!folders.insert(folder).second)
            continue;
        const int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        synced = fd >= 0 && ::syncfs(fd) == 0 && synced;
        if (fd >= 0)
            ::close(fd);
    }
    for (size_t i = 0; synced && i < files_.size(); ++i)
        placed[i] = renameOver(files_[i].temporary, files_[i].target);
    for (const QString &folder : folders)
        if (!syncFolder(folder))
            for (size_t i = 0; i < files_.size(); ++i)
                if (QFileInfo(files_[i].target).absolutePath() == folder)
                    placed[i] = false;
    for (size_t i = 0; i < files_.size(); ++i)
        if (!placed[i])
            QFile::remove(files_[i].temporary);
    files_.clear();
    return placed;
}

} // namespace safesave
