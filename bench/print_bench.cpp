// Print benchmark: all pages of the 2,000-page benchmark file (written by
// pdfview_bench --write) made into the print copy handed to the scheduler,
// A4 and fit to the printable area. Reports the copy's size against the
// file's own and the time until it is ready to hand over, best of three,
// with the time of saving the file twice for comparison. The last line holds
// both figures.
#include "PdfDocument.h"
#include "PdfPrintCopy.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <numeric>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("bench.pdf"));
    QProcess writer;
    writer.start(QCoreApplication::applicationDirPath() + QStringLiteral("/pdfview_bench"),
                 {QStringLiteral("--write"), path, QStringLiteral("2000")});
    auto document = writer.waitForFinished(600000) && writer.exitCode() == 0 ? PdfDocument::open(path) : nullptr;
    if (!document) {
        std::fprintf(stderr, "cannot write the benchmark file\n");
        return 1;
    }
    std::vector<int> pages(size_t(document->pageCount()));
    std::iota(pages.begin(), pages.end(), 0);
    PdfPrintLayout layout;
    layout.printable = QRectF(18, 18, layout.paper.width() - 36, layout.paper.height() - 36);
    const QString spool = dir.filePath(QStringLiteral("spool.pdf"));
    qint64 prepare = -1;
    for (int run = 0; run < 3; ++run) {
        QElapsedTimer clock;
        clock.start();
        if (PdfPrintCopy::write(document, pages, layout, spool) != PdfPrintCopy::Result::Written) {
            std::fprintf(stderr, "cannot write the print copy\n");
            return 1;
        }
        const qint64 ms = clock.elapsed();
        prepare = prepare < 0 ? ms : std::min(prepare, ms);
    }
    qint64 saveTwice = -1;
    for (int run = 0; run < 3; ++run) {
        QElapsedTimer clock;
        clock.start();
        const bool saved =
            document->write(dir.filePath(QStringLiteral("a.pdf"))) && document->write(dir.filePath(QStringLiteral("b.pdf")));
        const qint64 ms = clock.elapsed();
        if (saved)
            saveTwice = saveTwice < 0 ? ms : std::min(saveTwice, ms);
    }
    const double ratio = double(QFileInfo(spool).size()) / double(QFileInfo(path).size());
    std::printf("print_pages=%d file_bytes=%lld spool_bytes=%lld save_twice_ms=%lld\n", document->pageCount(),
                QFileInfo(path).size(), QFileInfo(spool).size(), saveTwice);
    std::printf("print_spool_ratio=%.3f print_prepare_ms=%lld\n", ratio, prepare);
    return 0;
}
