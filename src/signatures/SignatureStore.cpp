#include "SignatureStore.h"

#include "SignatureFonts.h"

#include <QBuffer>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFontMetricsF>
#include <QPainter>
#include <QSaveFile>

#include <algorithm>
#include <cmath>

namespace SignatureStore {
namespace {

constexpr qreal typedFontSize = 96;
constexpr qreal typedMargin = 28;
// How many saves of one second get a name of their own.
constexpr int maximumSuffix = 999;

QString baseFolder()
{
    const QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (!base.isEmpty() && QDir::isAbsolutePath(base))
        return base;
    return QDir::homePath() + QStringLiteral("/.local/share");
}

} // namespace

QString directory()
{
    static const QString folder = [] {
        const QString path = baseFolder() + QStringLiteral("/Vellora/Signatures");
        QDir().mkpath(path);
        return path;
    }();
    return folder;
}

QString save(const QImage &image, QString *error)
{
    QByteArray png;
    QBuffer buffer(&png);
    if (image.isNull() || !buffer.open(QIODevice::WriteOnly) || !image.save(&buffer, "PNG"))
        return {};
    // The name is taken by creating the file exclusively, so that a second
    // save in the same second gets a name of its own ("_1", "_2", ...; they
    // sort after the first) instead of replacing the first.
    const qint64 seconds = QDateTime::currentMSecsSinceEpoch() / 1000;
    QString path;
    QFile reserved;
    for (int suffix = 0; suffix <= maximumSuffix; ++suffix) {
        path = directory() + QStringLiteral("/sig_%1").arg(seconds) +
               (suffix == 0 ? QString() : QStringLiteral("_%1").arg(suffix)) + QStringLiteral(".png");
        reserved.setFileName(path);
        if (reserved.open(QIODevice::WriteOnly | QIODevice::NewOnly) || !reserved.exists())
            break;
    }
    const bool taken = reserved.isOpen();
    reserved.close();
    // Written beside the reserved name and renamed over it when complete, so
    // a failure never leaves a truncated signature behind.
    QSaveFile file(path);
    const bool written = taken && file.open(QIODevice::WriteOnly) && file.write(png) == png.size() && file.commit();
    if (taken && !written)
        QFile::remove(path);
    if (error)
        *error = written ? QString() : (taken ? file.errorString() : reserved.errorString());
    return path;
}

QStringList load()
{
    const QDir folder(directory());
    QStringList names = folder.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::NoSort);
    names.erase(
        std::remove_if(names.begin(), names.end(), [](const QString &name) { return !name.endsWith(QLatin1String(".png")); }),
        names.end());
    std::sort(names.begin(), names.end());
    QStringList paths;
    for (const QString &name : names)
        paths.append(folder.filePath(name));
    return paths;
}

void deleteSignature(const QString &path)
{
    QFile::remove(path);
}

QImage renderTypedSignature(const QString &name, const QString &fontName, const QColor &ink)
{
    const QString text = name.trimmed();
    if (text.isEmpty())
        return {};
    const QFont font = SignatureFonts::font(fontName, typedFontSize);
    const QSizeF measured = QFontMetricsF(font).size(0, text);
    const int width = int(std::ceil(measured.width() + 2 * typedMargin));
    const int height = int(std::ceil(measured.height() + 2 * typedMargin));
    if (width < 2 || height < 2)
        return {};
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    if (image.isNull())
        return {};
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setFont(font);
    painter.setPen(ink);
    painter.drawText(QRectF(QPointF(typedMargin, typedMargin), measured), Qt::AlignLeft | Qt::AlignTop, text);
    return image;
}

} // namespace SignatureStore
