#include "PdfDisplayList.h"

#include "Native.h"

#include <cmath>

PdfDisplayList::PdfDisplayList(std::unique_ptr<Native> native, QSizeF size, bool transparent)
    : native_(std::move(native)), size_(size), transparent_(transparent)
{
}

PdfDisplayList::~PdfDisplayList()
{
    mu::release([this](fz_context *c) { fz_drop_display_list(c, native_->list); });
}

QImage PdfDisplayList::render(qreal scale, QRectF region) const
{
    if (region.isEmpty())
        region = QRectF(QPointF(0, 0), size_);
    // A page can claim any size: a picture beyond these bounds is not made
    // (a damaged box would otherwise ask for gigabytes).
    constexpr double maxSide = 32767, maxPixels = 64.0 * 1024 * 1024;
    const double width = std::max(1.0, std::round(region.width() * scale));
    const double height = std::max(1.0, std::round(region.height() * scale));
    if (!std::isfinite(width) || !std::isfinite(height) || width > maxSide || height > maxSide || width * height > maxPixels)
        return QImage();
    QImage image(QSize(int(width), int(height)), QImage::Format_ARGB32_Premultiplied);
    if (image.isNull() || !renderInto(image, scale, region.topLeft()))
        return QImage();
    return image;
}

bool PdfDisplayList::renderInto(QImage &target, qreal scale, QPointF origin) const
{
    if (target.format() != QImage::Format_ARGB32_Premultiplied || target.isNull())
        return false;
    target.fill(transparent_ ? Qt::transparent : Qt::white);
    // BGRA bytes with premultiplied alpha are QImage's ARGB32 on little-endian machines.
    static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "pixel layout assumes a little-endian machine");
    unsigned char *bits = target.bits();
    const int w = target.width(), h = target.height(), stride = int(target.bytesPerLine());
    const fz_matrix ctm = fz_concat(fz_translate(float(-origin.x()), float(-origin.y())), fz_scale(float(scale), float(scale)));
    return mu::tryGuard(
        [&](fz_context *c) {
            fz_pixmap *pixmap = nullptr;
            fz_device *dev = nullptr;
            fz_var(pixmap);
            fz_var(dev);
            fz_try(c)
            {
                pixmap = fz_new_pixmap_with_data(c, fz_device_bgr(c), w, h, nullptr, 1, stride, bits);
                dev = fz_new_draw_device(c, fz_identity, pixmap);
                fz_run_display_list(c, native_->list, dev, ctm, fz_infinite_rect, nullptr);
                fz_close_device(c, dev);
            }
            fz_always(c)
            {
                fz_drop_device(c, dev);
                fz_drop_pixmap(c, pixmap);
            }
            fz_catch(c) fz_rethrow(c);
        },
        mu::Lock::None);
}
