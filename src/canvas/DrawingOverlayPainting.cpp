// What the overlay draws: the shape or stroke being drawn, at its real width,
// the dragged annotation's own picture, the selection frame, the waiting
// signature, and a finished change until the page itself shows it.
#include "DrawingOverlayView.h"

#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QPainter>
#include <QTimer>

namespace {

// How long a finished change is shown by the overlay at most when the page's
// new picture does not come (a page scrolled away, a picture that failed).
constexpr qint64 bridgeLimitMs = 1000;
// Room around a repainted area for antialiased edges, in view points.
constexpr int antialiasMargin = 2;
// The selection frame's line width, in view points.
constexpr qreal framePen = 1.5;
// The waiting signature is shown faded, so that the page shows through where
// it would go, inside a dashed frame (5 on, 3 off) in the faded accent colour.
constexpr qreal pendingSignatureOpacity = 0.55;
constexpr qreal pendingFrameOpacity = 0.6;

} // namespace

// Asks for a paint of what changed: the area drawn last time and the area to draw now.
void DrawingOverlayView::refresh()
{
    const QRectF now = paintedArea();
    const QRectF dirty = lastPainted_.united(now);
    lastPainted_ = now;
    if (!dirty.isEmpty())
        update(dirty.toAlignedRect()
                   .adjusted(-antialiasMargin, -antialiasMargin, antialiasMargin, antialiasMargin)
                   .intersected(rect()));
}

// Everything the next paint draws, in overlay space.
QRectF DrawingOverlayView::paintedArea() const
{
    if (!pdfView_)
        return {};
    QRectF area;
    // The pen's width and a point for antialiasing.
    const qreal pen = toolSettings_->lineWidth() * pdfView_->scaleFactor() + 1;
    if (const auto *ink = std::get_if<DrawingInk>(&gesture_); ink && ink->points.size() > 1)
        area = area.united(ink->bounds.adjusted(-pen, -pen, pen, pen));
    if (const auto *shape = std::get_if<DrawingShape>(&gesture_))
        area = area.united(shapeRect(*shape).adjusted(-pen, -pen, pen, pen));
    if (const auto selected = selection()) {
        const Drag *drag = activeDrag();
        const QRectF bounds = drag && drag->annotation == selected ? drag->liveBounds : selected->bounds();
        area = area.united(pdfView_->convertFromPage(selected->drawnArea(bounds), selected->page())
                               .adjusted(-handleSize, -handleSize, handleSize, handleSize));
    }
    if (bridge_)
        area = area.united(pdfView_->convertFromPage(bridge_->area, bridge_->page));
    if (noteEdit_ && !noteEdit_->note)
        area = area.united(noteIconRect().adjusted(-pen, -pen, pen, pen));
    if (auto preview = signaturePreviewRect())
        area = area.united(preview->adjusted(-antialiasMargin, -antialiasMargin, antialiasMargin, antialiasMargin));
    return area;
}

std::optional<QRectF> DrawingOverlayView::signaturePreviewRect() const
{
    const QImage image = documentModel_->pendingSignatureImage();
    if (image.isNull() || !pendingPreviewPoint_ || !pdfView_)
        return std::nullopt;
    const qreal s = pdfView_->scaleFactor();
    const QSizeF size = signatureSize(image, pdfView_->pageAt(*pendingPreviewPoint_, true)) * s;
    return QRectF(*pendingPreviewPoint_ - QPointF(size.width() / 2, size.height() / 2), size);
}

// ---- Pictures of annotations ---------------------------------------------------

std::optional<DrawingOverlayView::Picture> DrawingOverlayView::pictureOf(const std::shared_ptr<PdfAnnotation> &annotation) const
{
    const auto page = annotation ? annotation->page() : nullptr;
    if (!page || !pdfView_)
        return std::nullopt;
    const QRectF area = annotation->drawnArea();
    PdfRenderOptions only;
    only.only = annotation;
    const qreal scale = pdfView_->scaleFactor() * devicePixelRatioF();
    QImage image = page->render(scale, page->pageToDisplay().mapRect(area), only);
    if (image.isNull())
        return std::nullopt;
    image.setDevicePixelRatio(devicePixelRatioF());
    return Picture{page, image, area};
}

QRectF DrawingOverlayView::placedPicture(const Picture &picture, const QRectF &original, const QRectF &bounds) const
{
    // The picture stretches with the bounds, as readers stretch an appearance over a new rectangle.
    const qreal sx = original.width() > 0 ? bounds.width() / original.width() : 1;
    const qreal sy = original.height() > 0 ? bounds.height() / original.height() : 1;
    const QRectF &a = picture.area;
    return QRectF(bounds.left() + (a.left() - original.left()) * sx, bounds.top() + (a.top() - original.top()) * sy,
                  a.width() * sx, a.height() * sy);
}

void DrawingOverlayView::bridgeUntilShown(std::optional<Picture> picture)
{
    bridge_ = std::move(picture);
    if (!bridge_)
        return;
    bridgeAge_.start();
    QTimer::singleShot(bridgeLimitMs, this, [this] {
        if (bridge_ && bridgeAge_.elapsed() >= bridgeLimitMs) {
            bridge_.reset();
            refresh();
        }
    });
    refresh();
}

void DrawingOverlayView::endBridge()
{
    if (!bridge_ || !pdfView_ || !pdfView_->isRenderingComplete())
        return;
    bridge_.reset();
    refresh();
}

// ---- Painting -------------------------------------------------------------------

void DrawingOverlayView::paintEvent(QPaintEvent *)
{
    if (!pdfView_)
        return;
    // The page under the overlay is painted in the same pass: once it shows
    // the finished change, the overlay's picture of it goes.
    if (bridge_ && pdfView_->isRenderingComplete())
        bridge_.reset();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    if (bridge_)
        painter.drawImage(pdfView_->convertFromPage(bridge_->area, bridge_->page), bridge_->image);
    if (auto *ink = std::get_if<DrawingInk>(&gesture_);
        ink && toolSettings_->currentTool() == AnnotationTool::ink && ink->points.size() > 1)
        drawInkPreview(painter, *ink);
    if (const auto *shape = std::get_if<DrawingShape>(&gesture_))
        drawShapePreview(painter, *shape);
    if (const auto selected = selection()) {
        const Drag *drag = activeDrag();
        const bool dragging = drag && drag->annotation == selected && drag->begun;
        const QRectF bounds = dragging ? drag->liveBounds : selected->bounds();
        if (dragging && drag->picture)
            painter.drawImage(pdfView_->convertFromPage(placedPicture(*drag->picture, drag->originalBounds, bounds), drag->page),
                              drag->picture->image);
        drawSelectionChrome(painter, pdfView_->convertFromPage(bounds, selected->page()),
                            AnnotationFactory::isResizable(selected));
    }
    drawPendingNote(painter);
    drawSignaturePreview(painter);
}

// The shape as it will be saved: its stroke at the zoomed line width, inside its bounds.
void DrawingOverlayView::drawShapePreview(QPainter &painter, const DrawingShape &shape) const
{
    const qreal width = toolSettings_->lineWidth() * pdfView_->scaleFactor();
    const QRectF r = shapeRect(shape);
    const qreal inset = std::min({width / 2, r.width() / 2, r.height() / 2});
    painter.setPen(width > 0 ? QPen(toolSettings_->strokeColor(), width, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin)
                             : QPen(Qt::NoPen));
    painter.setBrush(toolSettings_->hasFill() ? QBrush(toolSettings_->fillColor()) : QBrush(Qt::NoBrush));
    const QRectF inside = r.adjusted(inset, inset, -inset, -inset);
    if (toolSettings_->currentTool() == AnnotationTool::circle)
        painter.drawEllipse(inside);
    else
        painter.drawRect(inside);
}

// The stroke is drawn opaque into the kept picture and shown at the colour's
// opacity, so that where its segments meet the colour is not laid on twice.
void DrawingOverlayView::drawInkPreview(QPainter &painter, DrawingInk &ink)
{
    const qreal dpr = devicePixelRatioF();
    const QSize pixels = (QSizeF(size()) * dpr).toSize();
    const QColor color = toolSettings_->strokeColor();
    QColor opaque = color;
    opaque.setAlpha(255);
    const qreal width = toolSettings_->lineWidth() * pdfView_->scaleFactor();
    if (ink.cache.size() != pixels || ink.cacheColor != opaque || ink.cacheWidth != width || ink.cached > ink.points.size()) {
        ink.cache = QImage(pixels, QImage::Format_ARGB32_Premultiplied);
        ink.cache.setDevicePixelRatio(dpr);
        ink.cache.fill(Qt::transparent);
        ink.cacheColor = opaque;
        ink.cacheWidth = width;
        ink.cached = 0;
    }
    if (ink.cached < ink.points.size()) {
        QPainter cache(&ink.cache);
        cache.setRenderHint(QPainter::Antialiasing);
        cache.setPen(QPen(opaque, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        // From the last point already drawn, so that the new segment joins the stroke.
        const size_t from = ink.cached == 0 ? 0 : ink.cached - 1;
        cache.drawPolyline(ink.points.data() + from, int(ink.points.size() - from));
        ink.cached = ink.points.size();
    }
    painter.save();
    painter.setOpacity(color.alphaF());
    painter.drawImage(QPointF(0, 0), ink.cache);
    painter.restore();
}

// The frame of the selection; annotations that can be resized get corner handles.
void DrawingOverlayView::drawSelectionChrome(QPainter &painter, const QRectF &rect, bool handles) const
{
    const QColor accent = palette().color(QPalette::Highlight);
    painter.setPen(QPen(accent, framePen));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(rect);
    if (!handles)
        return;
    const qreal half = handleSize / 2;
    for (QPointF corner : {rect.topLeft(), rect.topRight(), rect.bottomLeft(), rect.bottomRight()}) {
        painter.setBrush(Qt::white);
        painter.drawEllipse(QRectF(corner.x() - half, corner.y() - half, handleSize, handleSize));
    }
}

void DrawingOverlayView::drawSignaturePreview(QPainter &painter) const
{
    const auto rect = signaturePreviewRect();
    if (!rect)
        return;
    painter.save();
    painter.setOpacity(pendingSignatureOpacity);
    painter.drawImage(*rect, documentModel_->pendingSignatureImage());
    painter.setOpacity(1);
    QColor accent = palette().color(QPalette::Highlight);
    accent.setAlphaF(pendingFrameOpacity);
    QPen frame(accent, 1);
    frame.setDashPattern({5, 3});
    painter.setPen(frame);
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(*rect);
    painter.restore();
}
