#include "ImageStampAnnotation.h"

ImageStampAnnotation::ImageStampAnnotation(const QRectF &bounds) : PdfAnnotation(bounds, PdfAnnotation::Stamp) {}

std::shared_ptr<ImageStampAnnotation> ImageStampAnnotation::create(const QRectF &bounds)
{
    return std::shared_ptr<ImageStampAnnotation>(new ImageStampAnnotation(bounds));
}
