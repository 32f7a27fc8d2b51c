// The page view's pictures: which tiles it asks the cache for, and painting
// the pages, their stale pictures while new ones come, and the text selection.
#include "PdfView.h"

#include "PageRenderCache.h"
#include "PdfPageDecoration.h"
#include "PdfPage.h"

#include <QPaintEvent>
#include <QPainter>
#include <QScrollBar>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace {

// Side of a rendered tile, in device pixels: a letter page at 100 % is one tile.
constexpr int tileSize = 1024;

// The tiles of a page of `pixels` device pixels that meet the device-pixel area `area`.
void appendTiles(std::vector<PageRenderCache::Tile> &tiles, const std::shared_ptr<PdfPage> &page, qreal scale, QSize pixels,
                 QRectF area)
{
    const QRect wanted = area.toAlignedRect().intersected(QRect(QPoint(), pixels));
    if (wanted.isEmpty())
        return;
    for (int ty = wanted.top() / tileSize; ty <= wanted.bottom() / tileSize; ++ty)
        for (int tx = wanted.left() / tileSize; tx <= wanted.right() / tileSize; ++tx) {
            const QRect rect(tx * tileSize, ty * tileSize, std::min(tileSize, pixels.width() - tx * tileSize),
                             std::min(tileSize, pixels.height() - ty * tileSize));
            const bool known =
                std::any_of(tiles.begin(), tiles.end(), [&](const auto &t) { return t.page == page && t.rect == rect; });
            if (!known)
                tiles.push_back({page, scale, rect});
        }
}

} // namespace

void PdfView::requestPictures()
{
    pictureTimer_.stop();
    const qreal dpr = viewport()->devicePixelRatioF();
    requestedRatio_ = dpr;
    const qreal scale = layout_.scale() * dpr;
    const QRectF visible = viewport()->rect();
    // Look ahead two views in the direction of the last scroll, half a view the other way.
    const qreal forward = 2 * visible.height(), backward = visible.height() / 2;
    const bool down = scrollDirection_ >= 0;
    const QRectF ahead =
        visible.adjusted(-visible.width() / 2, down ? -backward : -forward, visible.width() / 2, down ? forward : backward);
    std::vector<PageRenderCache::Tile> tiles;
    auto addPages = [&](QRectF area, int from, int to, int step) {
        for (int i = from; step > 0 ? i <= to : i >= to; i += step) {
            const QRectF page = viewRect(i);
            const QRectF part = area.intersected(page).translated(-page.topLeft());
            appendTiles(tiles, pages_[size_t(i)], scale, pagePixels(i, scale), QRectF(part.topLeft() * dpr, part.size() * dpr));
        }
    };
    const QPointF origin = contentOrigin();
    const auto [first, last] = layout_.pagesBetween(visible.top() - origin.y(), visible.bottom() - origin.y());
    if (first <= last)
        addPages(visible, first, last, 1);
    const int urgent = int(tiles.size());
    const auto [aheadFirst, aheadLast] = layout_.pagesBetween(ahead.top() - origin.y(), ahead.bottom() - origin.y());
    if (aheadFirst <= aheadLast) {
        const auto below = [&] { addPages(ahead, std::max(first, aheadFirst), aheadLast, 1); };
        const auto above = [&] { addPages(ahead, std::min(first - 1, aheadLast), aheadFirst, -1); };
        down ? (below(), above()) : (above(), below());
    }
    cache_->request(std::move(tiles), urgent);
    updateCompleteness();
}

// Repaints the page if it is on screen (every page without one) and tells when
// the visible pages are all finished.
void PdfView::pictureArrived(const PdfPage *page)
{
    auto index = page ? indexOf_.find(page) : indexOf_.end();
    if (index == indexOf_.end())
        viewport()->update();
    else
        viewport()->update(viewRect(index->second).toAlignedRect().intersected(viewport()->rect()));
    updateCompleteness();
}

// Announces, a turn later (this may run while painting), that the visible pages are finished.
void PdfView::updateCompleteness()
{
    const bool complete = cache_->isComplete();
    const bool finished = complete && !complete_;
    complete_ = complete;
    if (finished)
        QTimer::singleShot(0, this, [this] {
            if (isRenderingComplete())
                emit renderingComplete();
        });
}

bool PdfView::isRenderingComplete() const
{
    return complete_ && !pictureTimer_.isActive();
}

qint64 PdfView::cacheLimit() const
{
    return cache_->limit();
}

void PdfView::setCacheLimit(qint64 bytes)
{
    cache_->setLimit(bytes);
    pictureTimer_.start();
}

void PdfView::paintEvent(QPaintEvent *event)
{
    // After a scroll (or a move to a screen of another pixel density), ask for
    // the new pictures first: those already made are painted at once.
    if (pictureTimer_.isActive() || viewport()->devicePixelRatioF() != requestedRatio_)
        requestPictures();
    QPainter painter(viewport());
    const QPointF origin = contentOrigin();
    const QRect exposed = event->rect();
    const auto [first, last] = layout_.pagesBetween(exposed.top() - origin.y(), exposed.bottom() + 1 - origin.y());
    QRegion background(exposed);
    for (int i = first; i <= last; ++i)
        background -= viewRect(i).toAlignedRect();
    for (const QRect &r : background)
        painter.fillRect(r, palette().color(QPalette::Mid));
    for (int i = first; i <= last; ++i) {
        paintPage(painter, i, exposed);
        paintDecorations(painter, i);
        paintSelection(painter, i);
    }
}

void PdfView::paintPage(QPainter &painter, int index, const QRectF &exposed)
{
    const QRectF page = viewRect(index);
    const QColor shadow = palette().color(QPalette::Dark);
    painter.fillRect(QRectF(page.right(), page.top() + 2, 1, page.height()), shadow);
    painter.fillRect(QRectF(page.left() + 2, page.bottom(), page.width() - 1, 1), shadow);
    const QRectF area = exposed.intersected(page);
    if (area.isEmpty())
        return;
    const qreal dpr = viewport()->devicePixelRatioF();
    const qreal scale = layout_.scale() * dpr;
    const auto &pdfPage = pages_[size_t(index)];
    std::vector<PageRenderCache::Tile> tiles;
    const QRectF part = area.translated(-page.topLeft());
    appendTiles(tiles, pdfPage, scale, pagePixels(index, scale), QRectF(part.topLeft() * dpr, part.size() * dpr));
    std::vector<QImage> images;
    bool missing = false;
    for (const auto &tile : tiles) {
        images.push_back(cache_->picture(tile));
        missing = missing || images.back().isNull();
    }
    painter.save();
    painter.setClipRect(area);
    if (missing) {
        // A white page, then older pictures stretched, until the current ones arrive.
        painter.fillRect(page, Qt::white);
        for (const auto &stale : cache_->stalePictures(pdfPage.get(), scale)) {
            const qreal factor = layout_.scale() / stale.scale;
            const QRectF target(page.topLeft() + QPointF(stale.rect.topLeft()) * factor, QSizeF(stale.rect.size()) * factor);
            if (target.intersects(area))
                painter.drawImage(target, stale.image);
        }
    }
    for (size_t i = 0; i < tiles.size(); ++i)
        if (!images[i].isNull())
            painter.drawImage(QRectF(page.topLeft() + QPointF(tiles[i].rect.topLeft()) / dpr, QSizeF(tiles[i].rect.size()) / dpr),
                              images[i]);
    painter.restore();
}

void PdfView::addDecoration(PdfPageDecoration *decoration)
{
    if (decoration && std::find(decorations_.begin(), decorations_.end(), decoration) == decorations_.end())
        decorations_.push_back(decoration);
    viewport()->update();
}

void PdfView::removeDecoration(PdfPageDecoration *decoration)
{
    std::erase(decorations_, decoration);
    viewport()->update();
}

void PdfView::updateDecorations()
{
    viewport()->update();
}

void PdfView::paintDecorations(QPainter &painter, int index)
{
    if (decorations_.empty())
        return;
    const QTransform pageToView = pageToDisplay_[size_t(index)] * displayToView(index);
    painter.save();
    painter.setClipRect(viewRect(index).intersected(QRectF(viewport()->rect())));
    for (PdfPageDecoration *decoration : decorations_)
        decoration->paintPage(painter, pages_[size_t(index)], pageToView);
    painter.restore();
}

void PdfView::paintSelection(QPainter &painter, int index)
{
    if (!selection_)
        return;
    QColor color = palette().color(QPalette::Highlight);
    color.setAlpha(90);
    const auto &page = pages_[size_t(index)];
    // One region, so that where line boxes overlap the tint is not doubled;
    // only what is on screen (a line of a huge page can lie beyond any int).
    QRegion region;
    for (const auto &line : selection_->lines())
        if (line.page == page)
            region += convertFromPage(line.bounds, page).intersected(QRectF(viewport()->rect())).toAlignedRect();
    for (const QRect &rect : region)
        painter.fillRect(rect, color);
}
