#include "SafeSave.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryFile>

#include <cerrno>
#include <fcntl.h>
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
    return QStringLiteral("^\\.") + QRegularExpression::escape(fileName) + QRegularExpression::escape(QLatin1String(marker))
           + QStringLiteral("[A-Za-z0-9]{6}$");
}

bool write(const QString &path, const char *data, qint64 size)
{
    const QString target = finalTarget(path);
    const QFileInfo info(target);
    if (target.isEmpty() || info.isDir() || !info.dir().exists())
        return false;
    const QDir folder = info.dir();
    struct stat old {};
    const bool replacing = ::stat(QFile::encodeName(target).constData(), &old) == 0;
    // Only a save over an existing file can have left a temporary copy of it
    // (listing the folder for every new file would make writing many files
    // into one folder quadratic).
    if (replacing)
        removeStaleTemporaries(folder, info.fileName());

    QTemporaryFile file(folder.filePath(QLatin1Char('.') + info.fileName() + QLatin1String(marker) + QStringLiteral("XXXXXX")));
    if (!file.open() || file.write(data, size) != size || !file.flush())
        return false;
    const int fd = file.handle();
    if (replacing) {
        if (::fchmod(fd, old.st_mode & 07777) != 0)
            return false;
        if (old.st_uid != ::geteuid() || old.st_gid != ::getegid()) {
            // Best effort: the file keeps its owner where we may set it.
            const int kept = ::fchown(fd, old.st_uid, old.st_gid);
            Q_UNUSED(kept);
        }
    } else if (::fchmod(fd, newFileMode()) != 0) {
        return false;
    }
    if (::fsync(fd) != 0)
        return false;
    const QByteArray from = QFile::encodeName(file.fileName());
    if (::rename(from.constData(), QFile::encodeName(target).constData()) != 0)
        return false;
    file.setAutoRemove(false);
    // The rename is only durable once the folder that holds it is on disk too.
    return syncFolder(folder.absolutePath());
}

} // namespace safesave
