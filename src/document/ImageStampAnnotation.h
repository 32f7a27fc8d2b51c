// A stamp that carries the image it shows (a placed signature). It is drawn
// with a multiply blend, so the page shows through the white of the image,
// and it keeps its proportions when resized. In a saved file it is an
// ordinary stamp whose appearance draws the image; read back, it is a plain
// annotation again.
#pragma once

#include "PdfAnnotation.h"

class ImageStampAnnotation : public PdfAnnotation {
public:
    static std::shared_ptr<ImageStampAnnotation> create(const QRectF &bounds);

private:
    explicit ImageStampAnnotation(const QRectF &bounds);
};
