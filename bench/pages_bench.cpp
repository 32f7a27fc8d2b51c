// Page work benchmark: the page operations on a 2,000-page file (split into
// every page and into ranges, extract, insert, move) and a merge of 100
// files, each timed from opening the sources to the last file written, beside
// `qpdf --pages` (or `qpdf --split-pages`) doing the same job, and the size
// of what each writes. The files carry what page work has to keep: links
// between pages (some through named destinations), bookmarks and form fields. Then the
// thumbnail sidebar on the 2,000-page file: the cost of one thumbnail, the
// time until it shows, until the rows in sight have their pictures, and the
// longest stall of the event loop while it is scrolled from top to bottom.
// The last line is a one-line summary; ratios are ours / qpdf (below 1 is faster).
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "PageOperations.h"
#include "PdfDisplayList.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ReorderableListView.h"
#include "ThumbnailCache.h"
#include "ThumbnailSidebarView.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <set>

namespace {

constexpr int pageCount = 2000;
constexpr int linesPerPage = 20;
constexpr int mergeFiles = 100;
constexpr int pagesPerMergeFile = 10;

// Pages saying "Page <n>" with links to the next page and (every tenth page,
// through a named destination) to the first page of their chapter of 50
// pages, a bookmark per chapter with one per ten pages below it, and a text
// field every 100 pages, the first of them filled.
fixtures::StructuredSpec structuredPages(int count)
{
    fixtures::StructuredSpec spec;
    spec.pages = fixtures::numberedPages(count, linesPerPage);
    for (int i = 0; i < count; i += 50)
        spec.namedDestinations.emplace_back("chapter-" + QByteArray::number(i / 50 + 1), i);
    for (int i = 0; i < count; ++i) {
        if (i + 1 < count)
            spec.links.push_back({i, i + 1});
        if (i % 10 == 9)
            spec.links.push_back({i, 0, "chapter-" + QByteArray::number(i / 50 + 1), false, QRectF(72, 560, 128, 20)});
        if (i % 100 == 0)
            spec.fields.push_back({i, QStringLiteral("note"), i == 0 ? QStringLiteral("filled") : QString()});
    }
    for (int i = 0; i < count; i += 50) {
        fixtures::OutlineSpec chapter{QStringLiteral("Chapter %1").arg(i / 50 + 1), i};
        for (int j = i + 10; j < std::min(i + 50, count); j += 10)
            chapter.children.push_back({QStringLiteral("Page %1").arg(j + 1), j});
        spec.outline.push_back(chapter);
    }
    return spec;
}

qint64 bytesOf(const QStringList &paths)
{
    qint64 total = 0;
    for (const QString &path : paths)
        total += QFileInfo(path).size();
    return total;
}

qint64 folderBytes(const QString &path)
{
    qint64 total = 0;
    for (const QFileInfo &file : QDir(path).entryInfoList(QDir::Files))
        total += file.size();
    return total;
}

qint64 timed(const std::function<bool()> &job)
{
    QElapsedTimer clock;
    clock.start();
    return job() ? clock.elapsed() : -1;
}

// Milliseconds qpdf takes for each argument list in turn, or -1.
qint64 qpdfMs(const QList<QStringList> &runs)
{
    return timed([&] {
        for (const QStringList &arguments : runs) {
            QProcess qpdf;
            qpdf.start(QStringLiteral("qpdf"), arguments);
            // Exit code 3 means warnings only.
            if (!qpdf.waitForFinished(600000) || qpdf.exitStatus() != QProcess::NormalExit ||
                (qpdf.exitCode() != 0 && qpdf.exitCode() != 3))
                return false;
        }
        return true;
    });
}

void freshFolder(const QString &path)
{
    QDir(path).removeRecursively();
    QDir().mkpath(path);
}

struct Row {
    const char *name;
    qint64 ours;
    qint64 qpdf;
    // Bytes written by each.
    qint64 oursBytes = 0;
    qint64 qpdfBytes = 0;
};

double ratio(const Row &row)
{
    return row.qpdf > 0 && row.ours >= 0 ? double(row.ours) / double(row.qpdf) : -1;
}

double sizeRatio(const Row &row)
{
    return row.qpdfBytes > 0 ? double(row.oursBytes) / double(row.qpdfBytes) : -1;
}

// Runs the event loop until `done` answers true; the longest gap between two
// turns of a 1 ms timer is the longest stall.
qint64 runUntil(const std::function<bool()> &done, qint64 *worstStall, qint64 timeoutMs = 120000)
{
    QElapsedTimer clock, turn;
    clock.start();
    turn.start();
    QEventLoop loop;
    QTimer tick;
    tick.setInterval(1);
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        if (worstStall)
            *worstStall = std::max(*worstStall, turn.elapsed());
        turn.restart();
        if (done() || clock.elapsed() > timeoutMs)
            loop.quit();
    });
    tick.start();
    loop.exec();
    return clock.elapsed();
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    const QString big = dir.filePath(QStringLiteral("big.pdf"));
    const QString small = dir.filePath(QStringLiteral("insert.pdf"));
    if (!fixtures::writeStructuredPdf(big, structuredPages(pageCount)) ||
        !fixtures::writeStructuredPdf(small, structuredPages(100))) {
        std::fprintf(stderr, "cannot write the benchmark files\n");
        return 1;
    }
    QStringList parts;
    for (int i = 0; i < mergeFiles; ++i) {
        parts.append(dir.filePath(QStringLiteral("part-%1.pdf").arg(i + 1)));
        if (!fixtures::writeStructuredPdf(parts.back(), structuredPages(pagesPerMergeFile)))
            return 1;
    }
    std::printf("file: %d pages, %d lines each, %lld KB; merge: %d files of %d pages\n", pageCount, linesPerPage,
                QFileInfo(big).size() / 1024, mergeFiles, pagesPerMergeFile);
    const QString out = dir.filePath(QStringLiteral("out"));
    std::vector<Row> rows;

    const QString theirs = dir.filePath(QStringLiteral("qpdf"));

    // Every page as its own file.
    freshFolder(out);
    freshFolder(theirs);
    const qint64 everyOurs = timed([&] {
        auto document = PdfDocument::open(big);
        const auto singles = PageOperations::splitEveryPage(document);
        std::vector<std::pair<std::shared_ptr<PdfDocument>, QString>> files;
        for (size_t i = 0; i < singles.size(); ++i)
            files.emplace_back(singles[i], QStringLiteral("%1/big-page-%2.pdf").arg(out).arg(i + 1));
        const auto written = PdfDocument::writeAll(files);
        return int(singles.size()) == pageCount && std::count(written.begin(), written.end(), true) == pageCount;
    });
    rows.push_back(
        {"split_every", everyOurs, qpdfMs({{QStringLiteral("--split-pages"), big, theirs + QStringLiteral("/q-%d.pdf")}})});
    rows.back().oursBytes = folderBytes(out);
    rows.back().qpdfBytes = folderBytes(theirs);

    // Four ranges of 500 pages.
    const std::vector<PageRange> ranges{{0, 499}, {500, 999}, {1000, 1499}, {1500, 1999}};
    freshFolder(out);
    freshFolder(theirs);
    const qint64 rangesOurs = timed([&] {
        auto document = PdfDocument::open(big);
        const auto pieces = PageOperations::splitByRanges(document, ranges);
        std::vector<std::pair<std::shared_ptr<PdfDocument>, QString>> files;
        for (size_t i = 0; i < pieces.size(); ++i)
            files.emplace_back(pieces[i], QStringLiteral("%1/big-pages-%2.pdf").arg(out).arg(i));
        const auto written = PdfDocument::writeAll(files);
        return pieces.size() == ranges.size() && std::count(written.begin(), written.end(), true) == qint64(ranges.size());
    });
    QList<QStringList> rangeRuns;
    for (const PageRange &r : ranges)
        rangeRuns.append({QStringLiteral("--empty"), QStringLiteral("--pages"), big,
                          QStringLiteral("%1-%2").arg(r.lower + 1).arg(r.upper + 1), QStringLiteral("--"),
                          QStringLiteral("%1/q-%2.pdf").arg(theirs).arg(r.lower)});
    rows.push_back({"split_ranges", rangesOurs, qpdfMs(rangeRuns), folderBytes(out), folderBytes(theirs)});

    // The odd pages (1,000 of them) extracted.
    const QString extracted = dir.filePath(QStringLiteral("extracted.pdf"));
    const QString extractedTheirs = dir.filePath(QStringLiteral("extracted-qpdf.pdf"));
    const qint64 extractOurs = timed([&] {
        auto document = PdfDocument::open(big);
        std::vector<qint64> odd;
        for (qint64 i = 0; i < pageCount; i += 2)
            odd.push_back(i);
        return PageOperations::extractPages(document, odd)->write(extracted);
    });
    rows.push_back({"extract", extractOurs,
                    qpdfMs({{QStringLiteral("--empty"), QStringLiteral("--pages"), big, QStringLiteral("1-z:odd"),
                             QStringLiteral("--"), extractedTheirs}}),
                    bytesOf({extracted}), bytesOf({extractedTheirs})});

    // 100 pages inserted after page 1,000.
    const QString inserted = dir.filePath(QStringLiteral("inserted.pdf"));
    const QString insertedTheirs = dir.filePath(QStringLiteral("inserted-qpdf.pdf"));
    const qint64 insertOurs = timed([&] {
        auto document = PdfDocument::open(big);
        auto source = PdfDocument::open(small);
        PageOperations::insertPages(source, document, 1000);
        return document->pageCount() == pageCount + 100 && document->write(inserted);
    });
    rows.push_back({"insert", insertOurs,
                    qpdfMs({{QStringLiteral("--empty"), QStringLiteral("--pages"), big, QStringLiteral("1-1000"), small, big,
                             QStringLiteral("1001-z"), QStringLiteral("--"), insertedTheirs}}),
                    bytesOf({inserted}), bytesOf({insertedTheirs})});

    // The first page moved to the end (a drag in the sidebar), then saved.
    const QString moved = dir.filePath(QStringLiteral("moved.pdf"));
    const QString movedTheirs = dir.filePath(QStringLiteral("moved-qpdf.pdf"));
    qint64 moveOnlyMs = 0;
    const qint64 moveOurs = timed([&] {
        auto document = PdfDocument::open(big);
        moveOnlyMs = timed([&] {
            PageOperations::movePages(document, {0}, pageCount);
            return true;
        });
        return document->write(moved);
    });
    rows.push_back({"move", moveOurs,
                    qpdfMs({{big, QStringLiteral("--pages"), big, QStringLiteral("2-z,1"), QStringLiteral("--"), movedTheirs}}),
                    bytesOf({moved}), bytesOf({movedTheirs})});

    // 100 files merged.
    const QString merged = dir.filePath(QStringLiteral("merged.pdf"));
    const QString mergedTheirs = dir.filePath(QStringLiteral("merged-qpdf.pdf"));
    const qint64 mergeOurs = timed([&] {
        std::vector<std::shared_ptr<PdfDocument>> documents;
        for (const QString &part : parts)
            documents.push_back(PdfDocument::open(part));
        auto result = PageOperations::merge(documents);
        return result->pageCount() == mergeFiles * pagesPerMergeFile && result->write(merged);
    });
    QStringList mergeArguments{QStringLiteral("--empty"), QStringLiteral("--pages")};
    mergeArguments += parts;
    mergeArguments += QStringList{QStringLiteral("--"), mergedTheirs};
    rows.push_back({"merge100", mergeOurs, qpdfMs({mergeArguments}), bytesOf({merged}), bytesOf({mergedTheirs})});

    // The worst size ratio; -1 when any size is missing.
    double worstSize = 0;
    bool allSized = true;
    for (const Row &row : rows) {
        std::printf("%-13s ours %6lld ms   qpdf %6lld ms   ours/qpdf %.2f   size: ours %7lld KB  qpdf %7lld KB  ours/qpdf %.2f\n",
                    row.name, row.ours, row.qpdf, ratio(row), row.oursBytes / 1024, row.qpdfBytes / 1024, sizeRatio(row));
        allSized = allSized && sizeRatio(row) >= 0;
        worstSize = std::max(worstSize, sizeRatio(row));
    }
    if (!allSized)
        worstSize = -1;
    std::printf("move in memory (first of 2,000 pages to the end): %lld ms\n", moveOnlyMs);

    // One thumbnail: recording on the user-interface thread, playing back on a worker.
    auto document = PdfDocument::open(big);
    QElapsedTimer clock;
    qint64 recordNs = 0, renderNs = 0;
    constexpr int samples = 200;
    for (int i = 0; i < samples; ++i) {
        auto page = document->page(i * (pageCount / samples));
        clock.start();
        auto list = page->displayList();
        recordNs += clock.nsecsElapsed();
        clock.start();
        list->render(90.0 / 612.0);
        renderNs += clock.nsecsElapsed();
    }
    std::printf("thumbnail: record %.2f ms (UI thread), render %.2f ms (worker)\n", recordNs / 1e6 / samples,
                renderNs / 1e6 / samples);

    // The sidebar on the 2,000-page file.
    DocumentModel model;
    ThumbnailSidebarView sidebar(&model);
    sidebar.resize(180, 800);
    sidebar.show();
    clock.start();
    model.open(big);
    QApplication::processEvents();
    const qint64 shownMs = clock.elapsed();
    ThumbnailCache *cache = sidebar.cache();
    const qint64 inSightMs = shownMs + runUntil([&] { return cache->has(0) && !cache->isBusy(); }, nullptr);
    // Scrolled a screen at a time, one step per frame, from top to bottom.
    QScrollBar *bar = sidebar.list()->verticalScrollBar();
    qint64 worstStall = 0;
    QTimer step;
    step.setInterval(16);
    QObject::connect(&step, &QTimer::timeout, [&] { bar->setValue(bar->value() + bar->pageStep()); });
    step.start();
    const qint64 scrollMs =
        runUntil([&] { return bar->value() >= bar->maximum() && cache->has(pageCount - 1) && !cache->isBusy(); }, &worstStall);
    step.stop();
    std::printf("sidebar, %d pages: shown in %lld ms, rows in sight drawn after %lld ms; scrolled through in %lld ms, "
                "worst stall %lld ms; %lld thumbnails kept, %lld KB\n",
                pageCount, shownMs, inSightMs, scrollMs, worstStall, qint64(cache->bytesUsed() / (56 * 74 * 4)),
                cache->bytesUsed() / 1024);

    // Undoing the deletion of every other page (1,000 of 2,000) with the sidebar
    // and a page view following, until both have laid out the pages again.
    PdfView view;
    view.resize(800, 1000);
    view.setDocument(model.pdfDocument());
    view.show();
    std::set<int> everyOther;
    for (int i = 0; i < pageCount; i += 2)
        everyOther.insert(i);
    model.deletePages(everyOther);
    QApplication::processEvents();
    clock.start();
    model.undo();
    QApplication::processEvents();
    const qint64 undoDeleteMs = clock.elapsed();
    std::printf("undo of deleting %zu pages: %lld ms (%d pages again)\n", everyOther.size(), undoDeleteMs,
                model.pdfDocument()->pageCount());

    std::printf("split_every ... merge100 below are times ours / qpdf; size_vs_qpdf the largest ratio of bytes written\n");
    std::printf("split_every=%.2f split_ranges=%.2f extract=%.2f insert=%.2f move=%.2f merge100=%.2f size_vs_qpdf=%.2f "
                "sidebar_shown_ms=%lld sidebar_worst_stall_ms=%lld undo_delete_ms=%lld\n",
                ratio(rows[0]), ratio(rows[1]), ratio(rows[2]), ratio(rows[3]), ratio(rows[4]), ratio(rows[5]), worstSize,
                shownMs, worstStall, undoDeleteMs);
    return 0;
}
