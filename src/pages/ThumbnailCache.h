// Page thumbnails for the sidebar, made lazily for the rows in sight: a page's
// display list is recorded on the user-interface thread (a few per event-loop
// turn) and played back on worker threads. Pictures are kept until the page
// structure changes; a page whose content changes (the engine announces it)
// keeps its picture on show while it is drawn again.
#pragma once

#include <QHash>
#include <QImage>
#include <QObject>
#include <QSet>
#include <QSize>
#include <QThreadPool>
#include <QTimer>

#include <memory>
#include <vector>

class PdfDocument;

class ThumbnailCache : public QObject {
    Q_OBJECT
public:
    // Pages are rendered to fit this size (points) from their crop box.
    static constexpr QSize renderSize{90, 120};

    explicit ThumbnailCache(QObject *parent = nullptr);
    ~ThumbnailCache() override;

    // The pages changed (another document, or pages added, removed, moved or
    // rotated): every picture is dropped.
    void setDocument(std::shared_ptr<PdfDocument> document);
    // The page at `row` looks different now (its annotations changed): its
    // picture is drawn again and shown as it was meanwhile.
    void markStale(int row);
    // Pictures are kept at most this size in device pixels (the shown size).
    void setShownSize(QSize devicePixels, qreal devicePixelRatio);
    // The rows on screen: they are drawn first; their neighbours follow.
    void setVisibleRows(int first, int last);

    // The picture of a page as far as it is ready (null while it is not),
    // asking for it when it is missing or stale.
    QImage thumbnail(int row);
    // True when a row has its picture, current or stale.
    bool has(int row) const { return images_.contains(row); }
    // True while pictures are wanted that are not ready.
    bool isBusy() const;
    qint64 bytesUsed() const { return bytes_; }
    qint64 limit() const { return limit_; }
    void setLimit(qint64 bytes);

signals:
    void thumbnailReady(int row);

private:
    struct Entry {
        QImage image;
        int version = 0;
    };
    void request(int row);
    void schedule();
    void work();
    void finished(int row, int generation, int version, const QImage &image);
    void store(int row, const QImage &image, int version);
    void evict();
    bool inSight(int row) const { return row >= first_ && row <= last_; }
    int versionOf(int row) const { return versions_.value(row, 0); }

    std::shared_ptr<PdfDocument> document_;
    QHash<int, Entry> images_;
    std::vector<int> queue_;
    QSet<int> queued_;
    QSet<int> inFlight_;
    int generation_ = 0;
    // How often each row's page changed; a picture of an older version is stale.
    QHash<int, int> versions_;
    QMetaObject::Connection changes_;
    int first_ = 0;
    int last_ = -1;
    QSize shownSize_{56, 74};
    qreal devicePixelRatio_ = 1;
    qint64 bytes_ = 0;
    qint64 limit_ = 32ll << 20;
    QTimer timer_;
    QThreadPool pool_;
};
