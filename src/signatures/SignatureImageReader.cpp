#include "SignatureImageReader.h"

#include "AnnotationFactory.h"
#include "SignatureCanvasView.h"

#include <QImageReader>
#include <QMimeDatabase>

namespace {

// Why an image file that did not read cannot be used, as the end of a
// sentence; `size` is the one the file gave before the read failed.
QString unreadableReason(const QImageReader &reader, const QString &path, QSize size)
{
    switch (reader.error()) {
    case QImageReader::FileNotFoundError:
    case QImageReader::DeviceError:
        return SignatureImageReader::tr("the file can't be read.");
    case QImageReader::UnsupportedFormatError:
        if (QMimeDatabase().mimeTypeForFile(path).inherits(QStringLiteral("image/svg+xml")))
            return SignatureImageReader::tr("SVG drawings aren't supported; save it as a PNG first.");
        return SignatureImageReader::tr("it isn't a picture in a format Vellora reads.");
    default:
        break;
    }
    // Qt refuses some pictures over its allocation limit (counted at 32 bits a
    // pixel) even when asked for a smaller size; the error does not tell that
    // from damage.
    if (size.isValid() && qint64(size.width()) * size.height() * 4 > qint64(QImageReader::allocationLimit()) << 20)
        return SignatureImageReader::tr("the file is damaged or incomplete, or at %1 × %2 pixels too large to read.")
            .arg(size.width())
            .arg(size.height());
    return SignatureImageReader::tr("the file is damaged or incomplete.");
}

} // namespace

QImage SignatureImageReader::read(const QString &path, QString &reason)
{
    QImageReader reader(path);
    reader.setAutoTransform(true);
    const bool turned = reader.transformation().testFlag(QImageIOHandler::TransformationRotate90);
    const QSize stored = reader.size();
    const QSize upright = turned ? stored.transposed() : stored;
    const int widest = int(AnnotationFactory::signatureWidth) * SignatureCanvasView::inkScale;
    if (upright.width() > widest) {
        const QSize scaled(widest, qMax(1, qRound(qreal(upright.height()) * widest / upright.width())));
        reader.setScaledSize(turned ? scaled.transposed() : scaled);
    }
    const QImage image = reader.read();
    if (image.isNull())
        reason = unreadableReason(reader, path, stored);
    return image;
}
