// PdfView: pointer and keyboard input, text selection, links and the overlay.
#include "PdfView.h"

#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfViewOverlay.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QScrollBar>
#include <QStyleHints>
#include <QUrl>
#include <QWheelEvent>

#include <cmath>

namespace {

// Link targets handed to the desktop; anything else (files, scripts) is ignored.
bool isOpenableUrl(const QUrl &url)
{
    static const QStringList schemes{QStringLiteral("http"), QStringLiteral("https"), QStringLiteral("mailto"),
                                     QStringLiteral("ftp")};
    return url.isValid() && schemes.contains(url.scheme().toLower());
}

} // namespace

// ---- Overlay -----------------------------------------------------------------

// Puts `overlay` over the pages in `slot`, taking the place of the one there.
bool PdfView::attachOverlay(QPointer<QWidget> &slot, QWidget *overlay)
{
    if (slot == overlay)
        return false;
    if (slot) {
        slot->removeEventFilter(this);
        slot->hide();
        slot->setParent(nullptr);
    }
    slot = overlay;
    mouseOwner_ = MouseOwner::None;
    if (!overlay)
        return false;
    overlay->setParent(viewport());
    overlay->setGeometry(viewport()->rect());
    overlay->installEventFilter(this);
    overlay->show();
    return true;
}

void PdfView::setOverlay(QWidget *overlay)
{
    if (attachOverlay(overlay_, overlay))
        overlay->raise();
}

void PdfView::setPriorityOverlay(QWidget *overlay)
{
    if (!attachOverlay(priorityOverlay_, overlay))
        return;
    if (overlay_)
        overlay->stackUnder(overlay_);
    else
        overlay->raise();
}

void PdfView::placeOverlays()
{
    for (QWidget *layer : {overlay_.data(), priorityOverlay_.data()})
        if (layer)
            layer->setGeometry(viewport()->rect());
}

bool PdfView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched && (watched == overlay_ || watched == priorityOverlay_))
        return routeOverlayEvent(static_cast<QWidget *>(watched), event);
    return QAbstractScrollArea::eventFilter(watched, event);
}

// The first layer that wants a press or a pointer move: the priority
// overlay, the overlay, else the view. A layer that is not a PdfViewOverlay
// wants everything.
PdfView::MouseOwner PdfView::takerOf(QEvent *event) const
{
    auto wants = [event](QWidget *layer) {
        auto *client = dynamic_cast<PdfViewOverlay *>(layer);
        return !client || client->wantsEvent(event);
    };
    if (priorityOverlay_ && priorityOverlay_->isVisible() && wants(priorityOverlay_))
        return MouseOwner::Priority;
    if (overlay_ && wants(overlay_))
        return MouseOwner::Overlay;
    return MouseOwner::View;
}

// Input that reaches an overlay goes to the layer that wants it (both lie
// over the whole viewport, so positions hold for either), else to the view;
// true means it was handled here.
bool PdfView::routeOverlayEvent(QWidget *watched, QEvent *event)
{
    if (forwarding_)
        return false;
    // To a layer: the one it reached just takes it; the other is sent it.
    auto forward = [&](MouseOwner owner) {
        QWidget *layer = owner == MouseOwner::Priority ? priorityOverlay_.data() : overlay_.data();
        if (!layer || layer == watched)
            return false;
        forwarding_ = true;
        QCoreApplication::sendEvent(layer, event);
        forwarding_ = false;
        return true;
    };
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick: {
        if (mouseOwner_ == MouseOwner::None)
            mouseOwner_ = takerOf(event);
        if (mouseOwner_ != MouseOwner::View)
            return forward(mouseOwner_);
        auto *mouse = static_cast<QMouseEvent *>(event);
        if (event->type() == QEvent::MouseButtonPress)
            mousePressEvent(mouse);
        else
            mouseDoubleClickEvent(mouse);
        return true;
    }
    case QEvent::MouseMove: {
        const MouseOwner owner = mouseOwner_ == MouseOwner::None ? takerOf(event) : mouseOwner_;
        if (owner == MouseOwner::View) {
            mouseMoveEvent(static_cast<QMouseEvent *>(event));
            return true;
        }
        const bool forwarded = forward(owner);
        // The pointer shows the shape that the layer that took the move chose.
        if (forwarded && mouseOwner_ == MouseOwner::None) {
            QWidget *layer = owner == MouseOwner::Priority ? priorityOverlay_.data() : overlay_.data();
            if (layer->testAttribute(Qt::WA_SetCursor))
                watched->setCursor(layer->cursor());
            else
                watched->unsetCursor();
        }
        return forwarded;
    }
    case QEvent::MouseButtonRelease: {
        auto *mouse = static_cast<QMouseEvent *>(event);
        const MouseOwner owner = mouseOwner_;
        if (mouseOwner_ != MouseOwner::None && mouse->buttons() == Qt::NoButton)
            mouseOwner_ = MouseOwner::None;
        if (owner == MouseOwner::View) {
            mouseReleaseEvent(mouse);
            return true;
        }
        return owner != MouseOwner::None && forward(owner);
    }
    case QEvent::Wheel: {
        const MouseOwner owner = takerOf(event);
        if (owner != MouseOwner::View)
            return forward(owner);
        wheelEvent(static_cast<QWheelEvent *>(event));
        return true;
    }
    case QEvent::ToolTip:
        // A field's description shows over whichever layer lies on top.
        return takerOf(event) == MouseOwner::Priority && forward(MouseOwner::Priority);
    case QEvent::KeyPress: {
        auto *client = dynamic_cast<PdfViewOverlay *>(watched);
        if (!client || client->wantsEvent(event))
            return false;
        // A key the focused layer does not take may be the other one's (Tab into a form's fields).
        if (forwardKey(watched == overlay_ ? priorityOverlay_.data() : overlay_.data(), static_cast<QKeyEvent *>(event)))
            return true;
        keyPressEvent(static_cast<QKeyEvent *>(event));
        return true;
    }
    default:
        return false;
    }
}

// Hands a key to a layer that wants it; false when it does not.
bool PdfView::forwardKey(QWidget *layer, QKeyEvent *event)
{
    auto *client = dynamic_cast<PdfViewOverlay *>(layer);
    if (!layer || !layer->isVisible() || !client || !client->wantsEvent(event))
        return false;
    forwarding_ = true;
    QCoreApplication::sendEvent(layer, event);
    forwarding_ = false;
    return true;
}

// Tab on the view itself (not in an editor laid over it) goes to a layer
// that takes it before it moves the focus on through the window.
bool PdfView::focusNextPrevChild(bool next)
{
    const QWidget *focus = QApplication::focusWidget();
    if (focus == this || focus == viewport() || focus == overlay_ || focus == priorityOverlay_) {
        QKeyEvent tab(QEvent::KeyPress, next ? Qt::Key_Tab : Qt::Key_Backtab, next ? Qt::NoModifier : Qt::ShiftModifier);
        if (forwardKey(priorityOverlay_, &tab) || forwardKey(overlay_, &tab))
            return true;
    }
    return QAbstractScrollArea::focusNextPrevChild(next);
}

// ---- Pointer -------------------------------------------------------------------

void PdfView::mousePressEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    setFocus(Qt::MouseFocusReason);
    const QPointF pos = event->position();
    // A third press soon after a double click selects the line.
    const bool tripleClick = lastDoubleClick_.isValid() &&
                             lastDoubleClick_.elapsed() < QGuiApplication::styleHints()->mouseDoubleClickInterval() &&
                             (pos - lastDoubleClickPos_).manhattanLength() < QApplication::startDragDistance();
    lastDoubleClick_.invalidate();
    press_.reset();
    if (tripleClick) {
        selectUnit(pos, true);
        return;
    }
    auto page = pageAt(pos, true);
    if (!page)
        return;
    press_ = Press{page, convertToPage(pos, page), pos, linkAt(pos), false};
    if (event->modifiers().testFlag(Qt::ShiftModifier) && selection_ && anchorPage_) {
        press_->page = anchorPage_;
        press_->pagePoint = anchorPoint_;
        press_->link.reset();
        press_->dragging = true;
        selectTo(pos);
        return;
    }
    anchorPage_ = press_->page;
    anchorPoint_ = press_->pagePoint;
}

void PdfView::mouseDoubleClickEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    press_.reset();
    selectUnit(event->position(), false);
    lastDoubleClick_.start();
    lastDoubleClickPos_ = event->position();
}

void PdfView::mouseMoveEvent(QMouseEvent *event)
{
    const QPointF pos = event->position();
    if (!press_ || !event->buttons().testFlag(Qt::LeftButton)) {
        updateCursor(pos);
        return;
    }
    if (!press_->dragging && (pos - press_->viewPoint).manhattanLength() >= QApplication::startDragDistance()) {
        press_->dragging = true;
        press_->link.reset();
    }
    if (!press_->dragging)
        return;
    lastMousePos_ = pos;
    selectTo(pos);
    const bool outside = pos.y() < 0 || pos.y() > viewport()->height();
    if (outside && !autoScrollTimer_.isActive())
        autoScrollTimer_.start();
    else if (!outside)
        autoScrollTimer_.stop();
}

void PdfView::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    if (!press_)
        return;
    autoScrollTimer_.stop();
    const Press press = std::move(*press_);
    press_.reset();
    if (press.dragging) {
        QClipboard *clipboard = QGuiApplication::clipboard();
        if (selection_ && clipboard->supportsSelection())
            clipboard->setText(selection_->string(), QClipboard::Selection);
    } else if (press.link) {
        activate(*press.link);
    } else {
        setCurrentSelection(std::nullopt);
    }
}

void PdfView::selectTo(QPointF viewPoint)
{
    auto page = pageAt(viewPoint, true);
    if (!press_ || !page)
        return;
    setCurrentSelection(PdfSelection::between(press_->page, press_->pagePoint, page, convertToPage(viewPoint, page)));
}

void PdfView::selectUnit(QPointF viewPoint, bool line)
{
    auto page = pageAt(viewPoint, true);
    if (!page)
        return;
    const QPointF point = convertToPage(viewPoint, page);
    setCurrentSelection(line ? page->selectionForLine(point) : page->selectionForWord(point));
    anchorPage_ = page;
    anchorPoint_ = point;
}

// While a selection is dragged beyond the top or bottom edge, the view scrolls towards the pointer.
void PdfView::autoScroll()
{
    if (!press_ || !press_->dragging) {
        autoScrollTimer_.stop();
        return;
    }
    const qreal y = lastMousePos_.y();
    const qreal beyond = y < 0 ? y : std::max(0.0, y - viewport()->height());
    verticalScrollBar()->setValue(verticalScrollBar()->value() + int(std::lround(beyond / 2 + (beyond > 0 ? 1 : -1))));
    selectTo(lastMousePos_);
}

void PdfView::copy()
{
    if (selection_ && !selection_->string().isEmpty())
        QGuiApplication::clipboard()->setText(selection_->string());
}

// ---- Links and cursor ----------------------------------------------------------

std::optional<PdfLink> PdfView::linkAt(QPointF viewPoint)
{
    auto page = pageAt(viewPoint, false);
    if (!page)
        return std::nullopt;
    auto it = links_.find(page.get());
    if (it == links_.end()) {
        // Links are read again when the pointer comes back to a page long left.
        if (links_.size() >= 64)
            links_.clear();
        it = links_.emplace(page.get(), page->links()).first;
    }
    const QPointF point = convertToPage(viewPoint, page);
    for (const PdfLink &link : it->second)
        if (link.bounds.contains(point))
            return link;
    return std::nullopt;
}

void PdfView::activate(const PdfLink &link)
{
    if (link.page >= 0) {
        auto target = document_ ? document_->page(link.page) : nullptr;
        if (link.point)
            goToPoint(target, *link.point);
        else
            goToPage(target);
        return;
    }
    const QUrl url(link.url);
    if (isOpenableUrl(url))
        QDesktopServices::openUrl(url);
}

void PdfView::updateCursor(QPointF viewPoint)
{
    Qt::CursorShape shape = Qt::ArrowCursor;
    if (linkAt(viewPoint)) {
        shape = Qt::PointingHandCursor;
    } else if (auto page = pageAt(viewPoint, false)) {
        if (page->selectionForLine(convertToPage(viewPoint, page)))
            shape = Qt::IBeamCursor;
    }
    if (viewport()->cursor().shape() != shape)
        viewport()->setCursor(shape);
}

// ---- Wheel and keys ------------------------------------------------------------

void PdfView::wheelEvent(QWheelEvent *event)
{
    if (event->modifiers().testFlag(Qt::ControlModifier)) {
        const int steps = event->angleDelta().y();
        if (steps != 0)
            zoomAround(layout_.scale() * std::pow(zoomStep, steps / 120.0), event->position());
        event->accept();
        return;
    }
    pinned_ = -1;
    QAbstractScrollArea::wheelEvent(event);
}

void PdfView::keyPressEvent(QKeyEvent *event)
{
    if (event->matches(QKeySequence::Copy)) {
        copy();
        return;
    }
    if (event->matches(QKeySequence::ZoomIn)) {
        zoomIn();
        return;
    }
    if (event->matches(QKeySequence::ZoomOut)) {
        zoomOut();
        return;
    }
    QScrollBar *v = verticalScrollBar();
    QScrollBar *h = horizontalScrollBar();
    const bool shift = event->modifiers().testFlag(Qt::ShiftModifier);
    switch (event->key()) {
    case Qt::Key_Up:
        v->triggerAction(QAbstractSlider::SliderSingleStepSub);
        break;
    case Qt::Key_Down:
        v->triggerAction(QAbstractSlider::SliderSingleStepAdd);
        break;
    case Qt::Key_Left:
        h->triggerAction(QAbstractSlider::SliderSingleStepSub);
        break;
    case Qt::Key_Right:
        h->triggerAction(QAbstractSlider::SliderSingleStepAdd);
        break;
    case Qt::Key_PageUp:
        v->triggerAction(QAbstractSlider::SliderPageStepSub);
        break;
    case Qt::Key_PageDown:
        v->triggerAction(QAbstractSlider::SliderPageStepAdd);
        break;
    case Qt::Key_Space:
        v->triggerAction(shift ? QAbstractSlider::SliderPageStepSub : QAbstractSlider::SliderPageStepAdd);
        break;
    case Qt::Key_Home:
        v->triggerAction(QAbstractSlider::SliderToMinimum);
        break;
    case Qt::Key_End:
        v->triggerAction(QAbstractSlider::SliderToMaximum);
        break;
    default:
        QAbstractScrollArea::keyPressEvent(event);
        return;
    }
    event->accept();
}
