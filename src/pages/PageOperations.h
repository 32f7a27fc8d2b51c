// Whole-page work on documents: combining documents, cutting one into several,
// copying chosen pages out, copying all pages of one into another, and
// reordering pages in place. Plain functions of their arguments: nothing here
// knows the document model, shows anything or writes files.
//
// Operations that build new documents put copies of pages into fresh, empty
// documents and leave their sources alone; insertPages and movePages change
// the document they are given. A page the engine cannot yield or copy is
// skipped, so a result can be shorter; nothing reports an error.
//
// Copies keep their links, bookmarks, named destinations and form fields as
// far as they lead to pages that are copied too (see PdfCopyBatch).
#pragma once

#include <QtGlobal>

#include <functional>
#include <memory>
#include <set>
#include <vector>

class PdfDocument;

// A closed range of 0-based page indices, lower <= upper.
struct PageRange {
    qint64 lower = 0;
    qint64 upper = 0;
    friend bool operator==(const PageRange &, const PageRange &) = default;
};

namespace PageOperations {

// Told how many pages of `total` are placed so far; answering false stops the
// operation, which then leaves no result behind (see each operation).
using Progress = std::function<bool(qint64 done, qint64 total)>;

// All pages of the documents, in order, in one new document. Null when stopped.
// With bookmarks in any of two or more documents, each document's bookmarks
// go under one bookmark named after its file.
std::shared_ptr<PdfDocument> merge(const std::vector<std::shared_ptr<PdfDocument>> &documents, const Progress &progress = {});

// One new one-page document per page. Empty when stopped.
std::vector<std::shared_ptr<PdfDocument>> splitEveryPage(const std::shared_ptr<PdfDocument> &document,
                                                         const Progress &progress = {});

// One new document per range, in the order of the ranges; a range whose pages
// were all skipped still gives its (empty) document. Empty when stopped.
std::vector<std::shared_ptr<PdfDocument>> splitByRanges(const std::shared_ptr<PdfDocument> &document,
                                                        const std::vector<PageRange> &ranges, const Progress &progress = {});

// The pages at `indices` (any order, repeats kept) in ascending page order.
// Null when stopped.
std::shared_ptr<PdfDocument> extractPages(const std::shared_ptr<PdfDocument> &document, const std::vector<qint64> &indices,
                                          const Progress &progress = {});

// Copies every page of `source` into `destination` as one block starting at
// index `at` (0: before the first page; the page count: after the last),
// limited to the destination's page range. When stopped, the pages inserted
// so far are taken out again and the destination is as it was; answers
// whether it ran to the end.
bool insertPages(const std::shared_ptr<PdfDocument> &source, const std::shared_ptr<PdfDocument> &destination, qint64 at,
                 const Progress &progress = {});

// Moves the document's own pages at `offsets` (in ascending order) into the
// gap before the page that had index `toOffset` (the page count: after the
// last page). The page objects themselves move, with their annotations; the
// move happens whole or not at all.
void movePages(const std::shared_ptr<PdfDocument> &document, const std::set<qint64> &offsets, qint64 toOffset);

// The move rule as a new order of `count` positions, given as old positions:
// those below `toOffset` not moved, then the moved ones ascending, then the
// rest. movePages follows it; lists of other things reorder with it.
std::vector<qint64> movedOrder(qint64 count, const std::set<qint64> &offsets, qint64 toOffset);

} // namespace PageOperations
