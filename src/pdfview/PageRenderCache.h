// Pictures of pages for the view. A page is drawn in tiles at a resolution;
// tiles are played back from display lists on worker threads and kept in a
// cache bounded in bytes (least recently used first out). Display lists are
// recorded on a worker thread too, so that no page, whatever it holds, keeps
// the user-interface thread waiting: the engine interrupts a recording when
// that thread needs the document, and it is tried again a moment later.
#pragma once

#include <QImage>
#include <QObject>
#include <QRect>
#include <QThreadPool>
#include <QTimer>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

class PdfAnnotation;
class PdfDisplayList;
class PdfPage;
class PdfPageRecording;

class PageRenderCache : public QObject {
    Q_OBJECT
public:
    // One picture: the pixels `rect` of a page drawn at `scale` device pixels per point.
    struct Tile {
        std::shared_ptr<PdfPage> page;
        qreal scale = 1;
        QRect rect;
    };
    // A kept picture that is not the wanted one (another scale, or the page
    // changed since): drawn scaled while the wanted one is on its way.
    struct Picture {
        qreal scale = 1;
        QRect rect;
        QImage image;
    };

    explicit PageRenderCache(QObject *parent = nullptr);
    ~PageRenderCache() override;

    qint64 limit() const { return limit_; }
    void setLimit(qint64 bytes);
    qint64 bytesUsed() const { return bytes_; }
    int threadCount() const { return pool_.maxThreadCount(); }

    // Replaces what is wanted, most urgent first. The first `urgent` tiles are
    // on screen: they are rendered first and never evicted for the others.
    void request(std::vector<Tile> tiles, int urgent);
    // The finished picture of a tile as the page is now, or a null image.
    QImage picture(const Tile &tile);
    // The other pictures kept for a page, the one closest to `scale` last.
    std::vector<Picture> stalePictures(const PdfPage *page, qreal scale) const;
    // True when every urgent tile of the last request has its picture.
    bool isComplete() const;

    // The page's content changed: its pictures become stale and it is drawn
    // again. With `displayArea` (display-space points) only the tiles that
    // meet it do; the others stay as they are.
    void invalidate(const PdfPage *page, const QRectF &displayArea = QRectF());
    // An annotation drawn without: its page's pictures leave it out from the
    // next recording on (the caller invalidates the area it covers).
    void setHiddenAnnotation(std::shared_ptr<PdfAnnotation> annotation) { hidden_ = std::move(annotation); }
    // The page left the view: everything kept for it goes.
    void forget(const PdfPage *page);
    void clear();

signals:
    // A picture of the page arrived, or the page turned out not to be drawable.
    void pictureReady(const PdfPage *page);

private:
    // Results of workers come back through an inbox of the cache's own:
    // `post` (any thread) queues one and has `deliver` (this thread) run them.
    void post(std::function<void()> result);
    Q_INVOKABLE void deliver();

    struct Key {
        const PdfPage *page;
        quint64 generation;
        int scale;
        int x;
        int y;
        auto operator<=>(const Key &) const = default;
    };
    struct Entry {
        std::shared_ptr<PdfPage> page; // keeps the address in the key unique
        qreal scale;
        QRect rect;
        QImage image;
        quint64 used;
    };
    struct Job {
        quint64 id;
        std::shared_ptr<std::atomic_bool> cancelled;
    };
    struct List {
        std::shared_ptr<PdfPage> page;
        std::shared_ptr<PdfDisplayList> list;
        std::shared_ptr<PdfPageRecording> recording; // while it is recorded
        quint64 generation;
        quint64 used;
        bool failed;
    };

    Key keyOf(const Tile &tile) const;
    quint64 generationOf(const PdfPage *page) const;
    void schedule();
    // The page's list as it is now; null while it is recorded or when it cannot be.
    std::shared_ptr<PdfDisplayList> displayList(const std::shared_ptr<PdfPage> &page);
    void recorded(const PdfPage *page, const std::shared_ptr<PdfPageRecording> &recording, int result);
    void dropList(const PdfPage *page);
    void start(const Tile &tile, const Key &key, std::shared_ptr<PdfDisplayList> list, bool urgent);
    void finished(Key key, quint64 jobId, QImage image, bool ok);
    void store(const Key &key, const Tile &tile, QImage image);
    void evict();
    QImage takeBuffer(QSize size);
    void recycle(QImage image);
    void cancelJobs(bool all);

    QThreadPool pool_;
    // One thread records: recordings take the document in turn anyway.
    QThreadPool recorder_;
    QTimer scheduleTimer_;
    QTimer retryTimer_;
    qint64 limit_ = 64ll << 20;
    qint64 bytes_ = 0;
    quint64 clock_ = 0;
    quint64 nextJob_ = 1;
    quint64 nextGeneration_ = 1;
    std::vector<Tile> wanted_;
    int urgent_ = 0;
    std::set<Key> wantedKeys_;
    std::map<Key, Entry> entries_;
    std::map<Key, Job> jobs_;
    std::unordered_map<const PdfPage *, quint64> generations_;
    std::unordered_map<const PdfPage *, List> lists_;
    std::vector<QImage> buffers_;
    std::mutex inboxLock_;
    std::vector<std::function<void()>> inbox_;
    std::shared_ptr<PdfAnnotation> hidden_;
};
