// Page work between two fuzzed documents, as the Pages menu does it: the input
// is two PDF files and a script of choices, cut at the separator (a missing
// second file is the first read again). Merges them with their outlines
// grouped, extracts a range into a new document, copies pages of a document
// into itself and of the other into it, removes pages and puts them back,
// rotates, reorders, saves (also with a password), splits into single pages
// written together, and reopens what was written. For some inputs MuPDF's
// memory runs out part way through the merge, as a full memory would.
#include "FuzzSupport.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "Testing.h"

#include <algorithm>
#include <utility>

using namespace fuzzing;

namespace {

// Pages taken from each source, so an input stays fast whatever its page count.
constexpr int PageLimit = 6;

std::vector<std::shared_ptr<PdfPage>> firstPages(const std::shared_ptr<PdfDocument> &doc)
{
    std::vector<std::shared_ptr<PdfPage>> pages;
    for (int i = 0; i < std::min(doc->pageCount(), PageLimit); ++i)
        if (auto page = doc->page(i))
            pages.push_back(page);
    return pages;
}

// Reads back what a written file holds: its pages, their links and annotations.
void reopen(const QString &path, const QString &password = {})
{
    auto doc = PdfDocument::open(path);
    if (!doc || (doc->isLocked() && !doc->unlock(password)))
        return;
    doc->hasOutline();
    for (int i = 0; i < std::min(doc->pageCount(), 3); ++i) {
        if (auto page = doc->page(i)) {
            page->links();
            page->annotations();
        }
    }
}

// A new document made of `pages`, copied as one batch (each source's outline
// grouped under a title when `grouped`); from the last page to the first,
// each at the front, or in order at the end.
std::shared_ptr<PdfDocument> build(const std::vector<std::shared_ptr<PdfPage>> &pages,
                                   const std::vector<std::shared_ptr<PdfDocument>> &grouped, bool backwards)
{
    auto result = PdfDocument::create();
    PdfCopyBatch batch(result);
    const QString titles[] = {QStringLiteral("Première partie"), QStringLiteral("Part (2) \\ ☃")};
    for (size_t i = 0; i < grouped.size(); ++i)
        batch.groupOutline(grouped[i], titles[i % 2]);
    if (backwards) {
        for (auto it = pages.rbegin(); it != pages.rend(); ++it)
            result->insert((*it)->copy(), 0);
    } else {
        for (const auto &page : pages)
            result->insert(page->copy(), result->pageCount());
    }
    return result;
}

void pageWork(const std::shared_ptr<PdfDocument> &a, const std::shared_ptr<PdfDocument> &b, Script &script)
{
    const auto pagesA = firstPages(a), pagesB = firstPages(b);

    // Merge, the outlines of both under an entry each; written and read back.
    std::vector<std::shared_ptr<PdfPage>> both = pagesA;
    both.insert(both.end(), pagesB.begin(), pagesB.end());
    const int failing = script.byte();
    const bool starved = failing % 8 == 7;
    if (starved) {
        // From empty caches, so that the failing allocation depends on the input alone.
        mu::testing::emptyCaches();
        mu::testing::failAllocationAfter(failing * 8);
    }
    auto merged = build(both, {a, b}, script.flag());
    mu::testing::failAllocationAfter(-1);
    merged->hasOutline();
    for (const auto &page : merged->pages())
        page->links();
    // A merge that ran out of memory is not written: MuPDF 1.21 leaves its
    // object table inconsistent when memory runs out while it grows, and its
    // writer then corrupts the heap (the engine's own tests write only whole copies).
    const QString mergedPath = scratch(QStringLiteral("merged.pdf"));
    if (!starved && merged->write(mergedPath))
        reopen(mergedPath);

    // A range of the first document into a new one, the batch left ungrouped.
    const int from = script.below(int(pagesA.size()) + 1);
    const int to = from + script.below(int(pagesA.size()) + 1 - from);
    auto extracted = build({pagesA.begin() + from, pagesA.begin() + to}, {}, script.flag());

    // Pages of the first document copied into itself and the second's
    // inserted into it, in one batch; then pages removed, rotated, reordered.
    {
        PdfCopyBatch batch(a);
        for (const auto &page : pagesA)
            a->insert(page->copy(), script.below(a->pageCount() + 1));
        const int at = script.below(a->pageCount() + 1);
        for (size_t i = 0; i < pagesB.size(); ++i)
            a->insert(pagesB[i]->copy(), at + int(i));
    }
    std::vector<std::pair<int, std::shared_ptr<PdfPage>>> removed;
    for (int n = script.below(4); n > 0 && a->pageCount() > 0; --n) {
        const int index = script.below(a->pageCount());
        auto page = a->page(index);
        if (a->removePage(index))
            removed.emplace_back(index, page);
    }
    for (auto &page : a->pages())
        if (script.flag())
            page->setRotation(page->rotation() + 90 * script.below(4));
    std::vector<std::shared_ptr<PdfPage>> order = a->pages();
    std::rotate(order.begin(), order.begin() + script.below(int(order.size()) + 1), order.end());
    a->setPages(order);

    // Saved while pages are out (what points at them is trimmed), with a
    // password for some inputs, then the pages put back and saved again.
    const bool encrypt = script.flag();
    const PdfWriteOptions options{encrypt ? QStringLiteral("fuzz") : QString(), encrypt ? QStringLiteral("ówner") : QString()};
    const QString trimmedPath = scratch(QStringLiteral("trimmed.pdf"));
    if (a->write(trimmedPath, options))
        reopen(trimmedPath, options.userPassword);
    for (auto it = removed.rbegin(); it != removed.rend(); ++it)
        a->insert(it->second, std::min(it->first, a->pageCount()));
    if (script.flag() && !removed.empty()) {
        // One of them dropped again by a page list without it.
        std::vector<std::shared_ptr<PdfPage>> without = a->pages();
        without.erase(std::remove(without.begin(), without.end(), removed.front().second), without.end());
        a->setPages(without);
    }

    // Split: each page of the merge a document of its own, written together
    // with the extracted range and the edited first document.
    std::vector<std::pair<std::shared_ptr<PdfDocument>, QString>> files;
    for (int i = 0; i < std::min(merged->pageCount(), 4); ++i) {
        auto single = PdfDocument::create();
        single->insert(merged->page(i)->copy(), 0);
        files.emplace_back(single, scratch(QStringLiteral("part-%1.pdf").arg(i + 1)));
    }
    files.emplace_back(extracted, scratch(QStringLiteral("extracted.pdf")));
    files.emplace_back(a, scratch(QStringLiteral("edited.pdf")));
    const std::vector<bool> written = PdfDocument::writeAll(files, [](qint64) {});
    for (size_t i = 0; i < written.size(); ++i)
        if (written[i])
            reopen(files[i].second);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<QByteArray> parts = split(data, size);
    auto a = openBytes(parts[0], QStringLiteral("a.pdf"));
    auto b = openBytes(parts.size() > 1 ? parts[1] : parts[0], QStringLiteral("b.pdf"));
    if (!a || !b)
        return 0;
    Script script(parts.size() > 2 ? parts[2] : QByteArray());
    pageWork(a, b, script);
    return 0;
}
