#include "ThumbnailCache.h"

#include "PdfChangeChannel.h"
#include "PdfDisplayList.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <cstdlib>

namespace {

// Recording a display list costs a few milliseconds: this much of each
// event-loop turn goes to it, so scrolling stays smooth.
constexpr int recordBudgetMs = 6;
// Pictures on their way at once, per worker thread.
constexpr int inFlightPerThread = 3;

} // namespace

ThumbnailCache::ThumbnailCache(QObject *parent) : QObject(parent)
{
    pool_.setMaxThreadCount(std::max(1, std::min(QThread::idealThreadCount(), 2)));
    // Worker threads keep their engine context instead of making a new one later.
    pool_.setExpiryTimeout(-1);
    timer_.setSingleShot(true);
    timer_.setInterval(0);
    connect(&timer_, &QTimer::timeout, this, &ThumbnailCache::work);
}

ThumbnailCache::~ThumbnailCache()
{
    pool_.clear();
    pool_.waitForDone();
}

void ThumbnailCache::setDocument(std::shared_ptr<PdfDocument> document)
{
    document_ = std::move(document);
    ++generation_;
    pool_.clear();
    images_.clear();
    versions_.clear();
    disconnect(changes_);
    if (document_)
        changes_ = connect(document_->changes(), &PdfChangeChannel::pageChanged, this,
                           [this](const std::shared_ptr<PdfPage> &page) {
                               const int row = page->document() == document_ ? page->index() : -1;
                               if (row >= 0)
                                   markStale(row);
                           });
    bytes_ = 0;
    queue_.clear();
    queued_.clear();
    inFlight_.clear();
}

void ThumbnailCache::markStale(int row)
{
    ++versions_[row];
    if (inSight(row))
        request(row);
}

void ThumbnailCache::setShownSize(QSize devicePixels, qreal devicePixelRatio)
{
    shownSize_ = devicePixels;
    devicePixelRatio_ = devicePixelRatio;
}

void ThumbnailCache::setVisibleRows(int first, int last)
{
    first_ = first;
    last_ = last;
    schedule();
}

QImage ThumbnailCache::thumbnail(int row)
{
    const auto it = images_.constFind(row);
    if (it == images_.constEnd() || it->version != versionOf(row))
        request(row);
    return it == images_.constEnd() ? QImage() : it->image;
}

void ThumbnailCache::setLimit(qint64 bytes)
{
    limit_ = bytes;
    if (bytes_ > limit_)
        evict();
}

bool ThumbnailCache::isBusy() const
{
    return !queue_.empty() || !inFlight_.isEmpty();
}

void ThumbnailCache::request(int row)
{
    if (!document_ || queued_.contains(row) || inFlight_.contains(row))
        return;
    queued_.insert(row);
    queue_.push_back(row);
    schedule();
}

void ThumbnailCache::schedule()
{
    if (document_ && !timer_.isActive())
        timer_.start();
}

void ThumbnailCache::work()
{
    if (!document_)
        return;
    const int maxInFlight = pool_.maxThreadCount() * inFlightPerThread;
    // The next row to draw: asked-for rows in sight, then missing neighbours
    // of the rows in sight, nearest first.
    auto next = [&]() -> int {
        while (!queue_.empty()) {
            const int row = queue_.front();
            queue_.erase(queue_.begin());
            queued_.remove(row);
            if (inSight(row) && !inFlight_.contains(row))
                return row;
        }
        // Neighbours only while there is room, so that they never push out each other.
        const int span = bytes_ < limit_ / 2 ? last_ - first_ + 1 : 0;
        const int count = document_->pageCount();
        for (int d = 1; span > 0 && d <= span; ++d)
            for (int row : {last_ + d, first_ - d})
                if (row >= 0 && row < count && !images_.contains(row) && !inFlight_.contains(row))
                    return row;
        return -1;
    };

    QElapsedTimer clock;
    clock.start();
    bool more = true;
    while (clock.elapsed() < recordBudgetMs && inFlight_.size() < maxInFlight) {
        const int row = next();
        if (row < 0) {
            more = false;
            break;
        }
        const auto page = document_->page(row);
        const auto list = page ? page->displayList(PdfRenderOptions{}) : nullptr;
        if (!list) {
            // Nothing to show for this row; it is not asked for again.
            store(row, QImage(), versionOf(row));
            emit thumbnailReady(row);
            continue;
        }
        const QRectF region = page->pageToDisplay().mapRect(page->bounds(PdfBox::Crop));
        if (region.isEmpty()) {
            store(row, QImage(), versionOf(row));
            emit thumbnailReady(row);
            continue;
        }
        const qreal scale = std::min(renderSize.width() / region.width(), renderSize.height() / region.height());
        const QSize shown = shownSize_;
        const qreal ratio = devicePixelRatio_;
        const int generation = generation_, version = versionOf(row);
        inFlight_.insert(row);
        pool_.start([this, list, region, scale, shown, ratio, row, generation, version] {
            QImage image = list->render(scale, region);
            // Kept at the size it is shown, when that is smaller.
            if (!image.isNull() && (image.width() > shown.width() || image.height() > shown.height()))
                image = image.scaled(shown, Qt::KeepAspectRatio, Qt::SmoothTransformation);
            image.setDevicePixelRatio(ratio);
            QMetaObject::invokeMethod(
                this, [this, row, generation, version, image] { finished(row, generation, version, image); },
                Qt::QueuedConnection);
        });
    }
    if (more && inFlight_.size() < maxInFlight)
        timer_.start();
}

void ThumbnailCache::finished(int row, int generation, int version, const QImage &image)
{
    if (generation != generation_)
        return;
    inFlight_.remove(row);
    store(row, image, version);
    emit thumbnailReady(row);
    schedule();
}

void ThumbnailCache::store(int row, const QImage &image, int version)
{
    auto it = images_.find(row);
    if (it != images_.end())
        bytes_ -= it->image.sizeInBytes();
    images_.insert(row, Entry{image, version});
    bytes_ += image.sizeInBytes();
    if (bytes_ > limit_)
        evict();
}

// Drops the pictures farthest from the rows in sight until a tenth of the
// limit is free again.
void ThumbnailCache::evict()
{
    const int middle = (first_ + last_) / 2;
    QList<int> rows = images_.keys();
    std::sort(rows.begin(), rows.end(), [&](int a, int b) { return std::abs(a - middle) > std::abs(b - middle); });
    for (int row : rows) {
        if (bytes_ <= limit_ - limit_ / 10 || inSight(row))
            break;
        bytes_ -= images_.value(row).image.sizeInBytes();
        images_.remove(row);
    }
}
