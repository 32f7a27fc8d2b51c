// Page view benchmark: opens a 2,000-page text-heavy file in the view and
// measures the time to the first painted page, scrolling through every page
// at 100 % (throughput and the longest user-interface stall), a re-render
// after a zoom change and peak memory; the same pages are rendered by
// `mutool draw` as the reference. Peak memory is measured again on a
// 10,000-page file, in a process of its own. The test files are written by
// child processes so that their making does not count. Last, hostile files
// are opened and scrolled through (10 MB of free text without an appearance,
// an image that claims 50000 x 50000 pixels, 50,000 drawing operators on a
// page): the longest user-interface stall among them is hostile_stall_ms.
// The last line is a one-line summary.
//
//   pdfview_bench                 the whole run
//   pdfview_bench --scroll FILE   scrolls through FILE and prints peak_rss_mb=N
//   pdfview_bench --hostile       the hostile files only
#include "FixtureBuilder.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <thread>

namespace {

constexpr int pageCount = 2000;
constexpr int longPageCount = 10000;
constexpr int linesPerPage = 42;
// A document window on a 1920 x 1080 screen.
constexpr QSize windowSize(1000, 850);

qint64 peakRssMb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong() / 1024;
    return -1;
}

double cpuMs(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return double(ts.tv_sec) * 1000 + double(ts.tv_nsec) / 1e6;
}

// How much faster two busy threads get through twice the work than one: about
// 2 on two free cores, about 1 when the machine gives this process one core.
double parallelSpeedup()
{
    auto spin = [] {
        volatile double sink = 0;
        for (long i = 0; i < 60'000'000; ++i)
            sink = sink + double(i) * 0.5;
    };
    QElapsedTimer clock;
    clock.start();
    spin();
    const double one = double(clock.nsecsElapsed());
    clock.restart();
    std::thread other(spin);
    spin();
    other.join();
    return 2 * one / double(clock.nsecsElapsed());
}

// Milliseconds `mutool draw` takes to render every page at 72 dpi, or -1.
qint64 mutoolMs(const QString &path)
{
    QProcess mutool;
    QElapsedTimer clock;
    clock.start();
    mutool.start(QStringLiteral("mutool"), {QStringLiteral("draw"), QStringLiteral("-q"), QStringLiteral("-r"),
                                            QStringLiteral("72"), path, QStringLiteral("1-%1").arg(pageCount)});
    if (!mutool.waitForFinished(600000) || mutool.exitStatus() != QProcess::NormalExit || mutool.exitCode() != 0)
        return -1;
    return clock.elapsed();
}

// The view, telling when a paint showed every visible page finished.
class MeasuredView : public PdfView {
public:
    std::function<void()> onCompletePaint;

protected:
    void paintEvent(QPaintEvent *event) override
    {
        PdfView::paintEvent(event);
        if (isRenderingComplete() && onCompletePaint)
            QTimer::singleShot(0, this, onCompletePaint);
    }
};

// The longest time between two turns of the event loop while it runs.
class StallMeter : public QObject {
public:
    StallMeter()
    {
        timer_.setTimerType(Qt::PreciseTimer);
        timer_.setInterval(1);
        connect(&timer_, &QTimer::timeout, this, [this] { worst_ = std::max(worst_, clock_.restart()); });
    }
    void start()
    {
        worst_ = 0;
        clock_.start();
        timer_.start();
    }
    qint64 stop()
    {
        timer_.stop();
        return std::max(worst_, clock_.elapsed());
    }

private:
    QTimer timer_;
    QElapsedTimer clock_;
    qint64 worst_ = 0;
};

// Runs the event loop until the next paint that shows finished pages.
qint64 waitForCompletePaint(MeasuredView &view)
{
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    view.onCompletePaint = [&] { loop.quit(); };
    QTimer::singleShot(120000, &loop, &QEventLoop::quit);
    loop.exec();
    view.onCompletePaint = nullptr;
    return clock.elapsed();
}

struct Scroll {
    qint64 ms = 0;
    qint64 worstStallMs = 0;
    double mainCpuMs = 0;
    double processCpuMs = 0;
};

// Scrolls through every page from the first, one page per step, each step as
// soon as the view is painted finished.
Scroll scrollThrough(MeasuredView &view)
{
    auto doc = view.document();
    const int count = doc->pageCount();
    StallMeter stalls;
    QEventLoop scrolling;
    int steps = 0;
    view.onCompletePaint = [&] {
        if (++steps >= count) {
            scrolling.quit();
            return;
        }
        view.goToPage(doc->page(steps));
    };
    const double mainCpu = cpuMs(CLOCK_THREAD_CPUTIME_ID), processCpu = cpuMs(CLOCK_PROCESS_CPUTIME_ID);
    QElapsedTimer clock;
    clock.start();
    stalls.start();
    view.goToPage(doc->page(0));
    view.viewport()->update();
    QTimer::singleShot(600000, &scrolling, &QEventLoop::quit);
    scrolling.exec();
    Scroll result;
    result.worstStallMs = stalls.stop();
    result.ms = clock.elapsed();
    result.mainCpuMs = cpuMs(CLOCK_THREAD_CPUTIME_ID) - mainCpu;
    result.processCpuMs = cpuMs(CLOCK_PROCESS_CPUTIME_ID) - processCpu;
    view.onCompletePaint = nullptr;
    return result;
}

// Writes the benchmark file of `pages` pages in a child process.
bool writeInChild(const QString &path, int pages)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--write"), path, QString::number(pages)});
    return child.waitForFinished(600000) && child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
}

// Peak memory of a child process that scrolls through the file, or -1.
qint64 peakInChild(const QString &path)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--scroll"), path});
    if (!child.waitForFinished(900000) || child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0)
        return -1;
    const QList<QByteArray> lines = child.readAllStandardOutput().trimmed().split('\n');
    const QByteArray last = lines.last();
    return last.startsWith("peak_rss_mb=") ? last.mid(12).toLongLong() : -1;
}

// A PDF file of pages with the given content streams (each page may draw the
// image /Im0 and the font /F1) and an image that claims `imageSide` pixels a
// side but holds a few bytes.
QByteArray hostilePdf(const std::vector<QByteArray> &contents, const QByteArray &annotation, int imageSide)
{
    std::vector<QByteArray> objects{"<< /Type /Catalog /Pages 2 0 R >>", {}};
    const QByteArray pixels = qCompress(QByteArray(64, '\x80')).mid(4); // a zlib stream
    objects.push_back("<< /Type /XObject /Subtype /Image /Width " + QByteArray::number(imageSide) + " /Height " +
                      QByteArray::number(imageSide) +
                      " /ColorSpace /DeviceRGB /BitsPerComponent 8 /Filter /FlateDecode /Length " +
                      QByteArray::number(pixels.size()) + " >>\nstream\n" + pixels + "\nendstream");
    objects.push_back("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
    QByteArray kids;
    for (size_t i = 0; i < contents.size(); ++i) {
        const int page = int(objects.size()) + 1;
        kids += QByteArray::number(page) + " 0 R ";
        const QByteArray annots = i == 0 && !annotation.isEmpty() ? " /Annots [" + QByteArray::number(page + 2) + " 0 R]" : "";
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Resources << /XObject << /Im0 3 0 R >> "
                          "/Font << /F1 4 0 R >> >> /Contents " +
                          QByteArray::number(page + 1) + " 0 R" + annots + " >>");
        objects.push_back("<< /Length " + QByteArray::number(contents[i].size()) + " >>\nstream\n" + contents[i] + "\nendstream");
        if (!annots.isEmpty())
            objects.push_back(annotation);
    }
    objects[1] = "<< /Type /Pages /Kids [" + kids + "] /Count " + QByteArray::number(qsizetype(contents.size())) + " >>";
    QByteArray out = "%PDF-1.7\n";
    QByteArray xref = "xref\n0 " + QByteArray::number(qsizetype(objects.size() + 1)) + "\n0000000000 65535 f \n";
    for (size_t i = 0; i < objects.size(); ++i) {
        xref += QByteArray::number(out.size()).rightJustified(10, '0') + " 00000 n \n";
        out += QByteArray::number(qsizetype(i + 1)) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const qsizetype start = out.size();
    return out + xref + "trailer\n<< /Size " + QByteArray::number(qsizetype(objects.size() + 1)) +
           " /Root 1 0 R >>\nstartxref\n" + QByteArray::number(start) + "\n%%EOF\n";
}

// The longest stall of the event loop while each hostile file is opened in the
// view and scrolled through page by page, or -1 when one does not open.
qint64 hostileStallMs(const QString &folder)
{
    const QByteArray text = "BT /F1 24 Tf 72 720 Td (Page) Tj ET";
    const QByteArray freeText = "<< /Type /Annot /Subtype /FreeText /Rect [72 300 372 500] /DA (/Helv 12 Tf 0 g) /Contents (" +
                                QByteArray("lorem ipsum dolor sit amet ").repeated(400000).left(10 << 20) + ") >>";
    QByteArray operators;
    for (int i = 0; i < 10000; ++i) // five operators each
        operators += "q " + QByteArray::number(i % 600) + " " + QByteArray::number(i % 780) + " 2 2 re f Q\n";
    const std::vector<std::pair<QString, QByteArray>> files{
        {QStringLiteral("freetext.pdf"), hostilePdf({text, text, text}, freeText, 1)},
        {QStringLiteral("imagebomb.pdf"), hostilePdf({"q 540 0 0 720 36 36 cm /Im0 Do Q", text, text}, {}, 50000)},
        {QStringLiteral("operators.pdf"), hostilePdf({operators, text, operators}, {}, 1)},
    };
    qint64 worst = 0;
    for (const auto &[name, data] : files) {
        const QString path = folder + QLatin1Char('/') + name;
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size())
            return -1;
        file.close();
        MeasuredView view;
        view.resize(windowSize);
        view.show();
        QApplication::processEvents();
        StallMeter stalls;
        stalls.start();
        auto doc = PdfDocument::open(path);
        if (!doc)
            return -1;
        view.setDocument(doc);
        const qint64 firstPaintMs = waitForCompletePaint(view);
        const Scroll scroll = scrollThrough(view);
        const qint64 stall = std::max(stalls.stop(), scroll.worstStallMs);
        std::printf("hostile %s: first page drawn in %lld ms, scrolled through in %lld ms, worst stall %lld ms\n",
                    qPrintable(name), firstPaintMs, scroll.ms, stall);
        worst = std::max(worst, stall);
    }
    return worst;
}

int scrollOnly(const QString &path)
{
    MeasuredView view;
    view.resize(windowSize);
    view.setAutoScales(false);
    view.setScaleFactor(1.0);
    view.show();
    auto doc = PdfDocument::open(path);
    if (!doc) {
        std::fprintf(stderr, "cannot open %s\n", qPrintable(path));
        return 1;
    }
    view.setDocument(doc);
    waitForCompletePaint(view);
    const Scroll scroll = scrollThrough(view);
    std::printf("%d pages scrolled in %lld ms, worst stall %lld ms\n", doc->pageCount(), scroll.ms, scroll.worstStallMs);
    std::printf("peak_rss_mb=%lld\n", peakRssMb());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 4 && args[1] == QLatin1String("--write"))
        return fixtures::writePdf(args[2], fixtures::numberedPages(args[3].toInt(), linesPerPage)) ? 0 : 1;
    if (args.size() == 3 && args[1] == QLatin1String("--scroll"))
        return scrollOnly(args[2]);
    if (args.size() == 2 && args[1] == QLatin1String("--hostile")) {
        QTemporaryDir hostile;
        std::printf("hostile_stall_ms=%lld\n", hostileStallMs(hostile.path()));
        return 0;
    }
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("bench.pdf"));
    if (!writeInChild(path, pageCount)) {
        std::fprintf(stderr, "cannot write the benchmark file\n");
        return 1;
    }
    std::printf("file: %d pages, %d lines each, %lld KB; view %dx%d\n", pageCount, linesPerPage, QFileInfo(path).size() / 1024,
                windowSize.width(), windowSize.height());
    std::printf("machine: %d cores, two threads run %.2fx as fast as one\n", QThread::idealThreadCount(), parallelSpeedup());
    const qint64 referenceBeforeMs = mutoolMs(path);

    // Reading the page list of the file, the best of five opens (the file is in the page cache).
    qint64 openUs = -1;
    for (int round = 0; round < 5; ++round) {
        QElapsedTimer open;
        open.start();
        auto probe = PdfDocument::open(path);
        const qint64 us = open.nsecsElapsed() / 1000;
        if (probe && probe->pageCount() == pageCount && (openUs < 0 || us < openUs))
            openUs = us;
    }
    std::printf("open (page list of %d pages): %.1f ms\n", pageCount, openUs / 1000.0);

    MeasuredView view;
    view.resize(windowSize);
    view.setAutoScales(false);
    view.setScaleFactor(1.0);
    view.show();
    app.processEvents();

    // Open to first page painted.
    QElapsedTimer clock;
    clock.start();
    auto doc = PdfDocument::open(path);
    if (!doc) {
        std::fprintf(stderr, "cannot open the benchmark file\n");
        return 1;
    }
    view.setDocument(doc);
    waitForCompletePaint(view);
    const qint64 firstPaintMs = clock.elapsed();
    std::printf("open to first page painted: %lld ms\n", firstPaintMs);

    const Scroll scroll = scrollThrough(view);
    const qint64 scrollMs = scroll.ms, maxStallMs = scroll.worstStallMs;
    const double pagesPerSecond = pageCount * 1000.0 / double(std::max<qint64>(scrollMs, 1));
    std::printf("scroll through %d pages at 100 %%: %lld ms, %.0f pages/s, worst stall %lld ms\n", pageCount, scrollMs,
                pagesPerSecond, maxStallMs);
    std::printf("  cpu: %.2f ms per page on the user-interface thread, %.2f ms in all\n", scroll.mainCpuMs / pageCount,
                scroll.processCpuMs / pageCount);

    // Re-render after a zoom change, in the middle of the file.
    view.goToPage(doc->page(pageCount / 2));
    waitForCompletePaint(view);
    StallMeter stalls;
    stalls.start();
    view.setScaleFactor(1.5);
    const qint64 zoomMs = waitForCompletePaint(view);
    const qint64 zoomStallMs = stalls.stop();
    std::printf("re-render after zoom 100 %% -> 150 %%: %lld ms (worst stall %lld ms)\n", zoomMs, zoomStallMs);

    const qint64 peakMb = peakRssMb();
    std::printf("peak memory (VmHWM): %lld MB, picture cache limit %lld MB\n", peakMb, view.cacheLimit() >> 20);
    const QString longPath = dir.filePath(QStringLiteral("long.pdf"));
    const qint64 longPeakMb = writeInChild(longPath, longPageCount) ? peakInChild(longPath) : -1;
    std::printf("peak memory scrolling through %d pages: %lld MB\n", longPageCount, longPeakMb);

    // The reference, timed before and after the view's run: the machine is shared.
    const qint64 referenceAfterMs = mutoolMs(path);
    double ratio = 0;
    if (referenceBeforeMs > 0 && referenceAfterMs > 0) {
        const double referenceMs = (referenceBeforeMs + referenceAfterMs) / 2.0;
        const double referencePagesPerSecond = pageCount * 1000.0 / referenceMs;
        ratio = pagesPerSecond / referencePagesPerSecond;
        std::printf("mutool draw -r 72, %d pages: %lld ms before, %lld ms after, %.0f pages/s; view / mutool = %.2f\n", pageCount,
                    referenceBeforeMs, referenceAfterMs, referencePagesPerSecond, ratio);
    } else {
        std::printf("mutool draw: not available\n");
    }
    const qint64 hostileMs = hostileStallMs(dir.path());
    std::printf("open_ms=%.1f first_paint_ms=%lld max_stall_ms=%lld pages_per_s=%.0f vs_mutool=%.2f peak_rss_mb=%lld "
                "peak_rss_10k_mb=%lld hostile_stall_ms=%lld\n",
                openUs / 1000.0, firstPaintMs, maxStallMs, pagesPerSecond, ratio, peakMb, longPeakMb, hostileMs);
    return 0;
}
