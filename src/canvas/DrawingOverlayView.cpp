#include "DrawingOverlayView.h"

#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "FontService.h"
#include "ImageStampAnnotation.h"
#include "InlineTextView.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QKeyEvent>
#include <QLineF>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QTextOption>

#include <algorithm>
#include <cmath>

namespace {

// A stamp that carries a picture (a signature) keeps its proportions when resized.
bool isImageStamp(const std::shared_ptr<PdfAnnotation> &annotation)
{
    return std::dynamic_pointer_cast<ImageStampAnnotation>(annotation) && !annotation->stampImage().isNull();
}

// Height, in page points, of a signature image placed 200 points wide.
qreal signatureHeight(const QImage &image)
{
    if (image.width() <= 0)
        return 66;
    return std::clamp(200.0 * image.height() / image.width(), 40.0, 200.0);
}

bool isDeleteKey(int key)
{
    return key == Qt::Key_Backspace || key == Qt::Key_Delete;
}

bool isArrowKey(int key)
{
    return key == Qt::Key_Left || key == Qt::Key_Right || key == Qt::Key_Up || key == Qt::Key_Down;
}

} // namespace

DrawingOverlayView::DrawingOverlayView(ToolSettings *toolSettings, DocumentModel *documentModel, QWidget *parent)
    : QWidget(parent), toolSettings_(toolSettings), documentModel_(documentModel), editingFont_(systemFont(14))
{
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_NoSystemBackground);
    setMouseTracking(true);
    setFocusPolicy(Qt::ClickFocus);
    setAccessibleName(tr("Page annotations"));
    // Delivered one turn of the event loop after the change, so that a step
    // that sets the tool back and selects its result keeps the selection.
    connect(
        toolSettings_, &ToolSettings::currentToolChanged, this,
        [this] {
            commitInlineEdit();
            if (toolSettings_->currentTool() != AnnotationTool::none)
                deselect();
            refresh();
        },
        Qt::QueuedConnection);
    connect(documentModel_, &DocumentModel::pageMutationCountChanged, this, &DrawingOverlayView::deselect, Qt::QueuedConnection);
    connect(
        documentModel_, &DocumentModel::pendingSignatureImageChanged, this,
        [this] {
            if (documentModel_->pendingSignatureImage().isNull())
                pendingPreviewPoint_.reset();
            refresh();
        },
        Qt::QueuedConnection);
}

DrawingOverlayView::~DrawingOverlayView() = default;

void DrawingOverlayView::setPdfView(PdfView *view)
{
    pdfView_ = view;
}

PdfView *DrawingOverlayView::pdfView() const
{
    return pdfView_;
}

void DrawingOverlayView::attachObservers()
{
    if (!pdfView_ || observing_)
        return;
    observing_ = true;
    connect(pdfView_, &PdfView::geometryChanged, this, &DrawingOverlayView::geometryChanged);
}

// The editor keeps its place on the screen, so moving the pages under it ends the edit.
void DrawingOverlayView::geometryChanged()
{
    if (inlineEditor_)
        commitInlineEdit();
    lastPainted_ = QRectF();
    update();
}

// ---- Routing ------------------------------------------------------------------

bool DrawingOverlayView::wantsEvent(const QEvent *event)
{
    if (!pdfView_)
        return false;
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick:
        return takesPress(static_cast<const QMouseEvent *>(event)->position());
    case QEvent::MouseMove: {
        // Hovering chooses the cursor here; where a press would go to the view,
        // the view follows the pointer too (its I-beam and link hand).
        return pointerMoved(static_cast<const QMouseEvent *>(event)->position());
    }
    case QEvent::KeyPress:
        return takesKey(static_cast<const QKeyEvent *>(event));
    default:
        return false;
    }
}

bool DrawingOverlayView::takesPress(QPointF pv) const
{
    if (!pdfView_)
        return false;
    // With an editor open, presses on it are its own; any other ends the edit.
    if (inlineEditor_)
        return true;
    if (!documentModel_->pendingSignatureImage().isNull())
        return true;
    if (toolSettings_->currentTool() != AnnotationTool::none)
        return true;
    if (selection_)
        return true;
    return annotationAt(pv).first != nullptr;
}

bool DrawingOverlayView::takesKey(const QKeyEvent *event) const
{
    const int key = event->key();
    if (key == Qt::Key_Escape)
        return inlineEditor_ || !documentModel_->pendingSignatureImage().isNull() || selection_;
    if (isDeleteKey(key) || isArrowKey(key))
        return selection_ != nullptr;
    return false;
}

// ---- Geometry -------------------------------------------------------------------

std::optional<Handle> DrawingOverlayView::handle(QPointF pv) const
{
    if (!selection_ || !selectionPage_ || !pdfView_)
        return std::nullopt;
    const auto page = selectionPage_;
    return overlayGeometry::handleAt(selection_->bounds(), pv,
                                     [this, &page](QPointF p) { return pdfView_->convertFromPage(p, page); });
}

std::pair<std::shared_ptr<PdfAnnotation>, std::shared_ptr<PdfPage>> DrawingOverlayView::annotationAt(QPointF pv) const
{
    if (!pdfView_)
        return {};
    auto page = pdfView_->pageAt(pv, false);
    if (!page)
        return {};
    auto annotation = page->annotation(pdfView_->convertToPage(pv, page));
    if (!annotation || !AnnotationFactory::isEditable(annotation))
        return {};
    return {annotation, page};
}

QRectF DrawingOverlayView::resizedBounds(Handle handle, QPointF current, bool aspectLocked) const
{
    return overlayGeometry::resizedBounds(handle, originalBounds_, current, aspectLocked);
}

void DrawingOverlayView::nudge(QKeyEvent *event)
{
    if (!selection_) {
        QWidget::keyPressEvent(event);
        return;
    }
    const QPointF offset = overlayGeometry::nudgeOffset(event->key(), event->modifiers().testFlag(Qt::ShiftModifier));
    const QRectF old = selection_->bounds();
    documentModel_->setAnnotationBounds(selection_, old.translated(offset), old);
    refresh();
}

// ---- Selection ----------------------------------------------------------------

void DrawingOverlayView::select(const std::shared_ptr<PdfAnnotation> &annotation)
{
    selection_ = annotation;
    documentModel_->setSelectedAnnotation(annotation);
    selectionPage_ = annotation ? annotation->page() : nullptr;
    if (window())
        setFocus(Qt::MouseFocusReason);
    refresh();
}

void DrawingOverlayView::deselect()
{
    if (!selection_)
        return;
    // An annotation taken off its page for a drag that never ended goes back unchanged.
    if (didBeginDrag_ && selectionPage_ && !selection_->page())
        selectionPage_->addAnnotation(selection_);
    selection_.reset();
    documentModel_->setSelectedAnnotation(nullptr);
    selectionPage_.reset();
    dragMode_ = Idle{};
    liveBounds_.reset();
    didBeginDrag_ = false;
    refresh();
}

// ---- Pointer --------------------------------------------------------------------

void DrawingOverlayView::mousePressEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    press(event, 1);
}

// The second press of a double click.
void DrawingOverlayView::mouseDoubleClickEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    press(event, 2);
}

void DrawingOverlayView::press(QMouseEvent *event, int clickCount)
{
    if (!pdfView_)
        return;
    const QPointF pv = event->position();
    // A waiting signature goes on the page nearest the press; without one it stays waiting.
    if (const QImage signature = documentModel_->pendingSignatureImage(); !signature.isNull()) {
        if (auto page = pdfView_->pageAt(pv, true)) {
            placeSignature(signature, pv, page);
            documentModel_->setPendingSignatureImage(QImage());
        }
        return;
    }
    if (inlineEditor_) {
        commitInlineEdit();
        return;
    }
    switch (toolSettings_->currentTool()) {
    case AnnotationTool::none:
        handleSelectMouseDown(event, pv, clickCount);
        break;
    case AnnotationTool::editText:
        handleEditTextClick(pv);
        break;
    case AnnotationTool::freeText:
        if (auto page = pdfView_->pageAt(pv, true))
            beginNewTextBox(page, pdfView_->convertToPage(pv, page));
        break;
    case AnnotationTool::ink:
        inkPV_ = {pv};
        inkBounds_ = QRectF(pv, pv);
        inkCached_ = 0;
        activePage_ = pdfView_->pageAt(pv, true);
        break;
    case AnnotationTool::rectangle:
    case AnnotationTool::circle:
        shapeStartPV_ = shapeCurrentPV_ = pv;
        activePage_ = pdfView_->pageAt(pv, true);
        break;
    }
}

void DrawingOverlayView::handleSelectMouseDown(QMouseEvent *, QPointF pv, int clickCount)
{
    if (!pdfView_)
        return;
    if (selection_) {
        if (auto corner = handle(pv)) {
            beginManipulation(Resize{*corner}, pv);
            return;
        }
    }
    auto page = pdfView_->pageAt(pv, false);
    auto annotation = page ? page->annotation(pdfView_->convertToPage(pv, page)) : nullptr;
    if (!annotation || !AnnotationFactory::isEditable(annotation)) {
        deselect();
        return;
    }
    if (annotation != selection_)
        select(annotation);
    if (clickCount == 2 && annotation->type() == PdfAnnotation::FreeText) {
        beginEditExisting(annotation);
        return;
    }
    beginManipulation(Move{}, pv);
}

void DrawingOverlayView::beginManipulation(DragMode mode, QPointF pv)
{
    if (!selection_ || !selectionPage_ || !pdfView_)
        return;
    dragMode_ = mode;
    dragStartPage_ = pdfView_->convertToPage(pv, selectionPage_);
    originalBounds_ = selection_->bounds();
    liveBounds_ = selection_->bounds();
    didBeginDrag_ = false;
}

void DrawingOverlayView::mouseMoveEvent(QMouseEvent *event)
{
    if (!pdfView_ || event->buttons() == Qt::NoButton)
        return;
    if (!std::holds_alternative<Idle>(dragMode_)) {
        updateManipulation(event->position());
        return;
    }
    const QPointF pv = event->position();
    switch (toolSettings_->currentTool()) {
    case AnnotationTool::ink: {
        if (inkPV_.empty())
            return;
        const QPointF last = inkPV_.back();
        inkPV_.push_back(pv);
        inkBounds_.setCoords(std::min(inkBounds_.left(), pv.x()), std::min(inkBounds_.top(), pv.y()),
                             std::max(inkBounds_.right(), pv.x()), std::max(inkBounds_.bottom(), pv.y()));
        // Only the new segment needs painting.
        const qreal pen = toolSettings_->lineWidth() + 2;
        const QRectF segment = QRectF(last, pv).normalized().adjusted(-pen, -pen, pen, pen);
        lastPainted_ = lastPainted_.united(segment);
        update(segment.toAlignedRect().intersected(rect()));
        return;
    }
    case AnnotationTool::rectangle:
    case AnnotationTool::circle:
        if (!shapeStartPV_)
            return;
        shapeCurrentPV_ = pv;
        break;
    default:
        return;
    }
    refresh();
}

void DrawingOverlayView::updateManipulation(QPointF pv)
{
    if (!selection_ || !selectionPage_ || !pdfView_)
        return;
    const QPointF p = pdfView_->convertToPage(pv, selectionPage_);
    if (!didBeginDrag_) {
        if (QLineF(p, dragStartPage_).length() < overlayGeometry::dragThreshold)
            return;
        didBeginDrag_ = true;
        // Off its page until the release: the page is drawn once without it
        // and the overlay shows where it goes.
        selectionPage_->removeAnnotation(selection_);
    }
    if (std::holds_alternative<Move>(dragMode_))
        liveBounds_ = originalBounds_.translated(p - dragStartPage_);
    else if (auto *resize = std::get_if<Resize>(&dragMode_))
        liveBounds_ = resizedBounds(resize->handle, p, isImageStamp(selection_));
    refresh();
}

void DrawingOverlayView::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    if (!std::holds_alternative<Idle>(dragMode_)) {
        finishManipulation();
        return;
    }
    if (pdfView_ && activePage_) {
        switch (toolSettings_->currentTool()) {
        case AnnotationTool::ink:
            finishInk(activePage_);
            break;
        case AnnotationTool::rectangle:
            finishShape(PdfAnnotation::Square, activePage_);
            break;
        case AnnotationTool::circle:
            finishShape(PdfAnnotation::Circle, activePage_);
            break;
        default:
            break;
        }
    }
    clearDrawing();
}

void DrawingOverlayView::finishManipulation()
{
    if (selection_ && selectionPage_ && didBeginDrag_ && liveBounds_)
        documentModel_->commitAnnotationDrag(selection_, selectionPage_, *liveBounds_, originalBounds_);
    dragMode_ = Idle{};
    liveBounds_.reset();
    didBeginDrag_ = false;
    refresh();
}

void DrawingOverlayView::clearDrawing()
{
    inkPV_.clear();
    inkCache_ = QImage();
    inkCached_ = 0;
    shapeStartPV_.reset();
    shapeCurrentPV_.reset();
    activePage_.reset();
    refresh();
}

// Chooses the cursor for the pointer at `pv` and tells whether a press there
// would be the overlay's (the same answer as takesPress, with one probe of the page).
bool DrawingOverlayView::pointerMoved(QPointF pv)
{
    if (!documentModel_->pendingSignatureImage().isNull()) {
        pendingPreviewPoint_ = pv;
        setCursor(Qt::CrossCursor);
        refresh();
        return true;
    }
    switch (toolSettings_->currentTool()) {
    case AnnotationTool::ink:
    case AnnotationTool::rectangle:
    case AnnotationTool::circle:
        setCursor(Qt::CrossCursor);
        return true;
    case AnnotationTool::editText:
    case AnnotationTool::freeText:
        setCursor(Qt::IBeamCursor);
        return true;
    case AnnotationTool::none:
        break;
    }
    if (selection_ && handle(pv)) {
        setCursor(Qt::CrossCursor);
        return true;
    }
    const bool onAnnotation = annotationAt(pv).first != nullptr;
    if (onAnnotation)
        setCursor(Qt::OpenHandCursor);
    else
        unsetCursor(); // the view's own: an arrow, or the I-beam over text and the hand over links
    return onAnnotation || selection_ || inlineEditor_;
}

void DrawingOverlayView::leaveEvent(QEvent *event)
{
    if (pendingPreviewPoint_) {
        pendingPreviewPoint_.reset();
        refresh();
    }
    QWidget::leaveEvent(event);
}

// ---- Keys -----------------------------------------------------------------------

// Keys the overlay acts on (Delete, Escape, the arrows with a selection) come
// to it before any menu shortcut of the same key.
bool DrawingOverlayView::event(QEvent *event)
{
    if (event->type() == QEvent::ShortcutOverride && pdfView_ && takesKey(static_cast<QKeyEvent *>(event))) {
        event->accept();
        return true;
    }
    return QWidget::event(event);
}

void DrawingOverlayView::keyPressEvent(QKeyEvent *event)
{
    const int key = event->key();
    if (key == Qt::Key_Escape) {
        if (inlineEditor_) {
            removeInlineEditor();
            refresh();
        } else if (!documentModel_->pendingSignatureImage().isNull())
            documentModel_->setPendingSignatureImage(QImage());
        else if (selection_)
            deselect();
        else
            QWidget::keyPressEvent(event);
    } else if (isDeleteKey(key)) {
        if (!selection_) {
            QWidget::keyPressEvent(event);
            return;
        }
        documentModel_->removeAnnotation(selection_);
        deselect();
    } else if (isArrowKey(key)) {
        nudge(event);
    } else {
        QWidget::keyPressEvent(event);
    }
}

// ---- Making shapes, ink and stamps ------------------------------------------------

void DrawingOverlayView::placeSignature(const QImage &image, QPointF pv, const std::shared_ptr<PdfPage> &page)
{
    const QPointF p = pdfView_->convertToPage(pv, page);
    const qreal height = signatureHeight(image);
    auto stamp = AnnotationFactory::makeImageStamp(image, QRectF(p.x() - 100, p.y() - height / 2, 200, height));
    documentModel_->addAnnotation(stamp, page, true);
    toolSettings_->setCurrentTool(AnnotationTool::none);
    select(stamp);
}

void DrawingOverlayView::finishShape(const QString &subtype, const std::shared_ptr<PdfPage> &page)
{
    if (!shapeStartPV_ || !shapeCurrentPV_)
        return;
    const QPointF delta = *shapeCurrentPV_ - *shapeStartPV_;
    // Within 2 view points both ways the press was a click, not a drag.
    if (std::abs(delta.x()) <= 2 && std::abs(delta.y()) <= 2)
        return;
    const QPointF a = pdfView_->convertToPage(*shapeStartPV_, page);
    const QPointF b = pdfView_->convertToPage(*shapeCurrentPV_, page);
    const QRectF bounds(std::min(a.x(), b.x()), std::min(a.y(), b.y()), std::abs(b.x() - a.x()), std::abs(b.y() - a.y()));
    auto annotation = PdfAnnotation::create(bounds, subtype);
    annotation->setColor(toolSettings_->strokeColor());
    if (toolSettings_->hasFill())
        annotation->setInteriorColor(toolSettings_->fillColor());
    annotation->setBorderWidth(toolSettings_->lineWidth());
    documentModel_->addAnnotation(annotation, page, true);
}

void DrawingOverlayView::finishInk(const std::shared_ptr<PdfPage> &page)
{
    if (inkPV_.size() < 2)
        return;
    QPolygonF points;
    points.reserve(qsizetype(inkPV_.size()));
    for (QPointF pv : inkPV_)
        points << pdfView_->convertToPage(pv, page);
    const qreal width = toolSettings_->lineWidth();
    QRectF bounds = points.boundingRect(); // of the points alone, also when they lie on one line
    bounds.adjust(-width, -width, width, width);
    auto annotation = PdfAnnotation::create(bounds, PdfAnnotation::Ink);
    annotation->setColor(toolSettings_->strokeColor());
    annotation->setBorderWidth(width);
    annotation->addInkPath(points.translated(-bounds.topLeft()));
    documentModel_->addAnnotation(annotation, page, true);
}

// ---- Painting -----------------------------------------------------------------------

// Asks for a paint of what changed: the area drawn last time and the area to draw now.
void DrawingOverlayView::refresh()
{
    const QRectF now = paintedArea();
    const QRectF dirty = lastPainted_.united(now);
    lastPainted_ = now;
    if (!dirty.isEmpty())
        update(dirty.toAlignedRect().adjusted(-2, -2, 2, 2).intersected(rect()));
}

// Everything the next paint draws, in overlay space.
QRectF DrawingOverlayView::paintedArea() const
{
    if (!pdfView_)
        return {};
    QRectF area;
    const qreal pen = toolSettings_->lineWidth();
    if (inkPV_.size() > 1)
        area = area.united(inkBounds_.adjusted(-pen, -pen, pen, pen));
    if (shapeStartPV_ && shapeCurrentPV_)
        area = area.united(QRectF(*shapeStartPV_, *shapeCurrentPV_).normalized().adjusted(-pen, -pen, pen, pen));
    if (selection_ && selectionPage_) {
        const QRectF r = pdfView_->convertFromPage(liveBounds_.value_or(selection_->bounds()), selectionPage_);
        area = area.united(r.adjusted(-handleSize, -handleSize, handleSize, handleSize));
    }
    if (auto preview = signaturePreviewRect())
        area = area.united(preview->adjusted(-2, -2, 2, 2));
    return area;
}

std::optional<QRectF> DrawingOverlayView::signaturePreviewRect() const
{
    const QImage image = documentModel_->pendingSignatureImage();
    if (image.isNull() || !pendingPreviewPoint_ || !pdfView_)
        return std::nullopt;
    const qreal s = pdfView_->scaleFactor();
    const QSizeF size(200 * s, signatureHeight(image) * s);
    return QRectF(*pendingPreviewPoint_ - QPointF(size.width() / 2, size.height() / 2), size);
}

void DrawingOverlayView::paintEvent(QPaintEvent *)
{
    if (!pdfView_)
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPen stroke(toolSettings_->strokeColor(), toolSettings_->lineWidth(), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    if (toolSettings_->currentTool() == AnnotationTool::ink && inkPV_.size() > 1)
        drawInkPreview(painter);
    if (shapeStartPV_ && shapeCurrentPV_) {
        painter.setPen(stroke);
        painter.setBrush(Qt::NoBrush);
        const QRectF r = QRectF(*shapeStartPV_, *shapeCurrentPV_).normalized();
        if (toolSettings_->currentTool() == AnnotationTool::circle)
            painter.drawEllipse(r);
        else
            painter.drawRect(r);
    }
    if (selection_ && selectionPage_) {
        const QRectF r = pdfView_->convertFromPage(liveBounds_.value_or(selection_->bounds()), selectionPage_);
        if (didBeginDrag_ && liveBounds_)
            drawPreviewContent(painter, selection_, r, pdfView_->scaleFactor());
        drawSelectionChrome(painter, r);
    }
    drawSignaturePreview(painter);
}

// The stroke is drawn opaque into the kept picture and shown at the colour's
// opacity, so that where its segments meet the colour is not laid on twice.
void DrawingOverlayView::drawInkPreview(QPainter &painter)
{
    const qreal dpr = devicePixelRatioF();
    const QSize pixels = (QSizeF(size()) * dpr).toSize();
    const QColor color = toolSettings_->strokeColor();
    QColor opaque = color;
    opaque.setAlpha(255);
    const qreal width = toolSettings_->lineWidth();
    if (inkCache_.size() != pixels || inkCacheColor_ != opaque || inkCacheWidth_ != width || inkCached_ > inkPV_.size()) {
        inkCache_ = QImage(pixels, QImage::Format_ARGB32_Premultiplied);
        inkCache_.setDevicePixelRatio(dpr);
        inkCache_.fill(Qt::transparent);
        inkCacheColor_ = opaque;
        inkCacheWidth_ = width;
        inkCached_ = 0;
    }
    if (inkCached_ < inkPV_.size()) {
        QPainter cache(&inkCache_);
        cache.setRenderHint(QPainter::Antialiasing);
        cache.setPen(QPen(opaque, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        const size_t from = inkCached_ == 0 ? 0 : inkCached_ - 1;
        cache.drawPolyline(inkPV_.data() + from, int(inkPV_.size() - from));
        inkCached_ = inkPV_.size();
    }
    painter.save();
    painter.setOpacity(color.alphaF());
    painter.drawImage(QPointF(0, 0), inkCache_);
    painter.restore();
}

void DrawingOverlayView::drawSelectionChrome(QPainter &painter, const QRectF &rect) const
{
    const QColor accent = palette().color(QPalette::Highlight);
    painter.setPen(QPen(accent, 1.5));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(rect);
    const qreal half = handleSize / 2;
    for (QPointF corner : {rect.topLeft(), rect.topRight(), rect.bottomLeft(), rect.bottomRight()}) {
        painter.setBrush(Qt::white);
        painter.drawEllipse(QRectF(corner.x() - half, corner.y() - half, handleSize, handleSize));
    }
}

// What stands in for the annotation while it is off its page during a drag.
void DrawingOverlayView::drawPreviewContent(QPainter &painter, const std::shared_ptr<PdfAnnotation> &annotation,
                                            const QRectF &rect, qreal scale) const
{
    if (isImageStamp(annotation)) {
        painter.save();
        painter.setOpacity(0.9);
        painter.drawImage(rect, annotation->stampImage());
        painter.restore();
        return;
    }
    if (annotation->type() == PdfAnnotation::FreeText) {
        painter.fillRect(rect, QColor(255, 255, 255, qRound(0.85 * 255)));
        const PdfFont font = annotation->font().value_or(PdfFont{QString(), 14});
        QFont shown = FontService::instance().qFont(font);
        shown.setPointSizeF(std::max<qreal>(font.size > 0 ? font.size : 14, 0.5) * scale);
        painter.save();
        painter.setFont(shown);
        painter.setPen(annotation->fontColor().isValid() ? annotation->fontColor() : QColor(Qt::black));
        QTextOption option;
        option.setWrapMode(QTextOption::WordWrap);
        const qreal inset = FontService::TextInset;
        painter.drawText(rect.adjusted(inset, inset, -inset, -inset), annotation->contents(), option);
        painter.restore();
        return;
    }
    QColor accent = palette().color(QPalette::Highlight);
    accent.setAlphaF(0.12);
    painter.fillRect(rect, accent);
}

void DrawingOverlayView::drawSignaturePreview(QPainter &painter) const
{
    const auto rect = signaturePreviewRect();
    if (!rect)
        return;
    painter.save();
    painter.setOpacity(0.55);
    painter.drawImage(*rect, documentModel_->pendingSignatureImage());
    painter.setOpacity(1);
    QColor accent = palette().color(QPalette::Highlight);
    accent.setAlphaF(0.6);
    QPen frame(accent, 1);
    frame.setDashPattern({5, 3});
    painter.setPen(frame);
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(*rect);
    painter.restore();
}
