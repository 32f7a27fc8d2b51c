// What a finished gesture makes: a rectangle or an ellipse, a stroke of ink,
// or a signature stamp placed where the pointer was pressed.
#include "DrawingOverlayView.h"

#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "ImageStampAnnotation.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <algorithm>

namespace {

// A placed signature's height follows its picture within these bounds, in points.
constexpr qreal shortestSignature = 40;
constexpr qreal tallestSignature = 200;
// The height of a signature whose picture has no size: a third of the usual
// width, as a signature written on one line is.
constexpr qreal unsizedSignatureHeight = 66;

} // namespace

QSizeF DrawingOverlayView::signatureSize(const QImage &image, const std::shared_ptr<PdfPage> &page)
{
    const qreal widest = AnnotationFactory::signatureWidth;
    const QSizeF room = page ? page->bounds().size() / 2 : QSizeF(widest, widest);
    qreal width = std::min(widest, room.width());
    qreal height = image.width() > 0 ? std::clamp(width * image.height() / image.width(), shortestSignature, tallestSignature)
                                     : unsizedSignatureHeight;
    if (height > room.height()) {
        width *= room.height() / height;
        height = room.height();
    }
    return QSizeF(width, height);
}

void DrawingOverlayView::placeSignature(const QImage &image, QPointF pv, const std::shared_ptr<PdfPage> &page)
{
    const QPointF p = pdfView_->convertToPage(pv, page);
    const QSizeF size = signatureSize(image, page);
    const QRectF placed(p.x() - size.width() / 2, p.y() - size.height() / 2, size.width(), size.height());
    auto stamp = AnnotationFactory::makeImageStamp(image, overlayGeometry::keptInside(placed, page->bounds()));
    documentModel_->addAnnotation(stamp, page, true);
    toolSettings_->setCurrentTool(AnnotationTool::none);
    select(stamp);
}

void DrawingOverlayView::finishShape(const DrawingShape &shape, const QString &subtype)
{
    const QRectF drawn = shapeRect(shape);
    // Within 2 view points both ways the press was a click, not a drag.
    if (drawn.isNull() || (drawn.width() <= 2 && drawn.height() <= 2))
        return;
    // The corners were kept on the page while drawing.
    const QRectF bounds = pdfView_->convertToPage(drawn, shape.page);
    auto annotation = PdfAnnotation::create(bounds, subtype);
    annotation->setAuthor(AnnotationFactory::authorName());
    annotation->setColor(toolSettings_->strokeColor());
    if (toolSettings_->hasFill())
        annotation->setInteriorColor(toolSettings_->fillColor());
    annotation->setBorderWidth(toolSettings_->lineWidth());
    documentModel_->addAnnotation(annotation, shape.page, true);
    bridgeUntilShown(pictureOf(annotation));
}

void DrawingOverlayView::finishInk(const DrawingInk &ink)
{
    if (ink.points.size() < 2)
        return;
    QPolygonF points;
    points.reserve(qsizetype(ink.points.size()));
    for (QPointF pv : ink.points)
        points << pdfView_->convertToPage(pv, ink.page);
    const qreal width = toolSettings_->lineWidth();
    QRectF bounds = points.boundingRect(); // of the points alone, also when they lie on one line
    bounds.adjust(-width, -width, width, width);
    auto annotation = PdfAnnotation::create(bounds, PdfAnnotation::Ink);
    annotation->setAuthor(AnnotationFactory::authorName());
    annotation->setColor(toolSettings_->strokeColor());
    annotation->setBorderWidth(width);
    annotation->addInkPath(points.translated(-bounds.topLeft()));
    documentModel_->addAnnotation(annotation, ink.page, true);
    bridgeUntilShown(pictureOf(annotation));
}
