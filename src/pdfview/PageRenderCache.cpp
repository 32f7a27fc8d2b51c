#include "PageRenderCache.h"

#include "PdfDisplayList.h"
#include "PdfPage.h"

#include <QRunnable>
#include <QThread>

#ifdef Q_OS_LINUX
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cmath>
#include <functional>

namespace {

// Display lists kept for pages near the view, so a zoom needs no new recording.
constexpr size_t maxLists = 32;
// Recordings under way or queued at once; the most urgent pages go first.
constexpr int maxRecordings = 2;
// A recording interrupted because the document was needed is tried again after this.
constexpr int retryMs = 10;
// Spare image buffers kept for reuse (a fresh buffer costs page faults).
constexpr size_t maxBuffers = 6;

// Workers run at a lower priority than the user-interface thread, so that on a
// busy machine painting and input are not kept waiting behind rendering.
void yieldToInterface()
{
#ifdef Q_OS_LINUX
    thread_local const bool lowered = [] { return setpriority(PRIO_PROCESS, pid_t(gettid()), 5) == 0; }();
    Q_UNUSED(lowered);
#endif
}

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
char queues;
#endif

// Qt hands a job to a pool thread, and waitForDone() learns that the job has
// ended, through locks of its own that ThreadSanitizer cannot see (Qt is not
// built with it). These tell it where that happens, as one lock over Qt's
// queues would; they are nothing in other builds. (Results come back through
// the cache's own inbox.)
void handOver()
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(&queues);
#endif
}

void takeOver()
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(&queues);
#endif
}

int scaleKey(qreal scale)
{
    return int(std::lround(scale * 4096));
}

qint64 bytesOf(QSize size)
{
    return qint64(size.width()) * size.height() * 4;
}

} // namespace

PageRenderCache::PageRenderCache(QObject *parent) : QObject(parent)
{
    // The user-interface thread paints and the recorder records: leave them a core.
    pool_.setMaxThreadCount(std::max(1, QThread::idealThreadCount() - 1));
    recorder_.setMaxThreadCount(1);
    scheduleTimer_.setSingleShot(true);
    scheduleTimer_.setInterval(0);
    connect(&scheduleTimer_, &QTimer::timeout, this, &PageRenderCache::schedule);
    retryTimer_.setSingleShot(true);
    retryTimer_.setInterval(retryMs);
    connect(&retryTimer_, &QTimer::timeout, this, &PageRenderCache::schedule);
}

PageRenderCache::~PageRenderCache()
{
    // Workers post their results to this object: let them finish first.
    clear();
    pool_.waitForDone();
    recorder_.waitForDone();
    takeOver();
    std::lock_guard hold(inboxLock_);
    inbox_.clear();
}

void PageRenderCache::post(std::function<void()> result)
{
    {
        std::lock_guard hold(inboxLock_);
        inbox_.push_back(std::move(result));
    }
    QMetaObject::invokeMethod(this, "deliver", Qt::QueuedConnection);
}

void PageRenderCache::deliver()
{
    std::vector<std::function<void()>> results;
    {
        std::lock_guard hold(inboxLock_);
        results.swap(inbox_);
    }
    for (auto &result : results)
        result();
}

void PageRenderCache::setLimit(qint64 bytes)
{
    limit_ = std::max<qint64>(bytes, 0);
    evict();
}

PageRenderCache::Key PageRenderCache::keyOf(const Tile &tile) const
{
    return {tile.page.get(), generationOf(tile.page.get()), scaleKey(tile.scale), tile.rect.x(), tile.rect.y()};
}

quint64 PageRenderCache::generationOf(const PdfPage *page) const
{
    auto it = generations_.find(page);
    return it == generations_.end() ? 0 : it->second;
}

void PageRenderCache::request(std::vector<Tile> tiles, int urgent)
{
    urgent = std::clamp(urgent, 0, int(tiles.size()));
    // Look-ahead tiles only as far as the byte limit allows.
    qint64 bytes = 0;
    size_t keep = 0;
    for (; keep < tiles.size(); ++keep) {
        bytes += bytesOf(tiles[keep].rect.size());
        if (int(keep) >= urgent && bytes > limit_)
            break;
    }
    tiles.resize(keep);
    wanted_ = std::move(tiles);
    urgent_ = urgent;
    wantedKeys_.clear();
    for (const Tile &tile : wanted_)
        wantedKeys_.insert(keyOf(tile));
    cancelJobs(false);
    // Recording display lists takes a while: not now, the caller may be painting.
    scheduleTimer_.start();
}

QImage PageRenderCache::picture(const Tile &tile)
{
    auto it = entries_.find(keyOf(tile));
    if (it == entries_.end())
        return QImage();
    it->second.used = ++clock_;
    return it->second.image;
}

std::vector<PageRenderCache::Picture> PageRenderCache::stalePictures(const PdfPage *page, qreal scale) const
{
    const quint64 generation = generationOf(page);
    const int current = scaleKey(scale);
    std::vector<std::pair<qreal, Picture>> found;
    for (auto it = entries_.lower_bound(Key{page, 0, 0, 0, 0}); it != entries_.end() && it->first.page == page; ++it) {
        if (it->first.generation == generation && it->first.scale == current)
            continue;
        // Rank: the page as it is now before older versions, then by closeness of scale.
        const qreal rank = (it->first.generation == generation ? 0 : 1000) + std::abs(std::log(it->second.scale / scale));
        found.push_back({rank, Picture{it->second.scale, it->second.rect, it->second.image}});
    }
    std::stable_sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    std::vector<Picture> result;
    for (auto &f : found)
        result.push_back(std::move(f.second));
    return result;
}

bool PageRenderCache::isComplete() const
{
    for (int i = 0; i < urgent_; ++i) {
        const Key key = keyOf(wanted_[size_t(i)]);
        if (!entries_.contains(key)) {
            auto list = lists_.find(key.page);
            const bool failed = list != lists_.end() && list->second.failed && list->second.generation == key.generation;
            if (!failed)
                return false;
        }
    }
    return true;
}

void PageRenderCache::invalidate(const PdfPage *page, const QRectF &displayArea)
{
    const quint64 before = generationOf(page);
    const quint64 now = nextGeneration_++;
    generations_[page] = now;
    if (!displayArea.isEmpty()) {
        // Pictures of tiles away from the change are still right: they move to the new version.
        std::vector<Key> unchanged;
        for (auto it = entries_.lower_bound(Key{page, 0, 0, 0, 0}); it != entries_.end() && it->first.page == page; ++it) {
            const QRectF area(displayArea.topLeft() * it->second.scale, displayArea.size() * it->second.scale);
            if (it->first.generation == before && !area.intersects(QRectF(it->second.rect)))
                unchanged.push_back(it->first);
        }
        for (const Key &key : unchanged) {
            auto node = entries_.extract(key);
            node.key().generation = now;
            entries_.insert(std::move(node));
        }
    }
    dropList(page);
    wantedKeys_.clear();
    for (const Tile &tile : wanted_)
        wantedKeys_.insert(keyOf(tile));
    cancelJobs(false);
    scheduleTimer_.start();
}

void PageRenderCache::forget(const PdfPage *page)
{
    for (auto it = entries_.lower_bound(Key{page, 0, 0, 0, 0}); it != entries_.end() && it->first.page == page;) {
        bytes_ -= bytesOf(it->second.image.size());
        it = entries_.erase(it);
    }
    dropList(page);
    const auto onPage = [page](const Tile &tile) { return tile.page.get() == page; };
    urgent_ -= int(std::count_if(wanted_.begin(), wanted_.begin() + urgent_, onPage));
    std::erase_if(wanted_, onPage);
    std::erase_if(wantedKeys_, [page](const Key &key) { return key.page == page; });
    cancelJobs(false);
}

void PageRenderCache::clear()
{
    wanted_.clear();
    urgent_ = 0;
    wantedKeys_.clear();
    cancelJobs(true);
    entries_.clear();
    while (!lists_.empty())
        dropList(lists_.begin()->first);
    bytes_ = 0;
}

void PageRenderCache::dropList(const PdfPage *page)
{
    auto it = lists_.find(page);
    if (it == lists_.end())
        return;
    if (it->second.recording)
        it->second.recording->abort();
    lists_.erase(it);
}

void PageRenderCache::cancelJobs(bool all)
{
    for (auto it = jobs_.begin(); it != jobs_.end();) {
        if (all || !wantedKeys_.contains(it->first)) {
            it->second.cancelled->store(true);
            it = jobs_.erase(it);
        } else {
            ++it;
        }
    }
}

void PageRenderCache::schedule()
{
    const size_t maxJobs = size_t(pool_.maxThreadCount()) + 1;
    for (size_t i = 0; i < wanted_.size(); ++i) {
        if (jobs_.size() >= maxJobs)
            return;
        const Tile &tile = wanted_[i];
        const Key key = keyOf(tile);
        if (entries_.contains(key) || jobs_.contains(key))
            continue;
        if (auto list = displayList(tile.page))
            start(tile, key, std::move(list), int(i) < urgent_);
    }
}

std::shared_ptr<PdfDisplayList> PageRenderCache::displayList(const std::shared_ptr<PdfPage> &page)
{
    const quint64 generation = generationOf(page.get());
    auto it = lists_.find(page.get());
    if (it != lists_.end() && it->second.generation == generation) {
        it->second.used = ++clock_;
        return it->second.list;
    }
    const auto recording = [](const auto &entry) { return entry.second.recording != nullptr; };
    if (std::count_if(lists_.begin(), lists_.end(), recording) >= maxRecordings)
        return nullptr; // the next one starts when one of these ends
    dropList(page.get());
    PdfRenderOptions options;
    options.skip = hidden_;
    auto made = page->recording(options);
    lists_[page.get()] = List{page, nullptr, made, generation, ++clock_, !made};
    if (lists_.size() > maxLists) {
        auto oldest = std::min_element(lists_.begin(), lists_.end(),
                                       [](const auto &a, const auto &b) { return a.second.used < b.second.used; });
        dropList(oldest->first);
    }
    if (!made) {
        emit pictureReady(page.get()); // it no longer holds up completeness
        return nullptr;
    }
    QRunnable *job = QRunnable::create([this, key = page.get(), made] {
        takeOver();
        yieldToInterface();
        const int result = int(made->record());
        post([this, key, made, result] { recorded(key, made, result); });
        handOver(); // the job's last touch of the cache
    });
    handOver();
    recorder_.start(job);
    return nullptr;
}

void PageRenderCache::recorded(const PdfPage *page, const std::shared_ptr<PdfPageRecording> &recording, int result)
{
    auto it = lists_.find(page);
    if (it == lists_.end() || it->second.recording != recording)
        return; // the page changed or left meanwhile
    List &entry = it->second;
    entry.recording.reset();
    switch (PdfPageRecording::Result(result)) {
    case PdfPageRecording::Result::Recorded:
        entry.list = recording->list();
        break;
    case PdfPageRecording::Result::Failed:
        entry.failed = true;
        emit pictureReady(page);
        break;
    case PdfPageRecording::Result::Interrupted:
        lists_.erase(it);
        retryTimer_.start();
        return;
    }
    schedule();
}

namespace {

class RenderJob : public QRunnable {
public:
    using Done = std::function<void(QImage, bool)>;
    RenderJob(std::shared_ptr<PdfDisplayList> list, QImage image, qreal scale, QPointF origin,
              std::shared_ptr<std::atomic_bool> cancelled, Done done)
        : list_(std::move(list)), image_(std::move(image)), scale_(scale), origin_(origin), cancelled_(std::move(cancelled)),
          done_(std::move(done))
    {
    }

    void run() override
    {
        takeOver();
        yieldToInterface();
        const bool ok = !cancelled_->load() && list_->renderInto(image_, scale_, origin_);
        // Pages are opaque: as RGB32 the picture is copied, not blended, when painted.
        image_.reinterpretAsFormat(QImage::Format_RGB32);
        list_.reset();
        done_(std::move(image_), ok);
        handOver(); // the job's last touch of the cache
    }

private:
    std::shared_ptr<PdfDisplayList> list_;
    QImage image_;
    qreal scale_;
    QPointF origin_;
    std::shared_ptr<std::atomic_bool> cancelled_;
    Done done_;
};

} // namespace

void PageRenderCache::start(const Tile &tile, const Key &key, std::shared_ptr<PdfDisplayList> list, bool urgent)
{
    const quint64 id = nextJob_++;
    auto cancelled = std::make_shared<std::atomic_bool>(false);
    jobs_[key] = Job{id, cancelled};
    QImage buffer = takeBuffer(tile.rect.size());
    const QPointF origin(tile.rect.x() / tile.scale, tile.rect.y() / tile.scale);
    auto done = [this, key, id](QImage image, bool ok) {
        post([this, key, id, image = std::move(image), ok]() mutable { finished(key, id, std::move(image), ok); });
    };
    auto *job = new RenderJob(std::move(list), std::move(buffer), tile.scale, origin, std::move(cancelled), std::move(done));
    handOver();
    pool_.start(job, urgent ? 1 : 0);
}

void PageRenderCache::finished(Key key, quint64 jobId, QImage image, bool ok)
{
    auto job = jobs_.find(key);
    const bool current = job != jobs_.end() && job->second.id == jobId;
    if (current)
        jobs_.erase(job);
    if (!current) {
        recycle(std::move(image)); // cancelled or superseded
        return;
    }
    if (!ok) {
        // The page cannot be drawn: do not try again until it changes.
        recycle(std::move(image));
        auto list = lists_.find(key.page);
        if (list != lists_.end() && list->second.generation == key.generation) {
            list->second.list.reset();
            list->second.failed = true;
        }
        schedule();
        emit pictureReady(key.page);
        return;
    }
    auto wanted = std::find_if(wanted_.begin(), wanted_.end(), [&](const Tile &tile) { return keyOf(tile) == key; });
    if (wanted == wanted_.end()) {
        recycle(std::move(image));
        schedule();
        return;
    }
    store(key, *wanted, std::move(image));
    schedule();
    emit pictureReady(key.page);
}

void PageRenderCache::store(const Key &key, const Tile &tile, QImage image)
{
    bytes_ += bytesOf(image.size());
    entries_[key] = Entry{tile.page, tile.scale, tile.rect, std::move(image), ++clock_};
    evict();
}

void PageRenderCache::evict()
{
    while (bytes_ > limit_) {
        auto victim = entries_.end();
        for (auto it = entries_.begin(); it != entries_.end(); ++it)
            if (!wantedKeys_.contains(it->first) && (victim == entries_.end() || it->second.used < victim->second.used))
                victim = it;
        if (victim == entries_.end())
            return; // everything left is on screen
        bytes_ -= bytesOf(victim->second.image.size());
        recycle(std::move(victim->second.image));
        entries_.erase(victim);
    }
}

QImage PageRenderCache::takeBuffer(QSize size)
{
    auto it = std::find_if(buffers_.begin(), buffers_.end(), [size](const QImage &image) { return image.size() == size; });
    if (it == buffers_.end())
        return QImage(size, QImage::Format_ARGB32_Premultiplied);
    QImage image = std::move(*it);
    buffers_.erase(it);
    image.reinterpretAsFormat(QImage::Format_ARGB32_Premultiplied);
    return image;
}

void PageRenderCache::recycle(QImage image)
{
    if (image.isNull())
        return;
    if (buffers_.size() >= maxBuffers)
        buffers_.erase(buffers_.begin());
    buffers_.push_back(std::move(image));
}
