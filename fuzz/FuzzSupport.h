// What the fuzz targets share: a scratch folder of their own, cutting an input
// into its parts, and reading an edit script from bytes.
#pragma once

#include "PdfDocument.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unistd.h>
#include <vector>

namespace fuzzing {

// Stands between the parts of an input: two PDF files, a PDF file and its edit
// script. In the dictionaries too, so that mutations keep it or make more.
inline const QByteArray Separator = QByteArrayLiteral("\n%%VELLORA-NEXT%%\n");

// The user password of the encrypted seeds, and of one written the older way
// (RC4) with a password outside PDFDocEncoding, given as its UTF-8 bytes.
inline const QString SeedPassword = QStringLiteral("fuzz");
inline const QString SeedUnicodePassword = QStringLiteral("密码");

// Unlocks an encrypted document as a user might: a wrong password first, then
// the seeds' passwords. False when it stays locked.
inline bool unlockSeed(PdfDocument &doc)
{
    return !doc.isLocked() || doc.unlock(QStringLiteral("wrong")) || doc.unlock(SeedUnicodePassword) || doc.unlock(SeedPassword);
}

// A path in this process's scratch folder.
inline QString scratch(const QString &name)
{
    static const QString folder = [] {
        const QString dir = QDir::tempPath() + QStringLiteral("/vellora-fuzz-%1").arg(::getpid());
        QDir().mkpath(dir);
        return dir;
    }();
    return folder + QLatin1Char('/') + name;
}

inline std::vector<QByteArray> split(const uint8_t *data, size_t size)
{
    std::vector<QByteArray> parts;
    const QByteArray all = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    qsizetype from = 0;
    for (qsizetype at = all.indexOf(Separator); at >= 0; at = all.indexOf(Separator, from)) {
        parts.push_back(all.mid(from, at - from));
        from = at + Separator.size();
    }
    parts.push_back(all.mid(from));
    return parts;
}

// The document in `bytes`, written to `name`, opened and unlocked; none when
// it cannot be read or unlocked.
inline std::shared_ptr<PdfDocument> openBytes(const QByteArray &bytes, const QString &name)
{
    const QString path = scratch(name);
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
            return nullptr;
    }
    auto doc = PdfDocument::open(path);
    return doc && unlockSeed(*doc) ? doc : nullptr;
}

// Bytes read one value at a time; zeros once they run out, so an input
// without a script still takes the default of every choice.
class Script {
public:
    explicit Script(const QByteArray &bytes) : bytes_(bytes) {}
    bool atEnd() const { return at_ >= bytes_.size(); }
    // How many bytes were read.
    qsizetype used() const { return std::min(at_, bytes_.size()); }
    int byte() { return at_ < bytes_.size() ? uchar(bytes_[at_++]) : 0; }
    bool flag() { return byte() & 1; }
    // A value in [0, n), n > 0.
    int below(int n) { return n > 0 ? byte() % n : 0; }
    // A coordinate on a letter-size page, in steps of 4 points.
    qreal coordinate() { return byte() * 4 - 100; }

private:
    QByteArray bytes_;
    qsizetype at_ = 0;
};

} // namespace fuzzing
