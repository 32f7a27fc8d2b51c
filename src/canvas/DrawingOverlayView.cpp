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
    // The selection is the model's: the frame, its handles and its keys follow it at once.
    connect(documentModel_, &DocumentModel::selectedAnnotationChanged, this, &DrawingOverlayView::selectionChanged);
    // Undo, redo or page work during a drag: the document decides where things are.
    connect(documentModel_, &DocumentModel::historyVersionChanged, this, &DrawingOverlayView::cancelManipulation);
    connect(documentModel_, &DocumentModel::pageMutationCountChanged, this, [this] {
        cancelManipulation();
        refresh();
    });
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
    connect(pdfView_, &PdfView::renderingComplete, this, &DrawingOverlayView::endBridge);
}

// The editor keeps its place on the screen, so moving the pages under it ends
// the edit; a drag goes on from the new place of its page.
void DrawingOverlayView::geometryChanged()
{
    if (inlineEditor_)
        commitInlineEdit();
    bridge_.reset();
    if (dragPicture_ && dragged_)
        dragPicture_ = pictureOf(dragged_);
    lastPainted_ = QRectF();
    update();
}

void DrawingOverlayView::finishInteraction()
{
    commitInlineEdit();
    cancelManipulation();
    clearDrawing();
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
    if (selection())
        return true;
    return annotationAt(pv).first != nullptr;
}

bool DrawingOverlayView::takesKey(const QKeyEvent *event) const
{
    const int key = event->key();
    const auto selected = selection();
    if (key == Qt::Key_Escape)
        return inlineEditor_ || !documentModel_->pendingSignatureImage().isNull() || selected;
    if (isDeleteKey(key))
        return selected != nullptr;
    if (isArrowKey(key))
        return AnnotationFactory::isEditable(selected);
    return false;
}

// ---- Geometry -------------------------------------------------------------------

std::optional<Handle> DrawingOverlayView::handle(QPointF pv) const
{
    const auto selected = selection();
    if (!selected || !pdfView_ || !AnnotationFactory::isEditable(selected))
        return std::nullopt;
    const auto page = selected->page();
    return overlayGeometry::handleAt(selected->bounds(), pv,
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
    if (!annotation || !AnnotationFactory::isSelectable(annotation))
        return {};
    return {annotation, page};
}

QRectF DrawingOverlayView::resizedBounds(Handle handle, QPointF current, bool aspectLocked) const
{
    return overlayGeometry::resizedBounds(handle, originalBounds_, current, aspectLocked);
}

void DrawingOverlayView::nudge(QKeyEvent *event)
{
    const auto selected = selection();
    if (!AnnotationFactory::isEditable(selected)) {
        QWidget::keyPressEvent(event);
        return;
    }
    const QPointF offset = overlayGeometry::nudgeOffset(event->key(), event->modifiers().testFlag(Qt::ShiftModifier));
    const QRectF old = selected->bounds();
    documentModel_->setAnnotationBounds(selected, old.translated(offset), old);
    refresh();
}

// ---- Selection ----------------------------------------------------------------

std::shared_ptr<PdfAnnotation> DrawingOverlayView::selection() const
{
    auto annotation = documentModel_->selectedAnnotation();
    const auto page = annotation ? annotation->page() : nullptr;
    if (!page || !pdfView_ || !pdfView_->document() || page->document() != pdfView_->document())
        return nullptr;
    return annotation;
}

std::shared_ptr<PdfPage> DrawingOverlayView::selectionPage() const
{
    const auto selected = selection();
    return selected ? selected->page() : nullptr;
}

void DrawingOverlayView::select(const std::shared_ptr<PdfAnnotation> &annotation)
{
    documentModel_->setSelectedAnnotation(annotation);
    if (annotation && window())
        setFocus(Qt::MouseFocusReason);
}

void DrawingOverlayView::deselect()
{
    cancelManipulation();
    if (documentModel_->selectedAnnotation())
        documentModel_->setSelectedAnnotation(nullptr);
}

// Whatever changed the selection (a click here, another window, an undo, Edit >
// Delete), the frame follows it; a drag of an annotation no longer selected ends.
void DrawingOverlayView::selectionChanged()
{
    if (dragged_ && dragged_ != selection())
        cancelManipulation();
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
        activePage_ = pdfView_->pageAt(pv, true);
        inkPV_ = {onActivePage(pv)};
        inkBounds_ = QRectF(inkPV_.front(), inkPV_.front());
        inkCached_ = 0;
        break;
    case AnnotationTool::rectangle:
    case AnnotationTool::circle:
        activePage_ = pdfView_->pageAt(pv, true);
        shapeStartPV_ = shapeCurrentPV_ = onActivePage(pv);
        shapeSquared_ = event->modifiers().testFlag(Qt::ShiftModifier);
        break;
    }
}

void DrawingOverlayView::handleSelectMouseDown(QMouseEvent *, QPointF pv, int clickCount)
{
    if (!pdfView_)
        return;
    if (auto corner = handle(pv)) {
        beginManipulation(Resize{*corner}, pv);
        return;
    }
    auto [annotation, page] = annotationAt(pv);
    if (!annotation) {
        deselect();
        return;
    }
    if (annotation != selection())
        select(annotation);
    if (clickCount == 2 && annotation->type() == PdfAnnotation::FreeText) {
        beginEditExisting(annotation);
        return;
    }
    // Text markup is selected to be deleted, not moved.
    if (AnnotationFactory::isEditable(annotation))
        beginManipulation(Move{}, pv);
}

void DrawingOverlayView::beginManipulation(DragMode mode, QPointF pv)
{
    const auto selected = selection();
    if (!selected || !pdfView_)
        return;
    dragged_ = selected;
    dragPage_ = selected->page();
    dragMode_ = mode;
    dragStartPage_ = pdfView_->convertToPage(pv, dragPage_);
    originalBounds_ = selected->bounds();
    liveBounds_ = originalBounds_;
    didBeginDrag_ = false;
}

void DrawingOverlayView::mouseMoveEvent(QMouseEvent *event)
{
    if (!pdfView_ || event->buttons() == Qt::NoButton)
        return;
    if (!std::holds_alternative<Idle>(dragMode_)) {
        updateManipulation(event->position(), event->modifiers());
        return;
    }
    const QPointF pv = event->position();
    switch (toolSettings_->currentTool()) {
    case AnnotationTool::ink: {
        if (inkPV_.empty())
            return;
        const QPointF last = inkPV_.back();
        const QPointF next = onActivePage(pv);
        inkPV_.push_back(next);
        inkBounds_.setCoords(std::min(inkBounds_.left(), next.x()), std::min(inkBounds_.top(), next.y()),
                             std::max(inkBounds_.right(), next.x()), std::max(inkBounds_.bottom(), next.y()));
        // Only the new segment needs painting.
        const qreal pen = toolSettings_->lineWidth() * pdfView_->scaleFactor() + 2;
        const QRectF segment = QRectF(last, next).normalized().adjusted(-pen, -pen, pen, pen);
        lastPainted_ = lastPainted_.united(segment);
        update(segment.toAlignedRect().intersected(rect()));
        return;
    }
    case AnnotationTool::rectangle:
    case AnnotationTool::circle:
        if (!shapeStartPV_)
            return;
        shapeCurrentPV_ = onActivePage(pv);
        shapeSquared_ = event->modifiers().testFlag(Qt::ShiftModifier);
        break;
    default:
        return;
    }
    refresh();
}

void DrawingOverlayView::updateManipulation(QPointF pv, Qt::KeyboardModifiers modifiers)
{
    if (!dragged_ || !dragPage_ || !pdfView_)
        return;
    const QPointF p = pdfView_->convertToPage(pv, dragPage_);
    if (!didBeginDrag_) {
        if (QLineF(p, dragStartPage_).length() < overlayGeometry::dragThreshold)
            return;
        didBeginDrag_ = true;
        // The annotation stays on its page; the page is drawn without it and
        // the overlay draws its picture where it goes.
        dragPicture_ = pictureOf(dragged_);
        pdfView_->setHiddenAnnotation(dragged_);
    }
    const QRectF page = dragPage_->bounds();
    if (std::holds_alternative<Move>(dragMode_)) {
        liveBounds_ = overlayGeometry::keptInside(originalBounds_.translated(p - dragStartPage_), page);
    } else if (auto *resize = std::get_if<Resize>(&dragMode_)) {
        const bool proportional = isImageStamp(dragged_) || modifiers.testFlag(Qt::ShiftModifier);
        const QPointF inside(std::clamp(p.x(), page.left(), page.right()), std::clamp(p.y(), page.top(), page.bottom()));
        liveBounds_ = resizedBounds(resize->handle, inside, proportional);
    }
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
    const auto annotation = dragged_;
    const auto page = dragPage_;
    const auto picture = dragPicture_;
    const bool moved = didBeginDrag_ && liveBounds_ && *liveBounds_ != originalBounds_;
    const QRectF bounds = liveBounds_.value_or(originalBounds_), original = originalBounds_;
    // Idle before the change, so that the change does not end the drag a second time.
    cancelManipulation();
    if (!moved || !annotation || annotation->page() != page)
        return;
    if (picture)
        bridgeUntilShown(Picture{page, picture->image, placedPicture(*picture, original, bounds)});
    documentModel_->commitAnnotationDrag(annotation, page, bounds, original);
}

void DrawingOverlayView::cancelManipulation()
{
    if (std::holds_alternative<Idle>(dragMode_) && !dragged_)
        return;
    if (pdfView_ && didBeginDrag_)
        pdfView_->setHiddenAnnotation(nullptr);
    dragMode_ = Idle{};
    dragged_.reset();
    dragPage_.reset();
    dragPicture_.reset();
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
    shapeSquared_ = false;
    activePage_.reset();
    refresh();
}

QPointF DrawingOverlayView::onActivePage(QPointF pv) const
{
    if (!activePage_ || !pdfView_)
        return pv;
    const QRectF page = pdfView_->convertFromPage(activePage_->bounds(), activePage_);
    return QPointF(std::clamp(pv.x(), page.left(), page.right()), std::clamp(pv.y(), page.top(), page.bottom()));
}

QRectF DrawingOverlayView::shapeRect() const
{
    if (!shapeStartPV_ || !shapeCurrentPV_)
        return {};
    QPointF end = *shapeCurrentPV_;
    if (shapeSquared_) {
        // The shorter side decides, so the square stays where the pointer allows (on the page).
        const QPointF d = end - *shapeStartPV_;
        const qreal side = std::min(std::abs(d.x()), std::abs(d.y()));
        end = *shapeStartPV_ + QPointF(std::copysign(side, d.x()), std::copysign(side, d.y()));
    }
    return QRectF(*shapeStartPV_, end).normalized();
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
    if (auto corner = handle(pv)) {
        // The diagonal the corner moves along on screen (the page may be turned).
        const QPointF centre = pdfView_->convertFromPage(selection()->bounds(), selectionPage()).center();
        const QPointF c = pdfView_->convertFromPage(overlayGeometry::corner(selection()->bounds(), *corner), selectionPage());
        setCursor((c.x() < centre.x()) == (c.y() < centre.y()) ? Qt::SizeFDiagCursor : Qt::SizeBDiagCursor);
        return true;
    }
    const auto [annotation, page] = annotationAt(pv);
    if (AnnotationFactory::isEditable(annotation))
        setCursor(Qt::OpenHandCursor);
    else if (annotation)
        setCursor(Qt::ArrowCursor);
    else
        unsetCursor(); // the view's own: an arrow, or the I-beam over text and the hand over links
    return annotation || selection() || inlineEditor_;
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
        else if (didBeginDrag_)
            cancelManipulation();
        else if (selection())
            deselect();
        else
            QWidget::keyPressEvent(event);
    } else if (isDeleteKey(key)) {
        const auto selected = selection();
        if (!selected) {
            QWidget::keyPressEvent(event);
            return;
        }
        cancelManipulation();
        documentModel_->removeAnnotation(selected);
    } else if (isArrowKey(key)) {
        nudge(event);
    } else {
        QWidget::keyPressEvent(event);
    }
}

// ---- Making shapes, ink and stamps ------------------------------------------------

QSizeF DrawingOverlayView::signatureSize(const QImage &image, const std::shared_ptr<PdfPage> &page)
{
    const qreal widest = AnnotationFactory::signatureWidth;
    const QSizeF room = page ? page->bounds().size() / 2 : QSizeF(widest, widest);
    qreal width = std::min(widest, room.width());
    qreal height = image.width() > 0 ? std::clamp(width * image.height() / image.width(), 40.0, 200.0) : 66;
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

void DrawingOverlayView::finishShape(const QString &subtype, const std::shared_ptr<PdfPage> &page)
{
    const QRectF shape = shapeRect();
    // Within 2 view points both ways the press was a click, not a drag.
    if (shape.isNull() || (shape.width() <= 2 && shape.height() <= 2))
        return;
    // The corners were kept on the page while drawing.
    const QRectF bounds = pdfView_->convertToPage(shape, page);
    auto annotation = PdfAnnotation::create(bounds, subtype);
    annotation->setColor(toolSettings_->strokeColor());
    if (toolSettings_->hasFill())
        annotation->setInteriorColor(toolSettings_->fillColor());
    annotation->setBorderWidth(toolSettings_->lineWidth());
    documentModel_->addAnnotation(annotation, page, true);
    bridgeUntilShown(pictureOf(annotation));
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
    bridgeUntilShown(pictureOf(annotation));
}
