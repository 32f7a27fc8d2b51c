#include "PdfView.h"

#include "PageRenderCache.h"
#include "PdfAnnotation.h"
#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfViewScrollBar.h"

#include <QEvent>
#include <QScrollBar>
#include <QStyle>

#include <algorithm>
#include <cmath>

namespace {

// Scrolling by arrow keys and one wheel line, in logical pixels.
constexpr int lineStep = 20;
// Lines of context kept when paging down or up.
constexpr int pageOverlap = 40;

QTransform displayToViewTransform(qreal scale, QPointF topLeft)
{
    return QTransform(scale, 0, 0, scale, topLeft.x(), topLeft.y());
}

} // namespace

PdfView::PdfView(QWidget *parent) : QAbstractScrollArea(parent), cache_(new PageRenderCache(this))
{
    setVerticalScrollBar(new PdfViewScrollBar(Qt::Vertical, this));
    setHorizontalScrollBar(new PdfViewScrollBar(Qt::Horizontal, this));
    setFrameShape(QFrame::NoFrame);
    setFocusPolicy(Qt::StrongFocus);
    viewport()->setMouseTracking(true);
    viewport()->setAttribute(Qt::WA_OpaquePaintEvent);
    viewport()->setBackgroundRole(QPalette::Mid);
    pictureTimer_.setSingleShot(true);
    pictureTimer_.setInterval(0);
    connect(&pictureTimer_, &QTimer::timeout, this, &PdfView::requestPictures);
    connect(cache_, &PageRenderCache::pictureReady, this, &PdfView::pictureArrived);
    autoScrollTimer_.setInterval(30);
    connect(&autoScrollTimer_, &QTimer::timeout, this, &PdfView::autoScroll);
    // Any scroll the user makes by the bars lets the current page follow the view again.
    for (QScrollBar *bar : {horizontalScrollBar(), verticalScrollBar()})
        connect(bar, &QScrollBar::actionTriggered, this, [this] { pinned_ = -1; });
}

PdfView::~PdfView()
{
    if (overlay_)
        overlay_->removeEventFilter(this);
    // Deleted while the view is whole, as it may be one of its decorations.
    delete priorityOverlay_.data();
}

// ---- Document and pages --------------------------------------------------

void PdfView::setDocument(std::shared_ptr<PdfDocument> document)
{
    if (document == document_)
        return;
    cache_->clear();
    press_.reset();
    anchorPage_.reset();
    const bool hadSelection = selection_.has_value();
    selection_.reset();
    document_ = std::move(document);
    disconnect(changes_);
    disconnect(pageListChanges_);
    setHiddenAnnotation(nullptr);
    if (document_) {
        changes_ = connect(document_->changes(), &PdfChangeChannel::pageChanged, this, &PdfView::pageChanged);
        pageListChanges_ = connect(document_->changes(), &PdfChangeChannel::pageListChanged, this, &PdfView::reloadPages);
    }
    loadPages();
    // The first page of a new document is announced even if its index equals the old one.
    const int before = current_;
    current_ = -1;
    pinned_ = -1;
    relayout(Anchor{});
    horizontalScrollBar()->setValue(0);
    verticalScrollBar()->setValue(0);
    updateCurrentPage();
    if (current_ < 0 && before >= 0)
        emit currentPageChanged(-1);
    if (hadSelection)
        emit selectionChanged();
    emit documentChanged();
}

void PdfView::loadPages()
{
    pages_.clear();
    pageToDisplay_.clear();
    indexOf_.clear();
    links_.clear();
    const int count = document_ ? document_->pageCount() : 0;
    std::vector<QSizeF> sizes;
    pages_.reserve(size_t(count));
    sizes.reserve(size_t(count));
    for (int i = 0; i < count; ++i) {
        auto page = document_->page(i);
        if (!page)
            continue;
        const QTransform toDisplay = page->pageToDisplay();
        sizes.push_back(toDisplay.mapRect(page->bounds(PdfBox::Crop)).size());
        pageToDisplay_.push_back(toDisplay);
        indexOf_[page.get()] = int(pages_.size());
        pages_.push_back(std::move(page));
    }
    layout_.setPageSizes(std::move(sizes));
}

void PdfView::reloadPages()
{
    const auto oldPages = pages_;
    const auto oldTransforms = pageToDisplay_;
    Anchor anchor = anchorAt(QPointF(viewport()->width() / 2.0, 0));
    const auto anchorPage = anchor.page >= 0 ? pages_[size_t(anchor.page)] : nullptr;
    loadPages();
    bool anchorTurned = false;
    for (size_t i = 0; i < oldPages.size(); ++i) {
        const int now = indexOf(oldPages[i]);
        if (now < 0 || pageToDisplay_[size_t(now)] != oldTransforms[i]) {
            cache_->forget(oldPages[i].get());
            anchorTurned = anchorTurned || (now >= 0 && oldPages[i] == anchorPage);
        }
    }
    anchor.page = indexOf(anchorPage);
    // A page that turned is shown from its beginning: its top at the top of the view.
    if (anchorTurned)
        anchor = Anchor{anchor.page, QPointF(), QPointF(anchor.viewPoint.x(), 0)};
    pinned_ = -1;
    relayout(anchor);
    // Across the column every page is centred: the page read before is centred in the view again.
    if (layout_.count() > 0)
        scrollContentTo(QPointF(centredScroll(std::max(anchor.page, 0)), verticalScrollBar()->value()));
    if (selection_) {
        const auto touched = selection_->pages();
        if (std::any_of(touched.begin(), touched.end(), [this](const auto &page) { return indexOf(page) < 0; }))
            setCurrentSelection(std::nullopt);
    }
    updateCurrentPage();
}

void PdfView::invalidatePage(const std::shared_ptr<PdfPage> &page, const QRectF &area)
{
    const int index = indexOf(page);
    if (index < 0)
        return;
    links_.erase(page.get());
    cache_->invalidate(page.get(), area.isEmpty() ? QRectF() : pageToDisplay_[size_t(index)].mapRect(area));
    pictureTimer_.start();
    viewport()->update();
}

void PdfView::setHiddenAnnotation(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (annotation == hidden_)
        return;
    const auto before = hidden_;
    hidden_ = annotation;
    cache_->setHiddenAnnotation(annotation);
    for (const auto &changed : {before, annotation}) {
        auto page = changed ? changed->page() : nullptr;
        if (!page)
            continue;
        invalidatePage(page, changed->drawnArea());
    }
}

// A page shown here changed: a turned page takes another place in the column,
// anything else is drawn again where it is.
void PdfView::pageChanged(const std::shared_ptr<PdfPage> &page, PdfChangeChannel::Changes changes, QRectF area)
{
    const int index = indexOf(page);
    if (index < 0)
        return;
    if ((changes & PdfChangeChannel::Rotation) && page->pageToDisplay() != pageToDisplay_[size_t(index)])
        reloadPages();
    else
        invalidatePage(page, changes & PdfChangeChannel::Annotations && !(changes & PdfChangeChannel::Content) ? area : QRectF());
}

int PdfView::indexOf(const std::shared_ptr<PdfPage> &page) const
{
    auto it = page ? indexOf_.find(page.get()) : indexOf_.end();
    return it == indexOf_.end() ? -1 : it->second;
}

// ---- Layout and scrolling ------------------------------------------------

qreal PdfView::fittedScale() const
{
    const QSize room = maximumViewportSize();
    const auto bounded = [this](qreal s) { return std::clamp(s, minScale_, maxScale_); };
    qreal scale = bounded(layout_.fitWidthScale(room.width()));
    if (layout_.contentHeightAt(scale) > room.height() && verticalScrollBarPolicy() != Qt::ScrollBarAlwaysOff) {
        const bool transient = style()->styleHint(QStyle::SH_ScrollBar_Transient, nullptr, verticalScrollBar());
        const int bar = transient ? 0 : verticalScrollBar()->sizeHint().width();
        scale = bounded(layout_.fitWidthScale(room.width() - bar));
    }
    return scale;
}

// Lays the pages out at the fitted scale, or at `scale` (the current one when
// none), and scrolls so that the anchor stays where it was.
void PdfView::relayout(const Anchor &anchor, std::optional<qreal> scale)
{
    if (relayingOut_)
        return;
    relayingOut_ = true;
    const qreal before = layout_.scale();
    // Showing or hiding a scroll bar resizes the viewport; settle that here.
    for (int round = 0; round < 3; ++round) {
        const QSize viewportSize = viewport()->size();
        const qreal wanted = autoScales_ ? fittedScale() : std::clamp(scale.value_or(layout_.scale()), minScale_, maxScale_);
        if (wanted != layout_.scale())
            layout_.setScale(wanted);
        updateScrollBars();
        restore(anchor);
        if (viewport()->size() == viewportSize)
            break;
    }
    relayingOut_ = false;
    placeOverlays();
    updateCurrentPage();
    pictureTimer_.start();
    viewport()->update();
    if (layout_.scale() != before)
        emit scaleChanged(layout_.scale());
    emit geometryChanged();
}

void PdfView::updateScrollBars()
{
    const QSize content = layout_.contentSize();
    const QSize room = viewport()->size();
    QScrollBar *h = horizontalScrollBar();
    QScrollBar *v = verticalScrollBar();
    h->setRange(0, std::max(0, content.width() - room.width()));
    h->setPageStep(room.width());
    h->setSingleStep(lineStep);
    v->setRange(0, std::max(0, content.height() - room.height()));
    v->setPageStep(std::max(lineStep, room.height() - pageOverlap));
    v->setSingleStep(lineStep);
}

QPoint PdfView::scrollOffset() const
{
    return {horizontalScrollBar()->value(), verticalScrollBar()->value()};
}

// Where the content's origin is in view space: scrolled, and centred when narrower than the view.
QPointF PdfView::contentOrigin() const
{
    const int spare = std::max(0, viewport()->width() - layout_.contentSize().width());
    return QPointF(spare / 2 - scrollOffset().x(), -scrollOffset().y());
}

QRectF PdfView::viewRect(int index) const
{
    return QRectF(layout_.pageRect(index)).translated(contentOrigin());
}

QTransform PdfView::displayToView(int index) const
{
    return displayToViewTransform(layout_.scale(), viewRect(index).topLeft());
}

// The size of a page's picture at `scale` device pixels per point.
QSize PdfView::pagePixels(int index, qreal scale) const
{
    const QSizeF size = layout_.pageSize(index) * scale;
    return QSize(PdfViewLayout::pixels(size.width()), PdfViewLayout::pixels(size.height()));
}

PdfView::Anchor PdfView::anchorAt(QPointF viewPoint) const
{
    const int index = layout_.pageAt(viewPoint - contentOrigin(), true);
    if (index < 0)
        return Anchor{};
    return Anchor{index, displayToView(index).inverted().map(viewPoint), viewPoint};
}

void PdfView::restore(const Anchor &anchor)
{
    if (anchor.page < 0 || anchor.page >= layout_.count())
        return;
    const QPointF content = QPointF(layout_.pageRect(anchor.page).topLeft()) + anchor.displayPoint * layout_.scale();
    scrollContentTo(content - anchor.viewPoint);
}

// Scrolls so that the content point is at the top left of the view.
void PdfView::scrollContentTo(QPointF contentPoint)
{
    const int spare = std::max(0, viewport()->width() - layout_.contentSize().width());
    // Vertically first: the page gone to must be on screen when the current page is worked out.
    const auto value = [](qreal v) {
        return int(std::clamp<qreal>(std::round(v), -PdfViewLayout::maxExtent, PdfViewLayout::maxExtent));
    };
    verticalScrollBar()->setValue(value(contentPoint.y()));
    horizontalScrollBar()->setValue(value(contentPoint.x() + spare / 2));
}

void PdfView::scrollContentsBy(int, int dy)
{
    if (dy != 0)
        scrollDirection_ = dy < 0 ? 1 : -1;
    if (relayingOut_)
        return;
    updateCurrentPage();
    pictureTimer_.start();
    viewport()->update();
    emit geometryChanged();
}

bool PdfView::viewportEvent(QEvent *event)
{
    if (event->type() == QEvent::Resize) {
        placeOverlays();
        relayout(anchorAt(QPointF(viewport()->width() / 2.0, 0)));
    }
    return QAbstractScrollArea::viewportEvent(event);
}

// ---- Current page and navigation -------------------------------------------

std::shared_ptr<PdfPage> PdfView::currentPage() const
{
    return current_ >= 0 ? pages_[size_t(current_)] : nullptr;
}

void PdfView::updateCurrentPage()
{
    const qreal top = scrollOffset().y();
    const qreal bottom = top + std::max(1, viewport()->height());
    const auto [first, last] = layout_.pagesBetween(top, bottom);
    if (pinned_ >= first && pinned_ <= last) {
        setCurrent(pinned_);
        return;
    }
    pinned_ = -1;
    int best = first <= last ? first : (layout_.count() ? 0 : -1);
    qreal bestShown = -1;
    for (int i = first; i <= last; ++i) {
        const QRect r = layout_.pageRect(i);
        const qreal shown = std::min<qreal>(bottom, r.top() + r.height()) - std::max<qreal>(top, r.top());
        if (shown > bestShown) {
            best = i;
            bestShown = shown;
        }
    }
    setCurrent(best);
}

void PdfView::setCurrent(int index)
{
    if (index == current_)
        return;
    current_ = index;
    emit currentPageChanged(index);
}

void PdfView::goToPage(const std::shared_ptr<PdfPage> &page)
{
    const int index = indexOf(page);
    if (index < 0)
        return;
    pinned_ = index;
    const QRectF rect = layout_.pageRect(index);
    scrollContentTo(QPointF(centredScroll(index), rect.top()));
    updateCurrentPage();
}

void PdfView::goToPoint(const std::shared_ptr<PdfPage> &page, QPointF pagePoint)
{
    const int index = indexOf(page);
    if (index < 0)
        return;
    pinned_ = index;
    const QRectF rect = layout_.pageRect(index);
    const QPointF at = rect.topLeft() + pageToDisplay_[size_t(index)].map(pagePoint) * layout_.scale();
    // A page that fits the width is shown whole; a wider one from the point on.
    const qreal x = rect.width() <= viewport()->width() ? centredScroll(index) : at.x();
    scrollContentTo(QPointF(x, at.y()));
    updateCurrentPage();
}

void PdfView::ensureVisible(const std::shared_ptr<PdfPage> &page, const QRectF &pageRect, int margin)
{
    const int index = indexOf(page);
    if (index < 0)
        return;
    const QRectF target = convertFromPage(pageRect, page).adjusted(-margin, -margin, margin, margin);
    const QRectF view(viewport()->rect());
    // The shift that brings the target in along one axis: none when it is in
    // already, its start first when it is larger than the view, to the
    // middle when it was out of sight.
    const bool far = !target.intersects(view);
    auto shift = [far](qreal from, qreal to, qreal viewFrom, qreal viewTo) -> qreal {
        if (far && to - from <= viewTo - viewFrom)
            return (from + to - viewFrom - viewTo) / 2;
        if (to - from > viewTo - viewFrom || from < viewFrom)
            return from - viewFrom;
        return to > viewTo ? to - viewTo : 0;
    };
    const qreal dx = shift(target.left(), target.right(), view.left(), view.right());
    const qreal dy = shift(target.top(), target.bottom(), view.top(), view.bottom());
    if (dx == 0 && dy == 0)
        return;
    pinned_ = index;
    const auto value = [](qreal v) {
        return int(std::clamp<qreal>(std::round(v), -PdfViewLayout::maxExtent, PdfViewLayout::maxExtent));
    };
    verticalScrollBar()->setValue(value(verticalScrollBar()->value() + dy));
    horizontalScrollBar()->setValue(value(horizontalScrollBar()->value() + dx));
    updateCurrentPage();
}

std::vector<std::shared_ptr<PdfPage>> PdfView::visiblePages() const
{
    std::vector<std::shared_ptr<PdfPage>> shown;
    if (pages_.empty())
        return shown;
    const qreal top = scrollOffset().y();
    const auto [first, last] = layout_.pagesBetween(top, top + std::max(1, viewport()->height()));
    for (int i = std::max(first, 0); i <= last && i < int(pages_.size()); ++i)
        shown.push_back(pages_[size_t(i)]);
    return shown;
}

// The content x at the view's left edge that puts the page's centre in the
// middle of the view; a page wider than the view is shown from its left edge,
// where its lines begin.
qreal PdfView::centredScroll(int index) const
{
    const QRectF page = layout_.pageRect(index);
    return page.width() > viewport()->width() ? page.left() : page.center().x() - viewport()->width() / 2.0;
}

// ---- Zoom ----------------------------------------------------------------

void PdfView::setAutoScales(bool enabled)
{
    if (enabled == autoScales_)
        return;
    autoScales_ = enabled;
    if (enabled)
        relayout(anchorAt(QPointF(viewport()->width() / 2.0, 0)));
    emit autoScalesChanged(enabled);
}

void PdfView::setScaleFactor(qreal scale)
{
    zoomAround(scale, QPointF(viewport()->rect().center()));
}

void PdfView::fitPage()
{
    if (current_ < 0)
        return;
    const auto page = pages_[size_t(current_)];
    const QSizeF size = layout_.pageSize(current_); // points
    const QSize room = viewport()->size() - QSize(2 * PdfViewLayout::margin, 2 * PdfViewLayout::margin);
    if (size.isEmpty() || room.isEmpty())
        return;
    setScaleFactor(std::min(room.width() / size.width(), room.height() / size.height()));
    goToPage(page);
}

void PdfView::zoomAround(qreal scale, QPointF viewPoint)
{
    setAutoScales(false);
    const Anchor anchor = anchorAt(viewPoint);
    if (std::clamp(scale, minScale_, maxScale_) != layout_.scale())
        relayout(anchor, scale);
}

void PdfView::setMinScaleFactor(qreal scale)
{
    minScale_ = std::max(scale, 0.01);
    maxScale_ = std::max(maxScale_, minScale_);
    relayout(anchorAt(QPointF(viewport()->rect().center())));
}

void PdfView::setMaxScaleFactor(qreal scale)
{
    maxScale_ = std::max(scale, 0.01);
    minScale_ = std::min(minScale_, maxScale_);
    relayout(anchorAt(QPointF(viewport()->rect().center())));
}

bool PdfView::canZoomIn() const
{
    return layout_.scale() < maxScale_;
}

bool PdfView::canZoomOut() const
{
    return layout_.scale() > minScale_;
}

void PdfView::zoomIn()
{
    setScaleFactor(layout_.scale() * zoomStep);
}

void PdfView::zoomOut()
{
    setScaleFactor(layout_.scale() / zoomStep);
}

// ---- Geometry ------------------------------------------------------------

std::shared_ptr<PdfPage> PdfView::pageAt(QPointF viewPoint, bool nearest) const
{
    const int index = layout_.pageAt(viewPoint - contentOrigin(), nearest);
    return index >= 0 ? pages_[size_t(index)] : nullptr;
}

QPointF PdfView::convertToPage(QPointF viewPoint, const std::shared_ptr<PdfPage> &page) const
{
    const int index = indexOf(page);
    if (index < 0)
        return viewPoint;
    return (pageToDisplay_[size_t(index)] * displayToView(index)).inverted().map(viewPoint);
}

QPointF PdfView::convertFromPage(QPointF pagePoint, const std::shared_ptr<PdfPage> &page) const
{
    const int index = indexOf(page);
    if (index < 0)
        return pagePoint;
    return (pageToDisplay_[size_t(index)] * displayToView(index)).map(pagePoint);
}

QRectF PdfView::convertFromPage(const QRectF &pageRect, const std::shared_ptr<PdfPage> &page) const
{
    const int index = indexOf(page);
    if (index < 0)
        return pageRect;
    return (pageToDisplay_[size_t(index)] * displayToView(index)).mapRect(pageRect);
}

QRectF PdfView::convertToPage(const QRectF &viewRect, const std::shared_ptr<PdfPage> &page) const
{
    const int index = indexOf(page);
    if (index < 0)
        return viewRect;
    return (pageToDisplay_[size_t(index)] * displayToView(index)).inverted().mapRect(viewRect);
}

// ---- Selection -------------------------------------------------------------

namespace {

bool sameSelection(const std::optional<PdfSelection> &a, const std::optional<PdfSelection> &b)
{
    if (a.has_value() != b.has_value())
        return false;
    if (!a)
        return true;
    const auto &x = a->lines(), &y = b->lines();
    return std::equal(x.begin(), x.end(), y.begin(), y.end(),
                      [](const auto &l, const auto &m) { return l.page == m.page && l.text == m.text && l.bounds == m.bounds; });
}

} // namespace

void PdfView::setCurrentSelection(std::optional<PdfSelection> selection)
{
    if (selection && selection->isEmpty())
        selection.reset();
    if (sameSelection(selection, selection_))
        return;
    selection_ = std::move(selection);
    viewport()->update();
    emit selectionChanged();
}
