// Find benchmark on the 2,000-page text file of the page view benchmark: the
// time from a query to its first match shown (a word first found on the
// page after the current one), to every page searched with no index yet and
// with the index built, the longest stall of the window while a search with
// no index runs and the view scrolls, and the memory of the index of all
// pages. The last line is a one-line summary.
#include "DocumentSearch.h"
#include "FindBar.h"
#include "FixtureBuilder.h"
#include "PdfDocument.h"
#include "PdfView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QTimer>
#include <QVBoxLayout>

#include <cstdio>
#include <functional>

namespace {

constexpr int pageCount = 2000;
constexpr int linesPerPage = 42;

// Runs the event loop until `done` holds (checked every millisecond) and
// returns the milliseconds it took.
qint64 runUntil(const std::function<bool()> &done)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < 600000)
        QApplication::processEvents(QEventLoop::AllEvents, 1);
    return clock.elapsed();
}

// A find bar over the view, with an index of its own.
struct Finder {
    explicit Finder(PdfView *view) : bar(view) { bar.setDocument(view->document()); }
    void search(const QString &query)
    {
        bar.open();
        bar.field()->setText(query);
        bar.searchNow();
    }
    FindBar bar;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("pages.pdf"));
    if (!fixtures::writePdf(path, fixtures::numberedPages(pageCount, linesPerPage)))
        return 1;
    QWidget window;
    auto *layout = new QVBoxLayout(&window);
    auto *view = new PdfView;
    layout->addWidget(view);
    window.resize(1000, 850);
    window.show();
    view->setDocument(PdfDocument::open(path));
    runUntil([&] { return view->isRenderingComplete(); });

    // Cold: every page read for the first time.
    const QString everywhere = QStringLiteral("lazy dog");
    Finder cold(view);
    QElapsedTimer clock;
    clock.start();
    cold.search(everywhere);
    runUntil([&] { return !cold.bar.search()->isSearching(); });
    const qint64 allMs = clock.elapsed();
    const int hits = cold.bar.search()->hitCount();
    const double indexMb = double(cold.bar.search()->indexBytes()) / (1024.0 * 1024.0);
    clock.restart();
    cold.bar.searchNow();
    runUntil([&] { return !cold.bar.search()->isSearching(); });
    const qint64 warmMs = clock.elapsed();
    cold.bar.close();

    // The first match from the middle of the file, on the next page.
    view->goToPage(view->document()->page(pageCount / 2 - 1));
    runUntil([&] { return view->isRenderingComplete(); });
    Finder first(view);
    clock.restart();
    first.search(QStringLiteral("page %1.").arg(pageCount / 2 + 1));
    runUntil([&] { return !first.bar.currentQuads().empty(); });
    const qint64 firstMs = clock.elapsed();
    first.bar.close();

    // The window's longest stall while a search with no index runs and the view scrolls.
    Finder scrolling(view);
    view->goToPage(view->document()->page(0));
    qint64 worst = 0;
    QElapsedTimer tick;
    QTimer scroller;
    scroller.setTimerType(Qt::PreciseTimer);
    scroller.setInterval(4);
    QObject::connect(&scroller, &QTimer::timeout, [&] {
        worst = std::max(worst, tick.restart());
        view->verticalScrollBar()->setValue(view->verticalScrollBar()->value() + 40);
    });
    scrolling.search(everywhere);
    tick.start();
    scroller.start();
    runUntil([&] { return !scrolling.bar.search()->isSearching(); });
    scroller.stop();
    const qint64 stallMs = std::max(worst, tick.elapsed());

    std::printf("file: %d pages, %d lines each; \"%s\": %d matches\n", pageCount, linesPerPage, qPrintable(everywhere), hits);
    std::printf("cold search of every page %lld ms, again with the index %lld ms, index %.1f MB\n", allMs, warmMs, indexMb);
    std::printf("first match on the next page shown in %lld ms; worst stall while searching and scrolling %lld ms\n",
                firstMs, stallMs);
    std::printf("find_first_ms=%lld find_all_ms=%lld find_warm_ms=%lld find_stall_ms=%lld find_index_mb=%.1f\n", firstMs,
                allMs, warmMs, stallMs, indexMb);
    return 0;
}
