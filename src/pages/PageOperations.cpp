#include "PageOperations.h"

#include "PdfDocument.h"
#include "PdfPage.h"

#include <QFileInfo>

#include <algorithm>

namespace PageOperations {
namespace {

bool goOn(const Progress &progress, qint64 done, qint64 total)
{
    return !progress || progress(done, total);
}

// Places a fresh copy of `page` at `at`; false when there is no page or the
// engine cannot place the copy.
bool placeCopy(const std::shared_ptr<PdfPage> &page, PdfDocument &into, qint64 at)
{
    if (!page)
        return false;
    auto copy = page->copy();
    return copy && into.insert(copy, int(at));
}

// The bookmark standing for a merged document: its file's name.
QString outlineTitle(const PdfDocument &document)
{
    const QString name = QFileInfo(document.path()).completeBaseName();
    return name.isEmpty() ? QStringLiteral("Untitled") : name;
}

std::shared_ptr<PdfPage> pageAt(const std::shared_ptr<PdfDocument> &document, qint64 index)
{
    if (!document || index < 0 || index >= document->pageCount())
        return nullptr;
    return document->page(int(index));
}

// A new document holding copies of `pages` in their order, pages that cannot
// be copied left out; null when the progress report says stop. The copies go
// in from the last to the first, each at the front: finding the place for a
// page costs the engine a walk along the page list up to it, so appending
// one by one would make building a long document quadratic in its length.
std::shared_ptr<PdfDocument> build(const std::vector<std::shared_ptr<PdfPage>> &pages, const Progress &progress, qint64 &done,
                                   qint64 total, const std::vector<std::shared_ptr<PdfDocument>> &groupedSources = {})
{
    auto result = PdfDocument::create();
    if (!result)
        return nullptr;
    PdfCopyBatch batch(result);
    for (const auto &source : groupedSources)
        batch.groupOutline(source, outlineTitle(*source));
    for (auto it = pages.rbegin(); it != pages.rend(); ++it) {
        placeCopy(*it, *result, 0);
        if (!goOn(progress, ++done, total))
            return nullptr;
    }
    return result;
}

} // namespace

std::shared_ptr<PdfDocument> merge(const std::vector<std::shared_ptr<PdfDocument>> &documents, const Progress &progress)
{
    std::vector<std::shared_ptr<PdfPage>> pages;
    std::vector<std::shared_ptr<PdfDocument>> sources;
    bool outlined = false;
    for (const auto &document : documents) {
        if (!document || document->pageCount() == 0)
            continue;
        for (int i = 0; i < document->pageCount(); ++i)
            pages.push_back(document->page(i));
        if (std::find(sources.begin(), sources.end(), document) == sources.end())
            sources.push_back(document);
        outlined = outlined || document->hasOutline();
    }
    // Bookmarks of several documents go under one entry per document; a
    // single document's stay as they are.
    if (sources.size() < 2 || !outlined)
        sources.clear();
    qint64 done = 0;
    return build(pages, progress, done, qint64(pages.size()), sources);
}

std::vector<std::shared_ptr<PdfDocument>> splitEveryPage(const std::shared_ptr<PdfDocument> &document, const Progress &progress)
{
    std::vector<std::shared_ptr<PdfDocument>> result;
    const int count = document ? document->pageCount() : 0;
    for (int i = 0; i < count; ++i) {
        auto single = PdfDocument::create();
        if (single && placeCopy(document->page(i), *single, 0))
            result.push_back(single);
        if (!goOn(progress, i + 1, count))
            return {};
    }
    return result;
}

std::vector<std::shared_ptr<PdfDocument>> splitByRanges(const std::shared_ptr<PdfDocument> &document,
                                                        const std::vector<PageRange> &ranges, const Progress &progress)
{
    // Indices outside the document yield no page, so only those inside are visited.
    const qint64 count = document ? document->pageCount() : 0;
    std::vector<std::vector<std::shared_ptr<PdfPage>>> parts;
    qint64 total = 0;
    for (const auto &range : ranges) {
        parts.emplace_back();
        for (qint64 i = std::max<qint64>(range.lower, 0); i <= std::min<qint64>(range.upper, count - 1); ++i)
            parts.back().push_back(document->page(int(i)));
        total += qint64(parts.back().size());
    }
    std::vector<std::shared_ptr<PdfDocument>> result;
    qint64 done = 0;
    for (const auto &pages : parts) {
        // Every range gives its document, also one whose pages were all skipped.
        auto part = build(pages, progress, done, total);
        if (!part)
            return {};
        result.push_back(part);
    }
    return result;
}

std::shared_ptr<PdfDocument> extractPages(const std::shared_ptr<PdfDocument> &document, const std::vector<qint64> &indices,
                                          const Progress &progress)
{
    std::vector<qint64> sorted = indices;
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::shared_ptr<PdfPage>> pages;
    for (qint64 index : sorted)
        pages.push_back(pageAt(document, index));
    qint64 done = 0;
    return build(pages, progress, done, qint64(pages.size()));
}

bool insertPages(const std::shared_ptr<PdfDocument> &source, const std::shared_ptr<PdfDocument> &destination, qint64 at,
                 const Progress &progress)
{
    if (!source || !destination)
        return true;
    // Taken first, so that inserting a document into itself copies its pages as they were.
    std::vector<std::shared_ptr<PdfPage>> pages;
    for (int i = 0; i < source->pageCount(); ++i)
        pages.push_back(source->page(i));
    const qint64 start = std::clamp<qint64>(at, 0, destination->pageCount());
    const PdfCopyBatch batch(destination);
    qint64 placed = 0, done = 0;
    for (const auto &page : pages) {
        if (placeCopy(page, *destination, start + placed))
            ++placed;
        if (!goOn(progress, ++done, qint64(pages.size()))) {
            while (placed-- > 0)
                destination->removePage(int(start));
            return false;
        }
    }
    return true;
}

std::vector<qint64> movedOrder(qint64 count, const std::set<qint64> &offsets, qint64 toOffset)
{
    std::vector<qint64> before, moved, after;
    for (qint64 i = 0; i < count; ++i) {
        if (offsets.count(i))
            moved.push_back(i);
        else
            (i < toOffset ? before : after).push_back(i);
    }
    before.insert(before.end(), moved.begin(), moved.end());
    before.insert(before.end(), after.begin(), after.end());
    return before;
}

void movePages(const std::shared_ptr<PdfDocument> &document, const std::set<qint64> &offsets, qint64 toOffset)
{
    if (!document)
        return;
    const auto pages = document->pages();
    const qint64 count = qint64(pages.size());
    std::set<qint64> moving;
    for (qint64 index : offsets)
        if (index >= 0 && index < count)
            moving.insert(index);
    // One rewrite of the page list: it happens whole or not at all.
    std::vector<std::shared_ptr<PdfPage>> order;
    order.reserve(pages.size());
    for (qint64 old : movedOrder(count, moving, std::clamp<qint64>(toOffset, 0, count)))
        order.push_back(pages[size_t(old)]);
    document->setPages(order);
}

} // namespace PageOperations
