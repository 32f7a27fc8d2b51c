// Searching a document's pages off the user-interface thread. Each page's
// text is read once, on a worker, into a small index (PdfSearchText without
// its boxes) that later searches match at once. A search goes from a page
// onwards and wraps; results stream in as pages are searched, in document
// order in results(). A change of a page (announced by the engine) reads it
// again and updates its results; a new search or another document cancels
// the one under way at once.
#pragma once

#include "PdfSearchText.h"

#include <QObject>
#include <QString>

#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class PdfDocument;
class PdfPage;

class DocumentSearch : public QObject {
    Q_OBJECT
public:
    // The matches on one page.
    struct PageHits {
        std::shared_ptr<PdfPage> page;
        // The page's text, for a line of context around each match.
        std::shared_ptr<const PdfSearchText> text;
        std::vector<PdfSearchText::Match> matches;
        // The quads of each match (page space); empty until they were read.
        std::vector<std::vector<PdfSearchText::Quad>> quads;
    };

    explicit DocumentSearch(QObject *parent = nullptr);
    ~DocumentSearch() override;

    void setDocument(std::shared_ptr<PdfDocument> document);
    std::shared_ptr<PdfDocument> document() const { return document_; }

    // Searches every page for `query` (made searchable first), starting on
    // the page at `fromIndex`, then onwards, then from the first page. An
    // empty query searches nothing.
    void start(const QString &query, PdfSearchOptions options, int fromIndex);
    // Cancels the search and forgets its results; the index stays.
    void clear();

    QString query() const { return query_; }
    PdfSearchOptions options() const { return options_; }
    bool isSearching() const { return !waiting_.empty(); }
    int pagesSearched() const { return searched_; }
    int hitCount() const { return hits_; }
    // The pages with matches, in document order.
    const std::vector<PageHits> &results() const { return results_; }
    // The row of results() that holds a page, or -1.
    int rowOf(const PdfPage *page) const;
    // The document order of a page when the search started, or -1.
    int orderOf(const PdfPage *page) const;

    // Reads the quads of a page's matches when they are not known yet
    // (resultChanged tells when they are).
    void requestQuads(const std::shared_ptr<PdfPage> &page);

    // Memory held by the index of page texts, in bytes, and its page count.
    qint64 indexBytes() const;
    int indexedPages() const;

signals:
    // A row of results() was inserted, replaced (new matches or quads) or
    // removed.
    void resultInserted(int row);
    void resultChanged(int row);
    void resultRemoved(int row);
    // Every row went (a new search, or clear()).
    void resultsCleared();
    // More pages were searched, or the search ended.
    void progressChanged();

private slots:
    void deliver();

private:
    class Worker;
    struct Outcome;
    struct Entry {
        std::weak_ptr<PdfPage> page;
        quint64 version = 0;
        std::shared_ptr<const PdfSearchText> text;
    };

    void pageChanged(const std::shared_ptr<PdfPage> &page);
    void pageListChanged();
    // Queues a page for the search under way; `urgent` ones go first. A
    // `counted` page is one still to be searched.
    void enqueue(const std::shared_ptr<PdfPage> &page, bool urgent, bool needBoxes, bool counted);
    void take(Outcome &outcome);
    void place(const std::shared_ptr<PdfPage> &page, Outcome &outcome);
    void resetResults();

    std::shared_ptr<PdfDocument> document_;
    QMetaObject::Connection changes_;
    QMetaObject::Connection listChanges_;
    std::unique_ptr<Worker> worker_;
    quint64 generation_ = 0;
    QString query_;
    PdfSearchOptions options_;
    std::weak_ptr<PdfPage> from_;
    std::unordered_map<const PdfPage *, Entry> index_;
    std::unordered_map<const PdfPage *, int> order_;
    std::vector<PageHits> results_;
    // Pages still to be searched, and those whose quads were asked for.
    std::unordered_set<const PdfPage *> waiting_;
    std::unordered_set<const PdfPage *> quadsAsked_;
    int searched_ = 0;
    int hits_ = 0;
};
