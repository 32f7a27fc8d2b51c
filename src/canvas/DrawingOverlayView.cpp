#include "DrawingOverlayView.h"

#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "FontService.h"
#include "ImageStampAnnotation.h"
#include "InlineTextView.h"
#include "NotePopup.h"
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
            commitNote();
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
    // A note's popup goes along with its icon; scrolled out of sight, the text is kept.
    if (notePopup_ && !noteIconRect().intersects(rect()))
        commitNote();
    placeNotePopup();
    bridge_.reset();
    if (Drag *drag = activeDrag(); drag && drag->picture)
        drag->picture = pictureOf(drag->annotation);
    lastPainted_ = QRectF();
    update();
}

void DrawingOverlayView::finishInteraction()
{
    commitInlineEdit();
    commitNote();
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
    if (inlineEditor_ || notePopup_)
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
        return inlineEditor_ || notePopup_ || !documentModel_->pendingSignatureImage().isNull() || selected;
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
    if (!selected || !pdfView_ || !AnnotationFactory::isResizable(selected))
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
    if (const Drag *drag = activeDrag(); drag && drag->annotation != selection())
        cancelManipulation();
    refresh();
}

// ---- Gestures -------------------------------------------------------------------

DrawingOverlayView::Drag *DrawingOverlayView::activeDrag()
{
    if (auto *moving = std::get_if<Moving>(&gesture_))
        return moving;
    return std::get_if<Resizing>(&gesture_);
}

const DrawingOverlayView::Drag *DrawingOverlayView::activeDrag() const
{
    return const_cast<DrawingOverlayView *>(this)->activeDrag();
}

std::optional<QRectF> DrawingOverlayView::liveBounds() const
{
    const Drag *drag = activeDrag();
    return drag ? std::optional(drag->liveBounds) : std::nullopt;
}

bool DrawingOverlayView::didBeginDrag() const
{
    const Drag *drag = activeDrag();
    return drag && drag->begun;
}

const std::vector<QPointF> &DrawingOverlayView::inkPV() const
{
    static const std::vector<QPointF> none;
    const auto *ink = std::get_if<DrawingInk>(&gesture_);
    return ink ? ink->points : none;
}

std::optional<QPointF> DrawingOverlayView::shapeStartPV() const
{
    const auto *shape = std::get_if<DrawingShape>(&gesture_);
    return shape ? std::optional(shape->start) : std::nullopt;
}

std::optional<QPointF> DrawingOverlayView::shapeCurrentPV() const
{
    const auto *shape = std::get_if<DrawingShape>(&gesture_);
    return shape ? std::optional(shape->current) : std::nullopt;
}

std::shared_ptr<PdfPage> DrawingOverlayView::activePage() const
{
    if (const auto *ink = std::get_if<DrawingInk>(&gesture_))
        return ink->page;
    if (const auto *shape = std::get_if<DrawingShape>(&gesture_))
        return shape->page;
    return nullptr;
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
    if (notePopup_) {
        commitNote();
        return;
    }
    // A press starts a gesture afresh; a drag still held (its release never came) ends unapplied.
    cancelManipulation();
    switch (toolSettings_->currentTool()) {
    case AnnotationTool::none:
        handleSelectMouseDown(pv, clickCount);
        break;
    case AnnotationTool::editText:
        handleEditTextClick(pv);
        break;
    case AnnotationTool::freeText:
        if (auto page = pdfView_->pageAt(pv, true))
            beginNewTextBox(page, pdfView_->convertToPage(pv, page));
        break;
    case AnnotationTool::ink: {
        DrawingInk ink;
        ink.page = pdfView_->pageAt(pv, true);
        const QPointF start = onPage(pv, ink.page);
        ink.points = {start};
        ink.bounds = QRectF(start, start);
        gesture_ = std::move(ink);
        break;
    }
    case AnnotationTool::note:
        if (auto page = pdfView_->pageAt(pv, true))
            beginNewNote(page, pdfView_->convertToPage(pv, page));
        break;
    case AnnotationTool::rectangle:
    case AnnotationTool::circle: {
        DrawingShape shape;
        shape.page = pdfView_->pageAt(pv, true);
        shape.start = shape.current = onPage(pv, shape.page);
        shape.squared = event->modifiers().testFlag(Qt::ShiftModifier);
        gesture_ = std::move(shape);
        break;
    }
    }
}

void DrawingOverlayView::handleSelectMouseDown(QPointF pv, int clickCount)
{
    if (!pdfView_)
        return;
    if (auto corner = handle(pv)) {
        beginDrag(Resizing{{}, *corner}, pv);
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
    if (clickCount == 2 && annotation->type() == PdfAnnotation::Text) {
        openNote(annotation);
        return;
    }
    // Text markup is selected to be deleted, not moved.
    if (AnnotationFactory::isEditable(annotation))
        beginDrag(Moving{}, pv);
}

void DrawingOverlayView::beginDrag(Gesture drag, QPointF pv)
{
    const auto selected = selection();
    if (!selected || !pdfView_)
        return;
    gesture_ = std::move(drag);
    Drag *started = activeDrag();
    started->annotation = selected;
    started->page = selected->page();
    started->startPage = pdfView_->convertToPage(pv, started->page);
    started->originalBounds = started->liveBounds = selected->bounds();
}

void DrawingOverlayView::mouseMoveEvent(QMouseEvent *event)
{
    if (!pdfView_ || event->buttons() == Qt::NoButton)
        return;
    const QPointF pv = event->position();
    if (Drag *drag = activeDrag()) {
        updateDrag(*drag, pv, event->modifiers());
        return;
    }
    const AnnotationTool tool = toolSettings_->currentTool();
    if (auto *ink = std::get_if<DrawingInk>(&gesture_); ink && tool == AnnotationTool::ink) {
        extendInk(*ink, pv);
    } else if (auto *shape = std::get_if<DrawingShape>(&gesture_);
               shape && (tool == AnnotationTool::rectangle || tool == AnnotationTool::circle)) {
        shape->current = onPage(pv, shape->page);
        shape->squared = event->modifiers().testFlag(Qt::ShiftModifier);
        refresh();
    }
}

void DrawingOverlayView::extendInk(DrawingInk &ink, QPointF pv)
{
    const QPointF last = ink.points.back();
    const QPointF next = onPage(pv, ink.page);
    ink.points.push_back(next);
    ink.bounds.setCoords(std::min(ink.bounds.left(), next.x()), std::min(ink.bounds.top(), next.y()),
                         std::max(ink.bounds.right(), next.x()), std::max(ink.bounds.bottom(), next.y()));
    // Only the new segment needs painting: its box, widened by the pen and a
    // point for antialiasing on each side.
    const qreal pen = toolSettings_->lineWidth() * pdfView_->scaleFactor() + 2;
    const QRectF segment = QRectF(last, next).normalized().adjusted(-pen, -pen, pen, pen);
    lastPainted_ = lastPainted_.united(segment);
    update(segment.toAlignedRect().intersected(rect()));
}

void DrawingOverlayView::updateDrag(Drag &drag, QPointF pv, Qt::KeyboardModifiers modifiers)
{
    const QPointF p = pdfView_->convertToPage(pv, drag.page);
    if (!drag.begun) {
        if (QLineF(p, drag.startPage).length() < overlayGeometry::dragThreshold)
            return;
        drag.begun = true;
        // The annotation stays on its page; the page is drawn without it and
        // the overlay draws its picture where it goes.
        drag.picture = pictureOf(drag.annotation);
        pdfView_->setHiddenAnnotation(drag.annotation);
    }
    const QRectF page = drag.page->bounds();
    if (const auto *resizing = std::get_if<Resizing>(&gesture_)) {
        const bool proportional = isImageStamp(drag.annotation) || modifiers.testFlag(Qt::ShiftModifier);
        const QPointF inside(std::clamp(p.x(), page.left(), page.right()), std::clamp(p.y(), page.top(), page.bottom()));
        drag.liveBounds = overlayGeometry::resizedBounds(resizing->handle, drag.originalBounds, inside, proportional);
    } else {
        drag.liveBounds = overlayGeometry::keptInside(drag.originalBounds.translated(p - drag.startPage), page);
    }
    refresh();
}

void DrawingOverlayView::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    if (activeDrag()) {
        finishDrag();
        return;
    }
    // What is drawn goes on its page with the tool still chosen; without a page it is dropped.
    const AnnotationTool tool = toolSettings_->currentTool();
    if (const auto *ink = std::get_if<DrawingInk>(&gesture_); pdfView_ && ink && ink->page && tool == AnnotationTool::ink)
        finishInk(*ink);
    if (const auto *shape = std::get_if<DrawingShape>(&gesture_); pdfView_ && shape && shape->page) {
        if (tool == AnnotationTool::rectangle)
            finishShape(*shape, PdfAnnotation::Square);
        else if (tool == AnnotationTool::circle)
            finishShape(*shape, PdfAnnotation::Circle);
    }
    clearDrawing();
}

void DrawingOverlayView::finishDrag()
{
    const Drag drag = *activeDrag();
    const bool moved = drag.begun && drag.liveBounds != drag.originalBounds;
    // Idle before the change, so that the change does not end the drag a second time.
    cancelManipulation();
    if (!moved || drag.annotation->page() != drag.page)
        return;
    if (drag.picture)
        bridgeUntilShown(
            Picture{drag.page, drag.picture->image, placedPicture(*drag.picture, drag.originalBounds, drag.liveBounds)});
    documentModel_->commitAnnotationDrag(drag.annotation, drag.page, drag.liveBounds, drag.originalBounds);
}

void DrawingOverlayView::cancelManipulation()
{
    const Drag *drag = activeDrag();
    if (!drag)
        return;
    if (pdfView_ && drag->begun)
        pdfView_->setHiddenAnnotation(nullptr);
    gesture_ = Idle{};
    refresh();
}

void DrawingOverlayView::clearDrawing()
{
    if (std::holds_alternative<DrawingInk>(gesture_) || std::holds_alternative<DrawingShape>(gesture_))
        gesture_ = Idle{};
    refresh();
}

QPointF DrawingOverlayView::onPage(QPointF pv, const std::shared_ptr<PdfPage> &page) const
{
    if (!page || !pdfView_)
        return pv;
    const QRectF area = pdfView_->convertFromPage(page->bounds(), page);
    return QPointF(std::clamp(pv.x(), area.left(), area.right()), std::clamp(pv.y(), area.top(), area.bottom()));
}

QRectF DrawingOverlayView::shapeRect(const DrawingShape &shape)
{
    QPointF end = shape.current;
    if (shape.squared) {
        // The shorter side decides, so the square stays where the pointer allows (on the page).
        const QPointF d = end - shape.start;
        const qreal side = std::min(std::abs(d.x()), std::abs(d.y()));
        end = shape.start + QPointF(std::copysign(side, d.x()), std::copysign(side, d.y()));
    }
    return QRectF(shape.start, end).normalized();
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
    case AnnotationTool::note:
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
    return annotation || selection() || inlineEditor_ || notePopup_;
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
        } else if (notePopup_) {
            closeNote();
        } else if (!documentModel_->pendingSignatureImage().isNull())
            documentModel_->setPendingSignatureImage(QImage());
        else if (didBeginDrag())
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
